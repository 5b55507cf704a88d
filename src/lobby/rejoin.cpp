// Back into a match after a lost connection. A room where every player was
// granted rejoin keeps a dropped player's seat for a while: its record stays,
// steps complete without it, and the others hear that it is away rather
// than gone. A new connection that presents the seat's token takes it again
// and is sent the match's stream (from a snapshot of another player's game
// when one comes in time), then the live relay; steps wait for it again once
// it says it has caught up.

#include "lobby/lobby.h"
#include "log/log.h"
#include "log/metrics.h"
#include "platform/clock.h"
#include "platform/secrets.h"

namespace {

constexpr std::uint32_t kNoSnapshot = 0xFFFFFFFFu;

void newToken(Slot& slot) { randomBytes(slot.token.data(), slot.token.size()); }

// The rejoin as the recording keeps it: the slot, and the snapshot its
// stream started from, if any.
void recordRejoin(Room& room, std::uint32_t slot, std::uint32_t step, ByteView snapshot) {
    if (room.match.recording)
        record(room.match.recording, RecordType::rejoin, Writer(12 + snapshot.size()).u32(slot).u32(step).blob(snapshot).take());
}

void refuse(ENetPeer* peer, std::uint32_t roomId, JoinRefusal reason, const std::string& text) {
    metrics().rejoinsRefused.fetch_add(1, std::memory_order_relaxed);
    sendBytes(peer, kLobbyChannel, encode(JoinRefused{1, roomId, static_cast<std::uint32_t>(reason), text}));
}

// The lowest-slot player that can supply a snapshot: connected and counted,
// granted snapshots, in a match whose checksums last agreed.
ENetPeer* snapshotSupplier(const Room& room, std::uint32_t rejoining) {
    if (room.match.resyncStep != 0xFFFFFFFFu) return nullptr;
    for (std::uint32_t i = 0; i < kSlotCount; ++i) {
        const Slot& slot = room.slots[i];
        if (i != rejoining && slot.peer != nullptr && slot.state == PlayerState::connected &&
            hasFeature(slot.peer, kFeatureSnapshots))
            return slot.peer;
    }
    return nullptr;
}

}  // namespace

void handOutRejoinTickets(RoomRegistry& rooms, Room& room) {
    if (rooms.access.awayMicros == 0 || !room.match.recording) return;
    // A client that knows nothing of rejoin cannot be told that a player is
    // away rather than gone: one such player, and a drop is a leave.
    for (const Slot& slot : room.slots)
        if (slot.peer != nullptr && !hasFeature(slot.peer, kFeatureRejoin)) return;
    room.rejoinable = true;
    for (std::uint32_t i = 0; i < kSlotCount; ++i) {
        Slot& slot = room.slots[i];
        if (slot.peer == nullptr) continue;
        newToken(slot);
        sendBytes(slot.peer, kLobbyChannel, encode(RejoinTicket{1, room.id, i, ByteView(slot.token)}));
    }
}

void keepSeat(RoomRegistry& rooms, Room& room, std::uint32_t index) {
    Slot& slot = room.slots[index];
    // As for a leave: the steps it had not reported are not held up by it.
    releaseOpenSteps(room, index);

    stopFeed(rooms, slot.feed);
    slot.snapshotRequest = 0;
    leaveSlot(rooms, room, index);
    slot.state = PlayerState::away;
    rooms.awaySeats += 1;
    slot.awayUntilMicros = steadyMicros() + rooms.access.awayMicros;
    if (room.match.recording) record(room.match.recording, RecordType::away, Writer(4).u32(index).take());
    sendToHumans(room, kMatchControlChannel, encode(PlayerAway{1, index}));
    logMessage("Player away from room " + std::to_string(room.id) + ": slot " + std::to_string(index) + " kept for " +
               std::to_string(rooms.access.awayMicros / 1'000'000) + " s");
}

void rejoin(RoomRegistry& rooms, ENetPeer* peer, const Rejoin& request, std::uint64_t now) {
    if (roomOf(rooms, peer) != nullptr || isWatching(rooms, peer)) return;
    const std::uint32_t limit = rooms.access.failuresPerAddress;
    if (rooms.rejoinFailures.size() > 1024)
        std::erase_if(rooms.rejoinFailures, [now](const auto& e) { return now - e.second.since >= 60'000'000; });
    JoinFailures& failures = rooms.rejoinFailures[peer->address.host];
    if (now - failures.since >= 60'000'000) failures = JoinFailures{now, 0};
    // Past the allowance the token is not even looked at; the line that said
    // so came with the refusal that reached it.
    if (limit != 0 && failures.count >= limit)
        return refuse(peer, request.roomId, JoinRefusal::tooManyAttempts,
                      "Cannot rejoin: too many failed attempts. Try again in a minute.");

    Room* room = findRoom(rooms, request.roomId);
    int found = -1;
    if (room != nullptr && room->running && room->rejoinable)
        // Every seat is compared, whatever matched, in constant time.
        for (std::uint32_t i = 0; i < kSlotCount; ++i)
            if (room->slots[i].state == PlayerState::away &&
                sameSecret(room->slots[i].token.data(), request.token.data(), kRejoinTokenSize))
                found = static_cast<int>(i);
    if (found < 0) {
        failures.count += 1;
        std::string line = "|||| Rejoin refused from " + peerAddressText(peer) + ": no seat waits for that token";
        if (limit != 0 && failures.count == limit)
            line += "; further rejoins from its address are refused unchecked for a minute";
        logError(line);
        return refuse(peer, request.roomId, JoinRefusal::badToken, "Cannot rejoin: no seat waits for that token.");
    }
    const auto index = static_cast<std::uint32_t>(found);
    if (!room->match.recording || !streamIntact(*room->match.recording)) {
        logError("|||| Rejoin refused from " + peerAddressText(peer) + ": the stream of room " +
                 std::to_string(room->id) + " is lost");
        return refuse(peer, request.roomId, JoinRefusal::noStream, "Cannot rejoin: the match's stream is lost.");
    }

    Slot& slot = room->slots[index];
    takeSlot(rooms, *room, index, peer);
    slot.state = PlayerState::rejoining;
    rooms.awaySeats -= 1;
    slot.awayUntilMicros = 0;
    newToken(slot);  // the one presented is spent
    sendBytes(peer, kLobbyChannel, encode(RejoinAccepted{1, room->id, index, ByteView(slot.token)}));
    sendToHumans(*room, kMatchControlChannel, encode(PlayerBack{1, index}), peer);
    metrics().rejoins.fetch_add(1, std::memory_order_relaxed);
    logMessage("Player back in room " + std::to_string(room->id) + ": slot " + std::to_string(index));

    slot.feed = beginFeed(refOf(peer), room->id, static_cast<std::int32_t>(index),
                          room->match.recording->file, 0, now);
    rooms.feeds.push_back(slot.feed);
    ENetPeer* supplier = hasFeature(peer, kFeatureSnapshots) ? snapshotSupplier(*room, index) : nullptr;
    if (supplier == nullptr) return recordRejoin(*room, index, kNoSnapshot, {});
    slot.feed->held = true;
    if (rooms.nextSnapshotRequest == 0) rooms.nextSnapshotRequest = 1;
    slot.snapshotRequest = rooms.nextSnapshotRequest++;
    slot.snapshotFrom = refOf(supplier);
    slot.snapshotDeadlineMicros = now + rooms.access.snapshotWaitMicros;
    sendBytes(supplier, kLobbyChannel, encode(StateRequest{1, slot.snapshotRequest, index}));
}

void caughtUp(RoomRegistry& rooms, ENetPeer* peer) {
    const Place* place = placeOf(rooms, peer);
    if (place == nullptr) return;
    Slot& slot = place->room->slots[place->slot];
    if (slot.state != PlayerState::catchingUp) return;
    slot.state = PlayerState::connected;
    logMessage("Player caught up in room " + std::to_string(place->room->id) + ": slot " + std::to_string(place->slot));
}

void giveUpSnapshot(Room& room, std::uint32_t index) {
    Slot& slot = room.slots[index];
    slot.snapshotRequest = 0;
    if (slot.feed) slot.feed->held = false;
    recordRejoin(room, index, kNoSnapshot, {});
}

void receiveSnapshot(RoomRegistry& rooms, ENetPeer* peer, const StateSnapshot& snapshot) {
    const Place* place = placeOf(rooms, peer);
    if (place == nullptr || snapshot.requestId == 0) return;
    Room& room = *place->room;
    for (std::uint32_t i = 0; i < kSlotCount; ++i) {
        Slot& slot = room.slots[i];
        if (slot.snapshotRequest != snapshot.requestId || stillConnected(slot.snapshotFrom) != peer) continue;
        if (slot.peer == nullptr || !slot.feed) return giveUpSnapshot(room, i);
        if (snapshot.state.size() > rooms.access.snapshotMaxBytes) {
            logError("|||| Snapshot from " + peerAddressText(peer) + " over snapshot_max_bytes (" +
                     std::to_string(snapshot.state.size()) + " bytes): the stream starts from the start");
            return giveUpSnapshot(room, i);
        }
        slot.snapshotRequest = 0;
        sendBytes(slot.peer, kLobbyChannel, encode(StateSnapshot{1, 0, snapshot.step, snapshot.state}));
        slot.feed->fromSnapshot = true;
        slot.feed->snapshotStep = snapshot.step;
        slot.feed->held = false;
        return recordRejoin(room, i, snapshot.step, snapshot.state);
    }
    // Late, or never asked for: nothing waits for it.
}

void releaseExpiredSeats(RoomRegistry& rooms, std::uint64_t now) {
    if (rooms.awaySeats == 0) return;
    for (auto& [id, room] : rooms.byId)
        for (std::uint32_t i = 0; i < kSlotCount; ++i)
            if (room->slots[i].state == PlayerState::away && now >= room->slots[i].awayUntilMicros)
                vacateSlot(rooms, *room, i, true);
}
