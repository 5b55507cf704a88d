#include <algorithm>

#include "game/match.h"
#include "log/metrics.h"

void handleOrder(Match& match, const MatchView& view, std::uint32_t senderSlot, const Order& order,
                 ByteView packet, ENetPacket** received) {
    if (order.step > match.resyncStep) return;
    // A player back from a lost connection is sent the relay before steps
    // wait for it again: until it says it caught up, its reports of steps
    // and checksums are not its game's present, and until it is sent the
    // relay, nothing it orders is either.
    const bool counted = view.counted[senderSlot];
    if (order.orderType == kChecksumOrderType) {
        if (!counted) return;
        if (match.recording)
            record(match.recording, RecordType::checksum, Writer(12).u32(order.step).u32(senderSlot).u32(order.argument).take());
        handleChecksum(match, view, senderSlot, order.step, order.argument);
    } else if (isStepDoneOrder(order)) {
        if (!counted) return;
        // The slot the order names, which need not be the sender's.
        markStepDone(match, view, static_cast<std::int32_t>(order.argument), order.step);
    } else {
        if (view.audience.players[senderSlot] == nullptr) return;
        // The bytes as they came, never re-encoded.
        sendToAudience(view.audience, kOrderChannel, packet, view.audience.players[senderSlot], received);
        if (match.recording)
            record(match.recording, RecordType::order, Writer(8 + packet.size()).u32(order.step).u32(senderSlot).bytes(packet).take());
    }
}

bool isStepComplete(const Match& match, const SlotFlags& counted, std::uint32_t step) {
    auto it = match.stepReports.find(step);
    if (it == match.stepReports.end()) return false;
    for (std::size_t i = 0; i < kSlotCount; ++i)
        if (counted[i] && !it->second[i]) return false;
    return true;
}

bool withinStepWindow(const Match& match, std::uint32_t step) {
    const std::uint32_t last = match.lastCompletedStep;
    return step > last ? step - last <= kStepWindow : last - step <= kStepWindow;
}

void markStepDone(Match& match, const MatchView& view, std::int32_t slot, std::uint32_t step) {
    if (slot < 0 || slot >= static_cast<std::int32_t>(kSlotCount)) return;
    if (!withinStepWindow(match, step)) return;
    auto [entry, fresh] = match.stepReports.try_emplace(step);  // a new entry starts all clear
    entry->second[static_cast<std::size_t>(slot)] = true;
    if (fresh) {
        pruneBehindStepWindow(match, match.stepReports);
        pruneBehindStepWindow(match, match.stepFirstReportMicros);
        if (stepTimingEnabled()) match.stepFirstReportMicros[step] = monotonicMicros();
    }
    if (!isStepComplete(match, view.counted, step)) return;

    Order notice;
    notice.step = step;
    notice.argument = static_cast<std::uint32_t>(slot);
    sendToAudience(view.audience, kOrderChannel, serializeOrder(notice));
    if (match.recording)
        record(match.recording, RecordType::stepCompleted, Writer(8).u32(step).u32(static_cast<std::uint32_t>(slot)).take());
    match.stepReports.erase(step);
    match.lastCompletedStep = step;  // the step just completed, even when a later one came first
    metrics().stepsCompleted.fetch_add(1, std::memory_order_relaxed);
    if (auto first = match.stepFirstReportMicros.find(step); first != match.stepFirstReportMicros.end()) {
        observeStepCompletion(static_cast<double>(monotonicMicros() - first->second) / 1e6);
        match.stepFirstReportMicros.erase(first);
    }
}

void holdDelay(Match& match) { match.delayHold = std::min(match.delayHold + 2, kMaxDelayHold); }

void requestLongerDelay(Match& match) { match.lagReports = std::min(match.lagReports + 1, kMaxLagReports); }
