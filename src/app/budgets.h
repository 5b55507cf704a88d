#pragma once
// What each peer may send: a token bucket per group of messages (and per
// byte for reports and update requests), charged before a message is
// decoded, and the allowance of log lines for its malformed messages.

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>

#include "app/limits.h"

struct Bucket {
    double tokens = 0;
    std::uint64_t lastMicros = 0;
    bool started = false;
};

// Refills the bucket for the time since its last use (it starts full), then
// takes cost tokens if it holds that many. A rate of 0 admits everything.
bool take(Bucket& bucket, double perSecond, double burst, double cost, std::uint64_t nowMicros);

struct PeerBudget {
    std::array<Bucket, kGroupCount> messages;
    Bucket reportBytes;
    Bucket updateBytes;
    Bucket reportsPerHour;
    // Drops since the last line about them, and when that line was written.
    std::array<std::uint64_t, kGroupCount> dropped{};
    std::uint64_t lastDropLine = 0;
    bool dropLogged = false;
    // Since when the peer has been dropping without a second's pause.
    std::uint64_t overSince = 0;
    std::uint64_t lastDrop = 0;
    // Malformed and unknown messages: lines written, and those not written
    // since the last line.
    std::uint64_t malformedLines = 0;
    std::uint64_t malformedUnlogged = 0;
    std::uint64_t lastMalformedLine = 0;
    // Reports refused over a quota: the first is logged, then a line a
    // minute with the count.
    std::uint64_t reportRefusalsUnlogged = 0;
    std::uint64_t lastReportRefusalLine = 0;
    bool reportRefusalLogged = false;
};

enum class Verdict { admit, drop, disconnect };

// Charges one message of the group (and its bytes, for reports and update
// requests). A dropped message may come with a line to log; a peer that has
// been over budget for longer than the limit allows is to be disconnected.
Verdict charge(PeerBudget& budget, const Limits& limits, Group group, std::size_t bytes, std::uint64_t nowMicros,
               std::string& line);

// Whether a malformed or unknown message may be logged in full; when not, a
// line with the count of those not logged may come once a minute.
bool mayLogMalformed(PeerBudget& budget, const Limits& limits, std::uint64_t nowMicros, std::string& summary);

// The line for a report refused over a quota, when one is due: the first at
// once, then one a minute with the count of those refused in between.
std::string reportRefusalLine(PeerBudget& budget, const std::string& limit, std::uint64_t nowMicros);

// The group a channel's messages are charged to.
Group groupOfChannel(std::uint8_t channel);
