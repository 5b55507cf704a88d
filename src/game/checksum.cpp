#include "game/match.h"
#include "log/log.h"
#include "log/metrics.h"
#include "platform/files.h"

namespace {
// From this desync on, the players are told how many there have been.
constexpr std::uint32_t kDesyncCountShown = 4;

// Complete when every counted player has a nonzero checksum; agreement is
// only meaningful then. The other slots are ignored either way.
bool isComplete(const SlotFlags& counted, const ChecksumRecord& record) {
    for (std::size_t j = 0; j < kSlotCount; ++j)
        if (counted[j] && record[j] == 0) return false;
    return true;
}

bool agrees(const SlotFlags& counted, const ChecksumRecord& record) {
    const std::uint32_t* first = nullptr;
    for (std::size_t j = 0; j < kSlotCount; ++j) {
        if (!counted[j]) continue;
        if (first == nullptr)
            first = &record[j];
        else if (record[j] != *first)
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

void handleChecksum(Match& match, const MatchView& view, std::uint32_t slot, std::uint32_t step,
                    std::uint32_t checksum) {
    if (!withinStepWindow(match, step)) return;
    auto& records = match.checksumRecords;
    auto [it, fresh] = records.try_emplace(step);  // a new record waits for the others
    it->second[slot] = checksum;
    if (fresh) pruneBehindStepWindow(match, records);
    if (!isComplete(view.counted, it->second)) return;
    if (!agrees(view.counted, it->second)) declareDesync(match, view, step);
    records.erase(step);  // compared once, desync or not
}

void declareDesync(Match& match, const MatchView& view, std::uint32_t step) {
    logError("|||| Checksums failed at step " + std::to_string(step) + " in room " + std::to_string(view.roomId));
    sendTextToPlayers(view.audience, "Desync detected... attempting resync...");
    match.desyncCount += 1;
    metrics().desyncs.fetch_add(1, std::memory_order_relaxed);
    if (match.recording)
        record(match.recording, RecordType::desync,
               Writer().u32(step).u32(match.desyncCount).str(evidenceStem(view.roomId, match.desyncCount)).take());
    if (match.desyncCount >= kDesyncCountShown)
        sendTextToPlayers(view.audience, "This is desync number " + std::to_string(match.desyncCount) +
                                            ". Consider quitting match if this happens too often");
    match.resyncStep = match.lastCompletedStep + 1;

    Order resync;
    resync.step = match.resyncStep;
    resync.argument = 0xFFFFFFFFu;
    resync.firstList = {};
    resync.orderType = kResyncOrderType;
    // Every player has a setup, so every one of them is resynced.
    sendToAudience(view.audience, kOrderChannel, serializeOrder(resync));
}

std::string evidenceStem(std::uint32_t roomId, std::uint32_t desyncCount) {
    return "server_data/resyncs/room" + std::to_string(roomId) + "_desync" + std::to_string(desyncCount);
}

std::string evidenceBaseName(std::uint32_t roomId, std::uint32_t desyncCount, std::size_t slot) {
    return dataRootPrefix() + evidenceStem(roomId, desyncCount) + "_peer" + std::to_string(slot);
}

void handleResyncReport(Storage& storage, Match& match, const MatchView& view, std::uint32_t slot,
                        const ResyncReport& report, ByteView packet, KeptBytes kept, std::uint64_t evidenceLimit,
                        Storage::Owner owner) {
    match.resyncPending[slot] = false;
    // Nothing marks a slot pending yet, so every report completes the resync
    // at once and reaches the players as it arrives.
    bool complete = true;
    for (bool pending : match.resyncPending) complete = complete && !pending;
    std::vector<PeerRef> players;
    if (complete) {
        match.resyncStep = 0xFFFFFFFFu;
        match.orderDelay = 2;
        if (match.recording)
            record(match.recording, RecordType::delay, Writer(12).u32(match.lastCompletedStep).u32(0).u32(2).take());
        match.delayHold = kMaxDelayHold;  // no lengthening until the hold has run down
        for (ENetPeer* peer : view.audience.players)
            if (peer != nullptr) players.push_back(refOf(peer));
    }
    // A room that desyncs again and again would fill the disk with evidence
    // that says nothing new: past the room's allowance the report is still
    // relayed, but no longer written.
    const std::uint64_t evidence = report.world.size() + report.log.size();
    const bool write = evidenceLimit == 0 || match.evidenceBytes + evidence <= evidenceLimit;
    if (write) {
        match.evidenceBytes += evidence;
    } else {
        countLimit(LimitFired::resyncPerRoom);
        logError("|||| Resync evidence of room " + std::to_string(view.roomId) + " over its limit of " +
                 std::to_string(evidenceLimit) + " bytes: not written");
    }
    // The world and the log are parts of the report: the worker writes them
    // from the one copy of it that it holds, which is also what is relayed.
    auto part = [&](ByteView field) {
        return std::pair<std::size_t, std::size_t>(static_cast<std::size_t>(field.data() - packet.data()), field.size());
    };
    auto relay = [players](ByteView relayed) {
        std::vector<ENetPeer*> still;
        for (const PeerRef& p : players)
            if (ENetPeer* peer = stillConnected(p)) still.push_back(peer);
        sendBytesToMany(still.data(), still.size(), kMatchControlChannel, relayed);
    };
    // The players hear of it once the evidence is on disk.
    const std::size_t size = kept.bytes().size();
    if (storage.submit(
            [write, base = evidenceBaseName(view.roomId, match.desyncCount, slot), world = part(report.world),
             log = part(report.log), kept, relay]() -> Storage::Completion {
                if (write) {
                    writeEvidence(base + ".world", kept.bytes().subspan(world.first, world.second));
                    writeEvidence(base + ".log", kept.bytes().subspan(log.first, log.second));
                }
                return [kept, relay] { relay(kept.bytes()); };
            },
            size, owner))
        return;
    countLimit(LimitFired::workerShare);
    // A line for the 1st, 2nd, 4th, 8th... refusal of the room: a player
    // flooding reports cannot flood the log too.
    const std::uint64_t n = ++match.evidenceRefused;
    if ((n & (n - 1)) == 0)
        logError("|||| Resync evidence of room " + std::to_string(view.roomId) + " over its sender's share of the "
                 "storage worker: not written (" + std::to_string(n) + " so far)");
    relay(packet);
}
