#include "app/budgets.h"

#include <algorithm>

#include "log/metrics.h"
#include "protocol/messages.h"

namespace {
constexpr std::uint64_t kSecond = 1'000'000;
constexpr std::uint64_t kMinute = 60 * kSecond;

bool takeRate(Bucket& bucket, const Rate& rate, double cost, std::uint64_t now) {
    return take(bucket, static_cast<double>(rate.perSecond), static_cast<double>(rate.burst), cost, now);
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

Verdict charge(PeerBudget& b, const Limits& limits, Group group, std::size_t bytes, std::uint64_t now,
               std::string& line) {
    const auto g = static_cast<std::size_t>(group);
    bool ok = takeRate(b.messages[g], limits.messages[g], 1, now);
    // Bytes are only charged for a message the count admits, so a flood of
    // refused messages does not also empty the byte budget.
    if (ok && group == Group::reports) ok = takeRate(b.reportBytes, limits.reportBytes, static_cast<double>(bytes), now);
    if (ok && group == Group::update) ok = takeRate(b.updateBytes, limits.updateBytes, static_cast<double>(bytes), now);
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
