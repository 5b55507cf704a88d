#include "core/metrics.h"
#include "core/server.h"
#include "game/checksum.h"
#include "game/match.h"
#include "game/order.h"
#include "log/log.h"
#include "protocol/messages.h"
#include "protocol/send.h"

void sendToOccupiedSlots(const Room& room, std::uint8_t channel, ByteView bytes, const ENetPeer* except) {
    ENetPeer* targets[kSlotCount];
    std::size_t n = 0;
    for (const Slot& slot : room.slots)
        if (slot.peer != nullptr && slot.peer != except) targets[n++] = slot.peer;
    sendBytesToMany(targets, n, channel, bytes);
}

void handleOrder(Server& server, ENetPeer* peer, ByteView packet) {
    // A peer holds a slot in one room at most, so its room is the only one
    // that can act on its order.
    Room* room = findPeerRoom(server, peer);
    if (room == nullptr) return;
    // Checked only for a member: a non-member's order is ignored without a
    // word, well-formed or not.
    std::optional<OrderSummary> order = inspectOrder(packet);
    if (!order) {
        logMalformed("order", kOrderChannel, packet.size());
        return;
    }
    if (order->step > room->resyncStep) return;
    if (order->orderType == kChecksumOrderType) {
        handleChecksum(server, peer, order->step, order->argument);
    } else if (order->stepDone) {
        // The slot the order names, which need not be the sender's.
        markStepDone(*room, static_cast<std::int32_t>(order->argument), order->step);
    } else {
        // The bytes as they came, never re-encoded.
        sendToOccupiedSlots(*room, kOrderChannel, packet, peer);
    }
}

bool isStepComplete(const Room& room, std::uint32_t step) {
    auto it = room.stepReports.find(step);
    if (it == room.stepReports.end()) return false;
    for (std::size_t i = 0; i < kSlotCount; ++i)
        if (room.slots[i].peer != nullptr && !it->second[i]) return false;
    return true;
}

void markStepDone(Room& room, std::int32_t slot, std::uint32_t step) {
    if (slot < 0 || slot >= static_cast<std::int32_t>(kSlotCount)) return;
    auto [entry, fresh] = room.stepReports.try_emplace(step);  // a new entry starts all clear
    entry->second[static_cast<std::size_t>(slot)] = true;
    if (fresh && stepTimingEnabled()) room.stepFirstReportMicros[step] = monotonicMicros();
    if (!isStepComplete(room, step)) return;

    Order notice;
    notice.step = step;
    notice.argument = static_cast<std::uint32_t>(slot);
    notice.firstList = {kStepDoneMark};
    sendToOccupiedSlots(room, kOrderChannel, serializeOrder(notice));
    room.stepReports.erase(step);
    room.lastCompletedStep = step;  // the step just completed, even when a later one came first
    metrics().stepsCompleted.fetch_add(1, std::memory_order_relaxed);
    if (auto first = room.stepFirstReportMicros.find(step); first != room.stepFirstReportMicros.end()) {
        observeStepCompletion(static_cast<double>(monotonicMicros() - first->second) / 1e6);
        room.stepFirstReportMicros.erase(first);
    }
}
