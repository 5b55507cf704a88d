#include "protocol/messages.h"

#include <cstring>

bool isStepDoneOrder(const Order& order) {
    return order.firstList.size() >= 4 && loadU32(order.firstList.data()) == kStepDoneMark;
}

std::optional<Order> parseOrder(ByteView bytes) {
    if (bytes.size() < kShortOrderLength) return std::nullopt;
    if (bytes.size() > kShortOrderLength) return decode<Order>(bytes);
    Order order;  // the defaults are the short form's
    order.messageType = loadU32(bytes.data());
    order.step = loadU32(bytes.data() + 4);
    order.argument = loadU32(bytes.data() + 8);
    return order;
}

Bytes serializeOrder(const Order& order) {
    if (!isStepDoneOrder(order)) {
        Order full = order;
        full.messageType = 1;
        return encode(full);
    }
    return Writer(kShortOrderLength).u32(1).u32(order.step).u32(order.argument).take();
}

namespace {
constexpr char kBundleMagic[] = "COMBOSAVE";
constexpr std::size_t kBundleMagicLength = sizeof kBundleMagic - 1;
}  // namespace

bool isSnapshotBundle(ByteView snapshot) {
    return snapshot.size() >= kBundleMagicLength &&
           std::memcmp(snapshot.data(), kBundleMagic, kBundleMagicLength) == 0;
}

std::optional<SnapshotBundle> parseSnapshotBundle(ByteView snapshot) {
    if (!isSnapshotBundle(snapshot)) return std::nullopt;
    Reader r(snapshot);
    r.strView();  // the header; its text beyond the magic is not used
    SnapshotBundle bundle;
    bundle.save = r.blob();
    bundle.world = r.blob();
    bundle.log = r.blob();
    bundle.scriptLog = r.blob();
    if (!r.ok()) return std::nullopt;
    return bundle;
}

Bytes encodeSnapshotBundle(ByteView save, ByteView world, ByteView log, ByteView scriptLog) {
    Writer w;
    w.str(kBundleMagic).blob(save).blob(world).blob(log).blob(scriptLog);
    return w.take();
}
