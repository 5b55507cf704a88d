// The whole session state machine from a script of steps. Each step is one
// byte of operation followed by its operands:
//   0 connect peer p          1 disconnect peer p
//   2 packet: peer, channel, length n, then n bytes
//   3 advance the clock by b seconds and run a service step's room work
// After every step the registries must agree with each other.

#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "app/invariants.h"
#include "app/service.h"
#include "fuzz_common.h"
#include "lobby/lobby.h"
#include "platform/clock.h"

namespace {

void checkInvariants(const FuzzServer& fuzz) {
    if (!brokenInvariant(fuzz.server).empty()) std::abort();
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
                runRoomWork(fuzz.server, steadyMicros());
                turnStreams(fuzz.server.rooms, steadyMicros());
                break;
        }
        checkInvariants(fuzz);
    }
    return 0;
}
