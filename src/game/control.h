#pragma once
// Match control messages: a type word, a second header word, then the payload.

#include <cstdint>
#include <optional>

#include "protocol/wire.h"

enum MatchControlType : std::uint32_t {
    kDelayIncrease = 1,  // server to client
    kDelayDecrease = 2,  // server to client
    kLeaveMatch = 3,     // client to server
    kDelayHold = 4,      // client to server
    kDelayRequest = 5,   // client to server
    kResyncReport = 8,   // both
};

// Caps of the two counters that DelayHold and DelayRequest raise.
inline constexpr std::int32_t kMaxDelayHold = 24;
inline constexpr std::int32_t kMaxLagReports = 24;

// DelayIncrease and DelayDecrease: the header alone, 8 bytes.
struct DelayNotice {
    std::uint32_t type = kDelayDecrease;
    std::uint32_t secondWord = 1;

    Bytes encode() const;
};

// A client's world state and log after a desync. The decoded record views the
// packet it was decoded from (the world can be large, and nothing keeps it
// beyond the handler), so it lives no longer than that packet.
struct ResyncReport {
    static constexpr std::uint32_t kType = kResyncReport;
    std::uint32_t secondWord = 1;
    ByteView world;
    ByteView log;

    Bytes encode() const;
    // nullopt when a size runs past the packet.
    static std::optional<ResyncReport> decode(ByteView packet);
};
