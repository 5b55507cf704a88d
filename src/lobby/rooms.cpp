// The room registry: creation, the room list, the host's settings, the text
// relay and the removal of rooms nobody is in any more.

#include <algorithm>

#include "lobby/lobby.h"
#include "log/log.h"

void sendToHumans(const Room& room, std::uint8_t channel, ByteView bytes, const ENetPeer* except) {
    Audience humans;
    for (std::size_t i = 0; i < kSlotCount; ++i) humans.players[i] = room.slots[i].peer;
    sendToPlayers(humans, channel, bytes, except);
}

void sendTextToRoom(const Room& room, const std::string& text) {
    sendToHumans(room, kTextChannel, encode(Text{text}));
}

GameSettings defaultGameSettings() {
    GameSettings s;
    s.bytes = encode(s);
    return s;
}

Room* createRoom(RoomRegistry& rooms, ENetPeer* peer, const CreateRoom& request) {
    // A room is created only from outside all rooms.
    if (roomOf(rooms, peer) != nullptr) return nullptr;

    // IDs are handed out in order; once the counter has wrapped round, the
    // IDs of rooms still alive (and 0, which names no room) are passed over,
    // so an ID always names one room.
    while (rooms.nextRoomId == 0 || rooms.byId.count(rooms.nextRoomId) != 0) rooms.nextRoomId += 1;
    auto room = std::make_unique<Room>();
    room->id = rooms.nextRoomId;
    room->name = request.name.empty() ? "Room # " + std::to_string(rooms.nextRoomId) : request.name;
    room->dataset = request.dataset;
    room->datasetChecksum = request.datasetChecksum;
    room->settings = defaultGameSettings();
    room->sharedSettings = SharedMessage(room->settings.bytes);
    Room& ref = *room;
    rooms.byId.emplace(ref.id, std::move(room));
    rooms.mayHoldEmptyRoom = true;
    rooms.nextRoomId += 1;

    // hostSlot is already 0, so the creator first hears that it is no longer
    // host and then that it is: clients rely on both messages.
    joinRoom(rooms, peer, ref.id);
    setHost(ref, peer);

    logMessage("Room \"" + printable(ref.name) + "\", ID " + std::to_string(ref.id) + ", data \"" + printable(ref.dataset) +
               "\", checksum " + std::to_string(ref.datasetChecksum) +
               ". Total rooms: " + std::to_string(rooms.byId.size()));
    return &ref;
}

ServerStatus serverStatus(const RoomRegistry& rooms, const std::string& description, std::size_t peerCount) {
    ServerStatus status;
    status.description = description;
    for (const auto& [id, room] : rooms.byId) {
        std::uint32_t humans = humanCount(*room);
        if (room->running) {
            status.runningRooms += 1;
            status.playersInRunningRooms += humans;
        } else {
            status.playersInOtherRooms += humans;
        }
    }
    status.playersInNoRoom =
        static_cast<std::uint32_t>(peerCount) - status.playersInOtherRooms - status.playersInRunningRooms;
    status.protocolVersion = kProtocolVersion;
    return status;
}

std::size_t sendRoomList(const RoomRegistry& rooms, const ServerStatus& status, ENetPeer* peer, std::uint32_t roomId,
                         bool privateRooms) {
    const Bytes statusBytes = encode(status);
    std::size_t sent = statusBytes.size();
    sendBytes(peer, kLobbyChannel, statusBytes);
    LockedRooms locked;
    for (const auto& [id, room] : rooms.byId) {
        if (room->lock.hidden) continue;
        // Name, dataset and checksum never change: the entry is encoded
        // again only when its counts or its openness do.
        const std::uint32_t humans = humanCount(*room), cap = capacity(*room);
        const std::uint32_t key = humans | cap << 8 | (room->open ? 1u : 0u) << 16;
        if (key != room->listKey) {
            RoomListEntry entry;
            entry.id = room->id;
            entry.name = room->name;
            entry.dataset = room->dataset;
            entry.datasetChecksum = room->datasetChecksum;
            entry.humans = humans;
            entry.capacity = cap;
            entry.open = room->open ? 1 : 0;
            room->listEntry = SharedMessage(encode(entry));
            entry.humans = entry.capacity;
            room->fullListEntry = SharedMessage(encode(entry));
            room->listKey = key;
        }
        // A client that cannot give a password sees the room full, and so
        // offers its player no join.
        const SharedMessage& shown = room->lock.hasPassword && !privateRooms ? room->fullListEntry : room->listEntry;
        sendShared(peer, kLobbyChannel, shown);
        sent += shown.bytes().size();
        if (room->lock.hasPassword) locked.ids.push_back(room->id);
    }
    if (privateRooms) {
        const Bytes lockedBytes = encode(locked);
        sendBytes(peer, kLobbyChannel, lockedBytes);
        sent += lockedBytes.size();
    }
    const Room* room = findRoom(rooms, roomId);
    // A hidden room's details go to its own members only.
    if (room == nullptr || (room->lock.hidden && roomOf(rooms, peer) != room)) return sent;
    sendShared(peer, kLobbyChannel, room->sharedSettings);
    RoomPlayerNames names;
    for (const Slot& slot : room->slots)
        if (slot.peer != nullptr) names.names.push_back(slot.info ? slot.info->playerName : std::string());
    const Bytes namesBytes = encode(names);
    sendBytes(peer, kLobbyChannel, namesBytes);
    return sent + room->sharedSettings.bytes().size() + namesBytes.size();
}

void updateGameSettings(RoomRegistry& rooms, ENetPeer* peer, GameSettings settings) {
    Room* room = roomOf(rooms, peer);
    if (room == nullptr || room->slots[room->hostSlot].peer != peer) return;
    // Nothing in the settings is checked, not even after the start: the
    // clients own their meaning.
    sendToHumans(*room, kLobbyChannel, settings.bytes, peer);
    room->sharedSettings = SharedMessage(settings.bytes);
    room->settings = std::move(settings);
}

std::vector<ENetPeer*> textRecipients(const RoomRegistry& rooms, const std::set<ENetPeer*>& peers, ENetPeer* sender) {
    const Room* senderRoom = roomOf(rooms, sender);
    std::vector<ENetPeer*> targets;
    for (ENetPeer* peer : peers)
        if (roomOf(rooms, peer) == senderRoom) targets.push_back(peer);
    return targets;
}

namespace {
// The room leaves the controllers' schedule.
void forgetOrderDelay(RoomRegistry& rooms, const Room& room) {
    if (!room.running) return;
    std::erase(rooms.newlyRunning, &room);
    for (std::vector<Room*>& slot : rooms.delayWheel) std::erase(slot, &room);
    std::erase(rooms.passesDue, &room);
}
}  // namespace

std::unique_ptr<Room> deleteEmptyRoom(RoomRegistry& rooms) {
    if (!rooms.mayHoldEmptyRoom) return nullptr;
    auto it = rooms.byId.begin();
    // A seat that waits for its player keeps the room.
    auto inUse = [](const Room& room) {
        return humanCount(room) != 0 || std::any_of(room.slots.begin(), room.slots.end(), [](const Slot& s) {
                   return s.state == PlayerState::away;
               });
    };
    while (it != rooms.byId.end() && inUse(*it->second)) ++it;
    if (it == rooms.byId.end()) {
        rooms.mayHoldEmptyRoom = false;
        return nullptr;
    }
    std::unique_ptr<Room> room = std::move(it->second);
    forgetOrderDelay(rooms, *room);
    endSpectating(rooms, *room);
    logMessage("Empty room \"" + printable(room->name) + "\" with ID " + std::to_string(room->id) + " deleted. ");
    rooms.byId.erase(it);
    logMessage("Total rooms: " + std::to_string(rooms.byId.size()));
    return room;
}
