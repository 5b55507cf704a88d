// The whole session state machine from a script of steps. Each step is one
// byte of operation followed by its operands:
//   0 connect peer p          1 disconnect peer p
//   2 packet: peer, channel, length n, then n bytes
//   3 advance the clock by b seconds and run a service step's room work
// After every step the registries must agree with each other.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <set>

#include "core/dispatch.h"
#include "fuzz_common.h"
#include "platform/clock.h"

namespace {

void check(bool ok) {
    if (!ok) std::abort();
}

void checkInvariants(FuzzServer& fuzz) {
    Server& s = fuzz.server;
    std::set<ENetPeer*> seated;
    std::size_t humans = 0;
    for (const auto& [id, room] : s.rooms) {
        check(room != nullptr && room->id == id);
        check(id < s.nextRoomId);
        for (const Slot& slot : room->slots) {
            if (slot.peer == nullptr) continue;
            ++humans;
            check(s.peers.count(slot.peer) == 1);      // every seated peer is connected
            check(seated.insert(slot.peer).second);    // and sits in one slot of one room
            check(slot.info != nullptr);               // a human always has a record
        }
        check(room->hostSlot < kSlotCount);
        check(room->orderDelay >= 2 && room->orderDelay <= 64);
        check(room->lagReports >= 0 && room->lagReports <= 24);
        check(room->delayHold >= 0 && room->delayHold <= 24);
        check(!room->running || room->started);
        check(!room->started || !room->open);
    }
    check(humans <= s.peers.size());
    for (ENetPeer* p : s.peers) check(p->data != nullptr);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    FuzzServer fuzz(9);
    std::int64_t now = 1764000000;
    setClockForTests(now);
    std::size_t pos = 0;
    auto next = [&]() -> std::uint8_t { return pos < size ? data[pos++] : 0; };
    while (pos < size) {
        switch (next() % 4) {
            case 0:
                fuzz.connect(next() % 9);
                break;
            case 1:
                fuzz.disconnect(next() % 9);
                break;
            case 2: {
                std::size_t peer = next() % 9;
                std::uint8_t channel = next() % 8;
                std::size_t n = next();
                if (n > size - pos) n = size - pos;
                fuzz.receive(peer, channel, data + pos, n);
                pos += n;
                break;
            }
            case 3:
                now += next();
                setClockForTests(now);
                checkPeriodicDump(fuzz.server, localNow());
                runRoomWork(fuzz.server);
                break;
        }
        checkInvariants(fuzz);
    }
    return 0;
}
