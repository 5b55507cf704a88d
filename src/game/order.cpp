#include "game/order.h"

bool isStepDoneOrder(const Order& order) { return !order.firstList.empty() && order.firstList.front() == kStepDoneMark; }

std::optional<Order> parseOrder(const std::uint8_t* bytes, std::size_t length) {
    if (length < kShortOrderLength) return std::nullopt;
    Reader r(bytes, length);
    Order order;
    order.messageType = r.u32();
    order.step = r.u32();
    order.argument = r.u32();
    if (length == kShortOrderLength) return order;  // the defaults are the short form's

    order.firstList.assign(r.count(4), 0);
    for (auto& word : order.firstList) word = r.u32();
    order.orderType = r.u32();
    order.secondList.assign(r.count(4), 0);
    for (auto& word : order.secondList) word = r.u32();
    for (auto& word : order.params) word = r.u32();
    order.extraParam = r.u32();
    order.flag = r.u8();
    order.text = r.str();
    if (!r.ok()) return std::nullopt;
    return order;
}

std::optional<OrderSummary> inspectOrder(ByteView bytes) {
    if (bytes.size() < kShortOrderLength) return std::nullopt;
    Reader r(bytes);
    OrderSummary s;
    r.u32();
    s.step = r.u32();
    s.argument = r.u32();
    if (bytes.size() == kShortOrderLength) {
        s.stepDone = true;
        return s;
    }
    std::uint32_t n = r.count(4);
    ByteView first = r.bytes(4 * static_cast<std::size_t>(n));
    s.stepDone = n > 0 && r.ok() && loadU32(first.data()) == kStepDoneMark;
    s.orderType = r.u32();
    std::uint32_t m = r.count(4);
    r.bytes(4 * static_cast<std::size_t>(m));
    r.bytes(4 * 4 + 4 + 1);  // params, extraParam, flag
    r.skipStr();
    if (!r.ok()) return std::nullopt;
    return s;
}

Bytes serializeOrder(const Order& order) {
    if (isStepDoneOrder(order)) {
        Writer w(kShortOrderLength);
        w.u32(1).u32(order.step).u32(order.argument);
        return w.take();
    }
    Writer w(kFullOrderBaseLength + 4 * (order.firstList.size() + order.secondList.size()) + order.text.size());
    w.u32(1).u32(order.step).u32(order.argument);
    w.u32(static_cast<std::uint32_t>(order.firstList.size()));
    for (auto word : order.firstList) w.u32(word);
    w.u32(order.orderType);
    w.u32(static_cast<std::uint32_t>(order.secondList.size()));
    for (auto word : order.secondList) w.u32(word);
    for (auto word : order.params) w.u32(word);
    w.u32(order.extraParam).u8(order.flag).str(order.text);
    return w.take();
}
