// The order-delay controller: shortens a room's order delay while every
// player's round trip fits well inside it, and lengthens it when players
// report lag, unless a recent resync or a client asked to hold it.

#include <algorithm>

#include "game/match.h"

namespace {
constexpr std::uint32_t kPassesPerDecision = 40;
constexpr std::uint32_t kMinOrderDelay = 2;
constexpr std::uint32_t kMaxOrderDelay = 64;
// The delay is lengthened only once the match has completed more steps than this.
constexpr std::uint32_t kStepsBeforeLengthening = 100;
constexpr std::uint32_t kStepMilliseconds = static_cast<std::uint32_t>(STEP_SECONDS * 1000);

std::uint32_t largestRoundTripTime(const Audience& audience) {
    std::uint32_t rtt = 0;
    for (const ENetPeer* peer : audience.players)
        if (peer != nullptr) rtt = std::max(rtt, peerRoundTripTime(peer));
    return rtt;
}

void decide(Match& match, const Audience& audience) {
    match.delayCooldown = kPassesPerDecision;
    if (match.lagReports == 0) {
        // In unsigned 32-bit arithmetic, like the delay itself.
        std::uint32_t rtt = largestRoundTripTime(audience);
        if (2u * rtt < kStepMilliseconds * match.orderDelay) {
            // Sent even when the delay already is at its minimum.
            sendToPlayers(audience, kMatchControlChannel, encode(DelayDecrease{}));
            match.orderDelay = match.orderDelay > kMinOrderDelay ? match.orderDelay - 1 : kMinOrderDelay;
            match.delayCooldown = kPassesPerDecision;
            if (match.recording)
                record(match.recording, RecordType::delay, Writer(12).u32(match.lastCompletedStep).u32(2).u32(match.orderDelay).take());
        }
    }
    if (match.lagReports != 0 && match.delayHold == 0 && match.lastCompletedStep > kStepsBeforeLengthening) {
        sendToPlayers(audience, kMatchControlChannel, encode(DelayIncrease{}));
        match.lagReports = 0;
        match.orderDelay = std::min(match.orderDelay + 1, kMaxOrderDelay);
        match.delayCooldown = kPassesPerDecision;
        match.maxOrderDelay = std::max(match.maxOrderDelay, match.orderDelay);
        if (match.recording)
            record(match.recording, RecordType::delay, Writer(12).u32(match.lastCompletedStep).u32(1).u32(match.orderDelay).take());
    }
}

void pass(Match& match, const Audience& audience) {
    if (match.delayCooldown > 0)
        --match.delayCooldown;
    else
        decide(match, audience);
    if (match.delayHold > 0) --match.delayHold;
    if (match.lagReports > 0) --match.lagReports;
    match.delayTicks = 0;
}
}  // namespace

std::uint32_t peerRoundTripTime(const ENetPeer* peer) { return peer->roundTripTime; }

bool orderDelayPasses(const Match& match) { return match.delayTicks >= kDelayTicksPerPass; }

bool orderDelayDecidesNext(const Match& match) { return match.delayCooldown == 0; }

void adaptOrderDelay(Match& match, const Audience& audience, std::uint32_t ticks) {
    match.delayTicks += ticks - 1;
    if (orderDelayPasses(match)) pass(match, audience);
    ++match.delayTicks;
}
