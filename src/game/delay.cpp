// The order-delay controller: shortens a room's order delay while every
// player's round trip fits well inside it, and lengthens it when players
// report lag, unless a recent resync or a client asked to hold it.

#include <algorithm>

#include "core/server.h"
#include "game/control.h"
#include "game/match.h"
#include "protocol/paths.h"
#include "protocol/send.h"

namespace {
constexpr std::uint32_t kTicksPerPass = 15;
constexpr std::uint32_t kPassesPerDecision = 40;
constexpr std::uint32_t kMinOrderDelay = 2;
constexpr std::uint32_t kMaxOrderDelay = 64;
// The delay is lengthened only once the match has completed more steps than this.
constexpr std::uint32_t kStepsBeforeLengthening = 100;
constexpr std::uint32_t kStepMilliseconds = static_cast<std::uint32_t>(STEP_SECONDS * 1000);

std::uint32_t largestRoundTripTime(const Room& room) {
    std::uint32_t rtt = 0;
    for (const Slot& slot : room.slots)
        if (slot.peer != nullptr) rtt = std::max(rtt, peerRoundTripTime(slot.peer));
    return rtt;
}

void sendDelayNotice(const Room& room, MatchControlType type) {
    sendToOccupiedSlots(room, kMatchControlChannel, DelayNotice{.type = type}.encode());
}

void decide(Room& room) {
    room.delayCooldown = kPassesPerDecision;
    if (room.lagReports == 0) {
        // In unsigned 32-bit arithmetic, like the delay itself.
        std::uint32_t rtt = largestRoundTripTime(room);
        if (2u * rtt < kStepMilliseconds * room.orderDelay) {
            // Sent even when the delay already is at its minimum.
            sendDelayNotice(room, kDelayDecrease);
            room.orderDelay = room.orderDelay > kMinOrderDelay ? room.orderDelay - 1 : kMinOrderDelay;
            room.delayCooldown = kPassesPerDecision;
        }
    }
    if (room.lagReports != 0 && room.delayHold == 0 && room.lastCompletedStep > kStepsBeforeLengthening) {
        sendDelayNotice(room, kDelayIncrease);
        room.lagReports = 0;
        room.orderDelay = std::min(room.orderDelay + 1, kMaxOrderDelay);
        room.delayCooldown = kPassesPerDecision;
        room.maxOrderDelay = std::max(room.maxOrderDelay, room.orderDelay);
    }
}

void pass(Room& room) {
    if (room.delayCooldown > 0)
        --room.delayCooldown;
    else
        decide(room);
    if (room.delayHold > 0) --room.delayHold;
    if (room.lagReports > 0) --room.lagReports;
    room.delayTicks = 0;
}
}  // namespace

std::uint32_t peerRoundTripTime(const ENetPeer* peer) { return peer->roundTripTime; }

void adaptOrderDelay(Server& server) {
    for (auto& [id, room] : server.rooms) {
        if (!room->running) continue;
        if (room->delayTicks >= kTicksPerPass) pass(*room);
        ++room->delayTicks;
    }
}
