#pragma once
// What each peer may send: a token bucket per group of messages (and per
// byte for reports and update requests), charged before a message is
// decoded, and the allowance of log lines for its malformed messages.

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>

#include "admission/limits.h"

struct Bucket {
    double tokens = 0;
    std::uint64_t lastMicros = 0;
    bool started = false;
};

// Refills the bucket for the time since its last use (it starts full), then
// takes cost tokens if it holds that many. A rate of 0 admits everything.
bool take(Bucket& bucket, double perSecond, double burst, double cost, std::uint64_t nowMicros);

// The buckets charged for one sender: a peer has its own, and so have all
// the peers of one address together (at address_budget_multiple times the
// peer's rates).
struct Buckets {
    std::array<Bucket, kGroupCount> messages;
    Bucket reportBytes;
    Bucket updateBytes;
    Bucket replyBytes;
    Bucket roomsPerMinute;
};

struct AddressBudget {
    Buckets buckets;
    // Registered peers of the address: the record goes with the last.
    std::uint64_t peers = 0;
};

struct PeerBudget {
    Buckets buckets;
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
    // Replies and rooms refused: a line a minute at most.
    std::uint64_t lastRefusalLine = 0;
    bool refusalLogged = false;
};

enum class Verdict { admit, drop, disconnect };

// Charges one message of the group (and its bytes, for reports and update
// requests) to the peer and to its address (when given). A dropped message
// may come with a line to log; a peer that has been over its own budget for
// longer than the limit allows is to be disconnected (an address over its
// budget only drops: the peer may be an honest one beside a flooder).
Verdict charge(PeerBudget& budget, AddressBudget* address, const Limits& limits, Group group, std::size_t bytes,
               std::uint64_t nowMicros, std::string& line);

// Replies a request causes (reply_bytes_*): whether one may go now (the
// budgets are not spent), and then its bytes, charged once its size is known
// (the budget may go into debt by that one reply, which later requests pay).
bool mayReply(PeerBudget& budget, AddressBudget* address, const Limits& limits, std::uint64_t nowMicros);
void chargeReply(PeerBudget& budget, AddressBudget* address, const Limits& limits, std::size_t bytes);
// Charges the creation of one room (rooms_per_*_per_minute); false when it
// is refused.
bool chargeRoomCreation(PeerBudget& budget, AddressBudget* address, const Limits& limits, std::uint64_t nowMicros);
// Whether a refused reply or room may be logged now: once a minute per peer.
bool mayLogRefusal(PeerBudget& budget, std::uint64_t nowMicros);

// Whether a malformed or unknown message may be logged in full; when not, a
// line with the count of those not logged may come once a minute.
bool mayLogMalformed(PeerBudget& budget, const Limits& limits, std::uint64_t nowMicros, std::string& summary);

// The line for a report refused over a quota, when one is due: the first at
// once, then one a minute with the count of those refused in between.
std::string reportRefusalLine(PeerBudget& budget, const std::string& limit, std::uint64_t nowMicros);

// The group a channel's messages are charged to.
Group groupOfChannel(std::uint8_t channel);
