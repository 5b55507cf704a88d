#include "admission/budgets.h"

#include <algorithm>

#include "log/metrics.h"
#include "protocol/messages.h"

namespace {
constexpr std::uint64_t kSecond = 1'000'000;
constexpr std::uint64_t kMinute = 60 * kSecond;

bool takeRate(Bucket& bucket, const Rate& rate, double cost, std::uint64_t now) {
    return take(bucket, static_cast<double>(rate.perSecond), static_cast<double>(rate.burst), cost, now);
}

Rate scaled(const Rate& rate, std::uint64_t multiple) {
    return Rate{rate.perSecond * multiple, rate.burst * multiple};
}

// One sender's buckets for a message of the group: its count, then (only
// when the count admits it, so a flood of refused messages does not also
// empty the byte budget) its bytes for reports and update requests.
bool takeMessage(Buckets& b, const Limits& limits, std::uint64_t multiple, std::size_t g, double bytes,
                 std::uint64_t now) {
    if (!takeRate(b.messages[g], scaled(limits.messages[g], multiple), 1, now)) return false;
    if (g == static_cast<std::size_t>(Group::reports))
        return takeRate(b.reportBytes, scaled(limits.reportBytes, multiple), bytes, now);
    if (g == static_cast<std::size_t>(Group::update))
        return takeRate(b.updateBytes, scaled(limits.updateBytes, multiple), bytes, now);
    return true;
}

}  // namespace

bool take(Bucket& bucket, double perSecond, double burst, double cost, std::uint64_t now) {
    if (perSecond <= 0) return true;
    if (!bucket.started) {
        bucket.started = true;
        bucket.tokens = burst;
    } else if (now > bucket.lastMicros) {
        bucket.tokens = std::min(burst, bucket.tokens + perSecond * static_cast<double>(now - bucket.lastMicros) / 1e6);
    }
    bucket.lastMicros = std::max(bucket.lastMicros, now);
    if (bucket.tokens < cost) return false;
    bucket.tokens -= cost;
    return true;
}

Group groupOfChannel(std::uint8_t channel) {
    switch (channel) {
        case kLobbyChannel: return Group::lobby;
        case kTextChannel: return Group::text;
        case kReportsChannel: return Group::reports;
        case kEventTrackingChannel: return Group::events;
        case kFileUpdateChannel: return Group::update;
        default: return Group::orders;
    }
}

Verdict charge(PeerBudget& b, AddressBudget* address, const Limits& limits, Group group, std::size_t bytes,
               std::uint64_t now, std::string& line) {
    const auto g = static_cast<std::size_t>(group);
    const std::uint64_t m = limits.addressBudgetMultiple;
    const bool own = takeMessage(b.buckets, limits, 1, g, static_cast<double>(bytes), now);
    const bool ok = own && (address == nullptr || m == 0 ||
                            takeMessage(address->buckets, limits, m, g, static_cast<double>(bytes), now));
    if (ok) return Verdict::admit;

    metrics().budgetDrops[g].fetch_add(1, std::memory_order_relaxed);
    ++b.dropped[g];
    if (b.overSince == 0 || now - b.lastDrop > kSecond) b.overSince = now;
    b.lastDrop = now;
    if (!b.dropLogged || now - b.lastDropLine >= kMinute) {
        line = "over budget, dropped:";
        for (std::size_t i = 0; i < kGroupCount; ++i)
            if (b.dropped[i] != 0) line += std::string(" ") + kGroupNames[i] + " " + std::to_string(b.dropped[i]);
        b.dropped = {};
        b.dropLogged = true;
        b.lastDropLine = now;
    }
    const std::uint64_t patience = limits.overbudgetDisconnectSeconds * kSecond;
    if (own) return Verdict::drop;  // its address's budget, not its own
    if (patience != 0 && now - b.overSince > patience) {
        countLimit(LimitFired::overbudgetDisconnect);
        return Verdict::disconnect;
    }
    return Verdict::drop;
}

bool mayLogMalformed(PeerBudget& b, const Limits& limits, std::uint64_t now, std::string& summary) {
    if (limits.malformedLinesPerPeer == 0 || b.malformedLines < limits.malformedLinesPerPeer) {
        ++b.malformedLines;
        b.lastMalformedLine = now;
        return true;
    }
    ++b.malformedUnlogged;
    if (now - b.lastMalformedLine >= kMinute) {
        summary = std::to_string(b.malformedUnlogged) + " more malformed or unknown messages, not logged one by one";
        b.malformedUnlogged = 0;
        b.lastMalformedLine = now;
    }
    return false;
}

std::string reportRefusalLine(PeerBudget& b, const std::string& limit, std::uint64_t now) {
    if (b.reportRefusalLogged && now - b.lastReportRefusalLine < kMinute) {
        ++b.reportRefusalsUnlogged;
        return {};
    }
    std::string line = "not written: over " + limit;
    if (b.reportRefusalsUnlogged != 0)
        line += " (and " + std::to_string(b.reportRefusalsUnlogged) + " more since the last line)";
    b.reportRefusalsUnlogged = 0;
    b.reportRefusalLogged = true;
    b.lastReportRefusalLine = now;
    return line;
}

bool mayReply(PeerBudget& b, AddressBudget* address, const Limits& limits, std::uint64_t now) {
    // Taking nothing refills the bucket; what is left says whether it is spent.
    auto open = [now](Bucket& bucket, const Rate& rate) {
        return take(bucket, static_cast<double>(rate.perSecond), static_cast<double>(rate.burst), 0, now) &&
               (rate.perSecond == 0 || bucket.tokens > 0);
    };
    if (!open(b.buckets.replyBytes, limits.replyBytes)) return false;
    const std::uint64_t m = limits.addressBudgetMultiple;
    return address == nullptr || m == 0 || open(address->buckets.replyBytes, scaled(limits.replyBytes, m));
}

void chargeReply(PeerBudget& b, AddressBudget* address, const Limits& limits, std::size_t bytes) {
    if (limits.replyBytes.perSecond == 0) return;
    b.buckets.replyBytes.tokens -= static_cast<double>(bytes);
    if (address != nullptr && limits.addressBudgetMultiple != 0)
        address->buckets.replyBytes.tokens -= static_cast<double>(bytes);
}

bool chargeRoomCreation(PeerBudget& b, AddressBudget* address, const Limits& limits, std::uint64_t now) {
    // A minute's worth at once, refilled over the minute.
    auto take = [now](Bucket& bucket, std::uint64_t perMinute) {
        return perMinute == 0 ||
               ::take(bucket, static_cast<double>(perMinute) / 60, static_cast<double>(perMinute), 1, now);
    };
    return take(b.buckets.roomsPerMinute, limits.roomsPerPeerPerMinute) &&
           (address == nullptr || take(address->buckets.roomsPerMinute, limits.roomsPerAddressPerMinute));
}

bool mayLogRefusal(PeerBudget& b, std::uint64_t now) {
    if (b.refusalLogged && now - b.lastRefusalLine < kMinute) return false;
    b.refusalLogged = true;
    b.lastRefusalLine = now;
    return true;
}
