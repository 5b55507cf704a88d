// One decoder family per build: FUZZ_CHANNELS lists the channels whose
// handlers get the input. The first byte picks one of them and the sender;
// the rest is the packet. Three peers are connected and the room work runs
// after each packet, so decoders meet rooms in every state they can reach.

#include <cstddef>
#include <cstdint>
#include <initializer_list>

#include "app/service.h"
#include "fuzz_common.h"
#include "platform/clock.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const std::uint8_t channels[] = {FUZZ_CHANNELS};
    FuzzServer fuzz(3);
    for (std::size_t i = 0; i < 3; ++i) fuzz.connect(i);
    // Packets are separated by the byte pair 0xFE 0xFE so that one input can
    // carry a whole exchange (create, join, start, then the message under test).
    std::size_t pos = 0;
    while (pos < size) {
        std::uint8_t head = data[pos++];
        std::size_t end = pos;
        while (end < size && !(data[end] == 0xFE && end + 1 < size && data[end + 1] == 0xFE)) ++end;
        std::uint8_t channel = channels[head % sizeof channels];
        fuzz.receive((head >> 4) % 3, channel, data + pos, end - pos);
        runRoomWork(fuzz.server, steadyMicros());
        pos = end + 2;
    }
    return 0;
}
