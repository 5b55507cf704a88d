#include "game/match.h"
#include "log/log.h"
#include "log/metrics.h"
#include "platform/files.h"

namespace {
// From this desync on, the players are told how many there have been.
constexpr std::uint32_t kDesyncCountShown = 4;

// Complete when every occupied slot has a nonzero checksum; agreement is
// only meaningful then. Slots without a peer are ignored either way.
bool isComplete(const SeatPeers& seats, const ChecksumRecord& record) {
    for (std::size_t j = 0; j < kSlotCount; ++j)
        if (seats[j] != nullptr && record.checksums[j] == 0) return false;
    return true;
}

bool agrees(const SeatPeers& seats, const ChecksumRecord& record) {
    const std::uint32_t* first = nullptr;
    for (std::size_t j = 0; j < kSlotCount; ++j) {
        if (seats[j] == nullptr) continue;
        if (first == nullptr)
            first = &record.checksums[j];
        else if (record.checksums[j] != *first)
            return false;
    }
    return true;
}

// An evidence file that cannot be opened or written is skipped silently: the
// resync goes on without it.
void writeEvidence(const std::string& path, ByteView data) {
    FileWriter file;
    if (!file.open(path)) return;
    file.write(data.data(), data.size());
    file.commit();
}
}  // namespace

void handleChecksum(Match& match, const Seating& seating, std::uint32_t slot, std::uint32_t step,
                    std::uint32_t checksum) {
    auto& records = match.checksumRecords;
    for (auto it = records.begin(); it != records.end(); ++it) {
        if (it->step != step) continue;
        it->checksums[slot] = checksum;
        if (!isComplete(seating.peers, *it)) return;
        if (!agrees(seating.peers, *it)) declareDesync(match, seating, it->step);
        records.erase(it);  // compared once, desync or not
        return;
    }
    ChecksumRecord record;
    record.step = step;
    record.checksums[slot] = checksum;
    records.push_back(record);  // a new record waits for the others
}

void declareDesync(Match& match, const Seating& seating, std::uint32_t step) {
    logError("|||| Checksums failed at step " + std::to_string(step) + " in room " + std::to_string(seating.roomId));
    sendTextToSeated(seating.peers, "Desync detected... attempting resync...");
    match.desyncCount += 1;
    metrics().desyncs.fetch_add(1, std::memory_order_relaxed);
    if (match.desyncCount >= kDesyncCountShown)
        sendTextToSeated(seating.peers, "This is desync number " + std::to_string(match.desyncCount) +
                                            ". Consider quitting match if this happens too often");
    match.resyncStep = match.lastCompletedStep + 1;

    Order resync;
    resync.step = match.resyncStep;
    resync.argument = 0xFFFFFFFFu;
    resync.firstList = {};
    resync.orderType = kResyncOrderType;
    // Every seated player has a setup, so every one of them is resynced.
    sendToSeated(seating.peers, kOrderChannel, serializeOrder(resync));
}

std::string evidenceBaseName(std::uint32_t roomId, std::uint32_t desyncCount, std::size_t slot) {
    return dataRootPrefix() + "server_data/resyncs/room" + std::to_string(roomId) + "_desync" +
           std::to_string(desyncCount) + "_peer" + std::to_string(slot);
}

void handleResyncReport(Match& match, const Seating& seating, std::uint32_t slot, const ResyncReport& report,
                        ByteView packet) {
    std::string base = evidenceBaseName(seating.roomId, match.desyncCount, slot);
    writeEvidence(base + ".world", report.world);
    writeEvidence(base + ".log", report.log);
    match.resyncPending[slot] = false;
    // Nothing marks a slot pending yet, so every report completes the resync
    // at once and reaches the players as it arrives.
    for (bool pending : match.resyncPending)
        if (pending) return;
    match.resyncStep = 0xFFFFFFFFu;
    match.orderDelay = 2;
    match.delayHold = kMaxDelayHold;  // no lengthening until the hold has run down
    sendToSeated(seating.peers, kMatchControlChannel, packet);
}
