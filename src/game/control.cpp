#include "game/control.h"

Bytes DelayNotice::encode() const { return Writer(8).u32(type).u32(secondWord).take(); }

Bytes ResyncReport::encode() const {
    Writer w(16 + world.size() + log.size());
    w.u32(kType).u32(secondWord).blob(world).blob(log);
    return w.take();
}

std::optional<ResyncReport> ResyncReport::decode(ByteView packet) {
    Reader r(packet);
    ResyncReport report;
    r.u32();
    report.secondWord = r.u32();
    report.world = r.blob();
    report.log = r.blob();
    if (!r.ok()) return std::nullopt;
    return report;
}
