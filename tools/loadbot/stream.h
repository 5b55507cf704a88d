#pragma once
// The client side of the extensions a rejoining player speaks, as far as the
// catch-up tool needs them, and a reader of the match's stream that checks
// every record's frame and CRC and that the orders and completions it
// carries have no gap and no repeat. Independent of the server's own code,
// like the rest of the load generator.

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "protocol.h"

namespace loadbot {

constexpr std::uint32_t kExtensions = 100;
constexpr std::uint32_t kJoinRefused = 105;
constexpr std::uint32_t kRejoinTicket = 107;
constexpr std::uint32_t kRejoin = 108;
constexpr std::uint32_t kPlayerAway = 109;
constexpr std::uint32_t kPlayerBack = 110;
constexpr std::uint32_t kRejoinAccepted = 111;
constexpr std::uint32_t kCatchUp = 114;
constexpr std::uint32_t kCatchUpDone = 115;
constexpr std::uint32_t kCaughtUp = 116;
constexpr std::size_t kTokenSize = 16;

// CRC-32 with the zlib polynomial, as the records carry it.
std::uint32_t crc32(const std::uint8_t* data, std::size_t length, std::uint32_t crc = 0);

Bytes extensionsHelloMessage(const std::vector<std::string>& features);
// The features of an ExtensionsGranted; empty when the bytes are not one.
std::vector<std::string> parseGranted(const std::uint8_t* data, std::size_t length, bool& ok);
Bytes rejoinMessage(std::uint32_t roomId, const Bytes& token);
Bytes caughtUpMessage();
// The token of a RejoinTicket or a RejoinAccepted (slot and room with it);
// false when the bytes are not one.
bool parseTokenMessage(const std::uint8_t* data, std::size_t length, std::uint32_t& roomId, std::uint32_t& slot,
                       Bytes& token);

// What a stream's records came to, checked as they are read.
struct StreamCheck {
    std::uint64_t messages = 0;
    std::uint64_t bytes = 0;  // of records
    std::uint64_t records = 0;
    std::uint64_t orders = 0;
    std::uint64_t completions = 0;
    std::uint64_t headers = 0;
    std::uint64_t badFrames = 0;  // a message that is not whole records, or a CRC that does not match
    // Per sender slot, the last step of its orders; steps of completions.
    std::uint32_t lastOrderStep[8] = {};
    std::uint32_t lastCompletedStep = 0;
    // Orders of the slots in `strict` and completions must come as 1, 2,
    // 3, ...: a slot that played throughout has every step once.
    std::uint32_t strict = 0;  // bit per slot
    std::uint64_t gaps = 0;
    std::uint64_t repeats = 0;

    // Takes the records of one CatchUp message (its blob); false when the
    // message is not a CatchUp.
    bool takeMessage(const std::uint8_t* data, std::size_t length);
    // The live relay after the stream, held to the same sequences.
    void takeLiveOrder(std::uint32_t slot, std::uint32_t step);
    void takeLiveCompletion(std::uint32_t step);
    std::uint64_t errors() const { return badFrames + gaps + repeats; }
    // The first few gaps and repeats, said in words.
    std::vector<std::string> anomalies;

private:
    void sequence(const char* what, std::uint32_t& last, std::uint32_t step, bool strictly, bool live);
};

}  // namespace loadbot
