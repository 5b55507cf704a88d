#include "game/checksum.h"

#include <cstdio>

#include "core/metrics.h"
#include "core/server.h"
#include "game/control.h"
#include "game/match.h"
#include "game/order.h"
#include "log/log.h"
#include "protocol/messages.h"
#include "protocol/paths.h"
#include "protocol/send.h"

namespace {
// From this desync on, the players are told how many there have been.
constexpr std::uint32_t kDesyncCountShown = 4;

// Complete when every occupied slot has a nonzero checksum; agreement is
// only meaningful then. Slots without a peer are ignored either way.
bool isComplete(const Room& room, const ChecksumRecord& record) {
    for (std::size_t j = 0; j < kSlotCount; ++j)
        if (room.slots[j].peer != nullptr && record.checksums[j] == 0) return false;
    return true;
}

bool agrees(const Room& room, const ChecksumRecord& record) {
    const std::uint32_t* first = nullptr;
    for (std::size_t j = 0; j < kSlotCount; ++j) {
        if (room.slots[j].peer == nullptr) continue;
        if (first == nullptr)
            first = &record.checksums[j];
        else if (record.checksums[j] != *first)
            return false;
    }
    return true;
}

void storeChecksum(Room& room, std::size_t slot, std::uint32_t step, std::uint32_t checksum) {
    auto& records = room.checksumRecords;
    for (auto it = records.begin(); it != records.end(); ++it) {
        if (it->step != step) continue;
        it->checksums[slot] = checksum;
        if (!isComplete(room, *it)) return;
        if (!agrees(room, *it)) declareDesync(room, it->step);
        records.erase(it);  // compared once, desync or not
        return;
    }
    ChecksumRecord record;
    record.step = step;
    record.checksums[slot] = checksum;
    records.push_back(record);  // a new record waits for the others
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

void handleChecksum(Server& server, ENetPeer* peer, std::uint32_t step, std::uint32_t checksum) {
    for (auto& [id, room] : server.rooms)
        for (std::size_t i = 0; i < kSlotCount; ++i)
            if (room->slots[i].peer == peer) storeChecksum(*room, i, step, checksum);
}

void declareDesync(Room& room, std::uint32_t step) {
    logError("|||| Checksums failed at step " + std::to_string(step) + " in room " + std::to_string(room.id));
    sendTextToRoom(room, "Desync detected... attempting resync...");
    room.desyncCount += 1;
    metrics().desyncs.fetch_add(1, std::memory_order_relaxed);
    if (room.desyncCount >= kDesyncCountShown)
        sendTextToRoom(room, "This is desync number " + std::to_string(room.desyncCount) +
                                 ". Consider quitting match if this happens too often");
    room.resyncStep = room.lastCompletedStep + 1;

    Order resync;
    resync.step = room.resyncStep;
    resync.argument = 0xFFFFFFFFu;
    resync.firstList.clear();
    resync.orderType = kResyncOrderType;
    Bytes bytes = serializeOrder(resync);
    // Only players with a setup are resynced; a slot's peer alone is not enough.
    ENetPeer* targets[kSlotCount];
    std::size_t n = 0;
    for (const Slot& slot : room.slots)
        if (slot.peer != nullptr && slot.info != nullptr) targets[n++] = slot.peer;
    sendBytesToMany(targets, n, kOrderChannel, bytes);
}

std::string evidenceBaseName(const Room& room, std::size_t slot) {
    return dataRootPrefix() + "server_data/resyncs/room" + std::to_string(room.id) + "_desync" +
           std::to_string(room.desyncCount) + "_peer" + std::to_string(slot);
}

void handleResyncReport(Server& server, ENetPeer* peer, ByteView packet) {
    std::optional<ResyncReport> report;
    for (auto& [id, roomPtr] : server.rooms) {
        Room& room = *roomPtr;
        bool member = false;
        for (std::size_t s = 0; s < kSlotCount; ++s) {
            if (room.slots[s].peer != peer) continue;
            // Decoded only for a member: a report from outside every room
            // changes nothing and is not worth a line.
            if (!report) {
                report = ResyncReport::decode(packet);
                if (!report) {
                    logMalformed("resync report", kMatchControlChannel, packet.size());
                    return;
                }
            }
            member = true;
            std::string base = evidenceBaseName(room, s);
            writeEvidence(base + ".world", report->world);
            writeEvidence(base + ".log", report->log);
            room.resyncPending[s] = false;
        }
        if (!member) continue;
        // Nothing marks a slot pending yet, so every report completes the
        // resync at once and reaches the players as it arrives.
        bool pending = false;
        for (bool flag : room.resyncPending) pending = pending || flag;
        if (pending) continue;
        room.resyncStep = 0xFFFFFFFFu;
        room.orderDelay = 2;
        room.delayHold = kMaxDelayHold;  // no lengthening until the hold has run down
        sendToOccupiedSlots(room, kMatchControlChannel, packet);
    }
}
