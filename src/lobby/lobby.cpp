#include "lobby/lobby.h"

#include "core/server.h"
#include "lobby/messages.h"
#include "log/log.h"
#include "protocol/send.h"

Humans humansOf(const Room& room, const ENetPeer* except) {
    Humans h;
    for (const Slot& slot : room.slots)
        if (slot.peer != nullptr && slot.peer != except) h.peers[h.count++] = slot.peer;
    return h;
}

void sendToHumans(const Room& room, std::uint8_t channel, ByteView bytes, const ENetPeer* except) {
    Humans h = humansOf(room, except);
    sendBytesToMany(h.peers, h.count, channel, bytes);
}

int slotOfPeer(const Room& room, const ENetPeer* peer) {
    for (std::size_t i = 0; i < kSlotCount; ++i)
        if (room.slots[i].peer == peer) return static_cast<int>(i);
    return -1;
}

namespace {

void malformed(const char* what, ByteView packet) { logMalformed(what, kLobbyChannel, packet.size()); }

}  // namespace

void handleLobbyMessage(Server& server, ENetPeer* peer, ByteView packet) {
    std::uint32_t type = 0;
    if (!readMessageType(packet, type)) {
        malformed("lobby message", packet);
        return;
    }
    switch (type) {
        case lobby_type::kCreateRoom: {
            auto m = CreateRoom::decode(packet);
            if (!m) return malformed("CreateRoom", packet);
            createRoom(server, peer, m->name, m->dataset, m->datasetChecksum);
            return;
        }
        case lobby_type::kJoinRoom: {
            auto m = JoinRoom::decode(packet);
            if (!m) return malformed("JoinRoom", packet);
            joinRoom(server, peer, m->roomId);
            return;
        }
        case lobby_type::kLeaveRoom:
            // Only the type word is read, and the dispatcher has checked it.
            leaveRoom(server, peer, false);
            return;
        case lobby_type::kPlayerSetup:
            updatePlayerSetup(server, peer, packet);
            return;
        case lobby_type::kSlotState: {
            auto m = SlotState::decode(packet);
            if (!m) return malformed("SlotState", packet);
            // Only slots 0..7 exist; a larger index is treated like a message
            // that does not decode: dropped and logged.
            if (m->slot >= kSlotCount) return malformed("SlotState", packet);
            changeSlotState(server, peer, m->slot, m->closed, packet);
            return;
        }
        case lobby_type::kHost: {
            auto m = SetHost::decode(packet);
            if (!m) return malformed("SetHost", packet);
            // Only slots 0..7 exist; a larger index is dropped and logged.
            if (m->slot >= kSlotCount) return malformed("SetHost", packet);
            requestHost(server, peer, m->slot);
            return;
        }
        case lobby_type::kKick: {
            auto m = Kick::decode(packet);
            if (!m) return malformed("Kick", packet);
            // Only slots 0..7 exist; a larger index is dropped and logged.
            if (m->slot >= kSlotCount) return malformed("Kick", packet);
            kickPlayer(server, peer, m->slot);
            return;
        }
        case lobby_type::kRoomListRequest: {
            auto m = RoomListRequest::decode(packet);
            if (!m) return malformed("RoomListRequest", packet);
            sendRoomList(server, peer, m->roomId);
            return;
        }
        case lobby_type::kGameSettings:
            updateGameSettings(server, peer, packet);
            return;
        case lobby_type::kStartGame: {
            if (!StartGame::decode(packet)) return malformed("StartGame", packet);
            requestStart(server, peer);
            return;
        }
        default:
            logError("|||| Unknown lobby message " + std::to_string(type) + ". Nothing to do with it");
            return;
    }
}
