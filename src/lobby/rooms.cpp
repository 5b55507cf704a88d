// The room registry: creation, the room list, the host's settings and the
// removal of rooms nobody is in any more.

#include "core/server.h"
#include "lobby/lobby.h"
#include "lobby/messages.h"
#include "log/log.h"
#include "protocol/messages.h"
#include "protocol/send.h"
#include "stats/statistics.h"

void createRoom(Server& server, ENetPeer* peer, const std::string& name, const std::string& dataset,
                std::uint32_t datasetChecksum) {
    if (peer == nullptr || server.peers.count(peer) == 0) return;
    // A room is created only from outside all rooms.
    if (findPeerRoom(server, peer) != nullptr) return;

    auto room = std::make_unique<Room>();
    room->id = server.nextRoomId;
    room->name = name.empty() ? "Room # " + std::to_string(server.nextRoomId) : name;
    room->dataset = dataset;
    room->datasetChecksum = datasetChecksum;
    room->settings = defaultGameSettings();
    Room& ref = *room;
    server.rooms.emplace(ref.id, std::move(room));
    server.nextRoomId += 1;

    // hostSlot is already 0, so the creator first hears that it is no longer
    // host and then that it is: clients rely on both messages.
    joinRoom(server, peer, ref.id);
    setHost(ref, peer);

    logMessage("Room \"" + ref.name + "\", ID " + std::to_string(ref.id) + ", data \"" + ref.dataset +
               "\", checksum " + std::to_string(ref.datasetChecksum) +
               ". Total rooms: " + std::to_string(server.rooms.size()));
}

void sendRoomList(Server& server, ENetPeer* peer, std::uint32_t roomId) {
    sendServerStatus(server, peer);
    for (const auto& [id, room] : server.rooms) {
        RoomListEntry entry;
        entry.id = room->id;
        entry.name = room->name;
        entry.dataset = room->dataset;
        entry.datasetChecksum = room->datasetChecksum;
        entry.humans = humanCount(*room);
        entry.capacity = capacity(*room);
        entry.open = room->open ? 1 : 0;
        sendBytes(peer, kLobbyChannel, entry.encode());
    }
    auto found = server.rooms.find(roomId);
    if (found == server.rooms.end()) return;
    const Room& room = *found->second;
    sendBytes(peer, kLobbyChannel, room.settings.bytes);
    RoomPlayerNames names;
    for (const Slot& slot : room.slots)
        if (slot.peer != nullptr) names.names.push_back(slot.info ? slot.info->playerName : std::string());
    sendBytes(peer, kLobbyChannel, names.encode());
}

void updateGameSettings(Server& server, ENetPeer* peer, ByteView packet) {
    auto settings = decodeGameSettings(packet);
    if (!settings) {
        logMalformed("GameSettings", kLobbyChannel, packet.size());
        return;
    }
    Room* room = peer != nullptr ? findPeerRoom(server, peer) : nullptr;
    if (room == nullptr || room->slots[room->hostSlot].peer != peer) return;
    // Nothing in the settings is checked, not even after the start: the
    // clients own their meaning.
    sendToHumans(*room, kLobbyChannel, settings->bytes, peer);
    room->settings = std::move(*settings);
}

void deleteEmptyRoom(Server& server) {
    auto it = server.rooms.begin();
    while (it != server.rooms.end() && humanCount(*it->second) != 0) ++it;
    if (it == server.rooms.end()) return;
    Room& room = *it->second;
    if (server.statisticsEnabled && room.running) recordFinishedGame(server.statistics, room);
    logMessage("Empty room \"" + room.name + "\" with ID " + std::to_string(room.id) + " deleted. ");
    server.rooms.erase(it);
    logMessage("Total rooms: " + std::to_string(server.rooms.size()));
}
