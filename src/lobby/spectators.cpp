// Spectators, and the streams of matches sent to spectators and to players
// back after a lost connection. A spectator is in no slot: it never counts
// for a step, never shows in what the players or the room list see, and is
// sent only what the match relays on the order channel.

#include <algorithm>

#include "lobby/lobby.h"
#include "log/log.h"
#include "platform/clock.h"

namespace {

constexpr std::uint32_t kMatchOver = 0;
constexpr std::uint32_t kStreamLost = 1;

void refuse(ENetPeer* peer, std::uint32_t roomId, JoinRefusal reason, const std::string& text) {
    sendBytes(peer, kLobbyChannel, encode(JoinRefused{1, roomId, static_cast<std::uint32_t>(reason), text}));
}

std::uint32_t spectatorsOf(const RoomRegistry& rooms, std::uint32_t roomId) {
    return static_cast<std::uint32_t>(
        std::count_if(rooms.watchers.begin(), rooms.watchers.end(), [roomId](const auto& w) { return w.second.roomId == roomId; }));
}

void endWatch(RoomRegistry& rooms, ENetPeer* peer, std::uint32_t roomId, std::uint32_t reason) {
    if (auto w = rooms.watchers.find(peer); w != rooms.watchers.end()) {
        stopFeed(rooms, w->second.feed);
        rooms.watchers.erase(w);
    }
    sendBytes(peer, kLobbyChannel, encode(WatchEnded{1, roomId, reason}));
}

std::string elapsedText(const Feed& feed) {
    return std::to_string(feed.sentBytes) + " bytes in " + std::to_string((steadyMicros() - feed.startMicros) / 1000) +
           " ms";
}

// A player's stream: live means the player is sent the relay again.
void turnPlayerStream(RoomRegistry& rooms, const std::shared_ptr<Feed>& feed, std::uint64_t now) {
    Room* room = findRoom(rooms, feed->roomId);
    std::shared_ptr<Feed> own = feed;
    if (room == nullptr) return stopFeed(rooms, own);
    const auto index = static_cast<std::uint32_t>(feed->slot);
    Slot& slot = room->slots[index];
    if (slot.feed != feed) return;
    if (slot.snapshotRequest != 0 &&
        (now >= slot.snapshotDeadlineMicros || stillConnected(slot.snapshotFrom) == nullptr)) {
        logMessage("No snapshot came for slot " + std::to_string(index) + " of room " + std::to_string(room->id) +
                   ": its stream starts from the start");
        giveUpSnapshot(*room, index);
    }
    switch (turnFeed(*rooms.storage, rooms.catchUps, feed, room->match.recording.get(), room->match.lastCompletedStep)) {
        case FeedTurn::streaming:
            return;
        case FeedTurn::live:
            slot.state = PlayerState::catchingUp;
            sendBytes(slot.peer, kLobbyChannel, encode(CatchUpDone{1, room->id}));
            logMessage("Stream of room " + std::to_string(room->id) + " sent to slot " + std::to_string(index) + ": " +
                       elapsedText(*feed));
            return stopFeed(rooms, slot.feed);
        case FeedTurn::ended:
        case FeedTurn::lost: {
            ENetPeer* peer = slot.peer;
            logError("|||| Stream of room " + std::to_string(room->id) + " lost while slot " + std::to_string(index) +
                     " caught up: it leaves the match");
            vacateSlot(rooms, *room, index, true);
            if (peer != nullptr) refuse(peer, room->id, JoinRefusal::noStream, "Cannot rejoin: the match's stream is lost.");
            return;
        }
    }
}

void turnSpectatorStream(RoomRegistry& rooms, const std::shared_ptr<Feed>& feed) {
    ENetPeer* peer = stillConnected(feed->to);
    auto w = peer != nullptr ? rooms.watchers.find(peer) : rooms.watchers.end();
    std::shared_ptr<Feed> own = feed;
    if (w == rooms.watchers.end() || w->second.feed != feed) return stopFeed(rooms, own);
    Room* room = findRoom(rooms, feed->roomId);
    const Recording* recording = room != nullptr ? room->match.recording.get() : nullptr;
    const std::uint32_t horizon = room != nullptr ? room->match.lastCompletedStep : 0;
    switch (turnFeed(*rooms.storage, rooms.catchUps, feed, recording, horizon)) {
        case FeedTurn::streaming:
            return;
        case FeedTurn::live:
            room->spectators.push_back(peer);
            stopFeed(rooms, w->second.feed);
            sendBytes(peer, kLobbyChannel, encode(CatchUpDone{1, room->id}));
            return;
        case FeedTurn::ended:
            return endWatch(rooms, peer, feed->roomId, kMatchOver);
        case FeedTurn::lost:
            return endWatch(rooms, peer, feed->roomId, kStreamLost);
    }
}

}  // namespace

bool isWatching(const RoomRegistry& rooms, const ENetPeer* peer) { return rooms.watchers.count(peer) != 0; }

void spectate(RoomRegistry& rooms, ENetPeer* peer, const Spectate& request, std::uint64_t now) {
    if (roomOf(rooms, peer) != nullptr || isWatching(rooms, peer)) return;
    Room* room = findRoom(rooms, request.roomId);
    if (room == nullptr) return refuse(peer, request.roomId, JoinRefusal::noRoom, "Cannot join: room does no longer exist!");
    // A room's password and bans guard its match as they guard its seats.
    if (const LockVerdict lock = passLock(rooms, *room, peer, &request.password); !lock.ok)
        return refuse(peer, request.roomId, lock.reason, lock.text);
    if (!room->running)
        return refuse(peer, room->id, JoinRefusal::notRunning, "Cannot watch: no match is running in that room.");
    if (!room->match.recording || !streamIntact(*room->match.recording))
        return refuse(peer, room->id, JoinRefusal::noStream, "Cannot watch: the match's stream is lost.");
    if (spectatorsOf(rooms, room->id) >= rooms.access.spectatorsPerRoom)
        return refuse(peer, room->id, JoinRefusal::spectatorsFull, "Cannot watch: the room has all the spectators it may.");

    const std::uint32_t delay = rooms.access.spectatorDelaySteps;
    sendBytes(peer, kLobbyChannel, encode(SpectateAccepted{1, room->id, delay}));
    Watcher& watcher = rooms.watchers[peer];
    watcher.roomId = room->id;
    watcher.feed = beginFeed(refOf(peer), room->id, -1, room->match.recording->file, delay, now);
    rooms.feeds.push_back(watcher.feed);
    logMessage("Spectator " + peerAddressText(peer) + " watches room " + std::to_string(room->id));
}

bool stopWatching(RoomRegistry& rooms, ENetPeer* peer) {
    auto w = rooms.watchers.find(peer);
    if (w == rooms.watchers.end()) return false;
    if (Room* room = findRoom(rooms, w->second.roomId)) std::erase(room->spectators, peer);
    stopFeed(rooms, w->second.feed);
    rooms.watchers.erase(w);
    return true;
}

void dropSpectatorOrder(RoomRegistry& rooms, ENetPeer* peer) {
    auto w = rooms.watchers.find(peer);
    if (w == rooms.watchers.end() || w->second.orderLogged) return;
    w->second.orderLogged = true;
    logError("|||| Spectator " + peerAddressText(peer) + " sent an order to room " + std::to_string(w->second.roomId) +
             ": dropped, as are any more it sends");
}

void endSpectating(RoomRegistry& rooms, Room& room) {
    const std::vector<ENetPeer*> live = std::exchange(room.spectators, {});
    for (ENetPeer* peer : live) endWatch(rooms, peer, room.id, kMatchOver);
}

void stopFeed(RoomRegistry& rooms, std::shared_ptr<Feed>& feed) {
    if (!feed) return;
    const std::shared_ptr<Feed> ending = feed;
    feed.reset();
    endFeed(*rooms.storage, rooms.catchUps, *ending);
    std::erase(rooms.feeds, ending);
}

void turnStreams(RoomRegistry& rooms, std::uint64_t now) {
    if (rooms.feeds.empty()) return;
    // Each stream's turn may end it, and with it its entry.
    const std::vector<std::shared_ptr<Feed>> feeds = rooms.feeds;
    for (const std::shared_ptr<Feed>& feed : feeds) {
        if (std::find(rooms.feeds.begin(), rooms.feeds.end(), feed) == rooms.feeds.end()) continue;
        if (feed->slot >= 0)
            turnPlayerStream(rooms, feed, now);
        else
            turnSpectatorStream(rooms, feed);
    }
}
