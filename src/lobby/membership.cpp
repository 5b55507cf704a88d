// Moving players into and out of rooms, the host role, slot states and the
// players' setups. Every change is followed by the messages that bring each
// human's view of the room up to date, in the order clients expect them.

#include "core/server.h"
#include "game/match.h"
#include "lobby/lobby.h"
#include "lobby/messages.h"
#include "log/log.h"
#include "protocol/messages.h"
#include "protocol/send.h"

namespace {

void refuseJoin(ENetPeer* peer, const std::string& text) { sendBytes(peer, kTextChannel, encodeText(text)); }

Bytes slotStateOf(const Room& room, std::uint32_t slot) {
    SlotState state;
    state.slot = slot;
    state.closed = room.closed[slot] ? 1 : 0;
    return state.encode();
}

std::string roomCountLine(const char* what, const Room& room) {
    return std::string(what) + std::to_string(room.id) + " Peers in room: " + std::to_string(humanCount(room));
}

}  // namespace

int findFreeSlot(const Room& room) {
    for (std::size_t i = 0; i < kSlotCount; ++i) {
        const Slot& slot = room.slots[i];
        if (slot.peer == nullptr && slot.info == nullptr && !room.closed[i]) return static_cast<int>(i);
    }
    return -1;
}

void joinRoom(Server& server, ENetPeer* peer, std::uint32_t roomId) {
    if (peer == nullptr || server.peers.count(peer) == 0) return;
    if (findPeerRoom(server, peer) != nullptr) return;

    auto found = server.rooms.find(roomId);
    if (found == server.rooms.end()) return refuseJoin(peer, "Cannot join: room does no longer exist!");
    Room& room = *found->second;
    if (!room.open) return refuseJoin(peer, "Cannot join: game has already started!");
    if (humanCount(room) >= capacity(room)) return refuseJoin(peer, "Cannot join: room is already full!");
    // Players without a connection can fill the open slots below capacity.
    int free = findFreeSlot(room);
    if (free < 0) return refuseJoin(peer, "Cannot join: room is already full!");
    auto index = static_cast<std::uint32_t>(free);

    room.slots[index].peer = peer;
    room.slots[index].info = freshPlayerSetup(index);

    sendBytes(peer, kLobbyChannel, JoinAccepted{1, index, room.id}.encode());
    for (std::uint32_t i = 0; i < kSlotCount; ++i) {
        const Slot& slot = room.slots[i];
        if (slot.info != nullptr)
            sendBytes(peer, kLobbyChannel, slot.info->bytes);
        else
            sendBytes(peer, kLobbyChannel, slotStateOf(room, i));
    }
    sendToHumans(room, kLobbyChannel, freshPlayerSetup(index)->bytes);
    sendToHumans(room, kLobbyChannel, room.settings.bytes, room.slots[room.hostSlot].peer);

    logMessage(roomCountLine("Joined room ", room));
}

void leaveRoom(Server& server, ENetPeer* peer, bool disconnected) {
    if (peer == nullptr) return;
    Room* found = findPeerRoom(server, peer);
    if (found == nullptr) return;
    Room& room = *found;
    auto index = static_cast<std::uint32_t>(slotOfPeer(room, peer));
    Slot& slot = room.slots[index];

    if (room.running) {
        // markStepDone may complete and erase entries, so walk a copy of the
        // keys. The leaver still stands in its slot while this runs.
        std::vector<std::uint32_t> steps;
        for (const auto& [step, flags] : room.stepReports) steps.push_back(step);
        for (std::uint32_t step : steps) markStepDone(room, static_cast<std::int32_t>(index), step);

        sendToHumans(room, kMatchControlChannel, PlayerLeftMatch{1, index}.encode());
        std::string name = slot.info ? slot.info->playerName : std::string();
        sendTextToRoom(room, name + (disconnected ? " has been disconnected from server" : " has left the game"));
    }

    slot.peer = nullptr;
    slot.info.reset();

    sendToHumans(room, kLobbyChannel, freshPlayerSetup(index)->bytes);
    logMessage(roomCountLine("Left room ", room));
    sendToHumans(room, kLobbyChannel, slotStateOf(room, index));

    if (index == room.hostSlot) {
        for (const Slot& s : room.slots) {
            if (s.peer != nullptr) {
                setHost(room, s.peer);
                break;
            }
        }
    }
}

void setHost(Room& room, ENetPeer* newHost) {
    // The old host is told even when it is also the new one.
    if (ENetPeer* old = room.slots[room.hostSlot].peer) sendBytes(old, kLobbyChannel, HostStatus{1, 0}.encode());
    int index = newHost != nullptr ? slotOfPeer(room, newHost) : -1;
    if (index < 0) return;
    sendBytes(newHost, kLobbyChannel, HostStatus{1, 1}.encode());

    Slot& slot = room.slots[index];
    if (slot.info == nullptr) slot.info = freshPlayerSetup(static_cast<std::uint32_t>(index));
    slot.info->ready = 0;
    rebuildPlayerSetup(*slot.info);
    sendToHumans(room, kLobbyChannel, slot.info->bytes);
    room.hostSlot = static_cast<std::uint32_t>(index);
}

void requestHost(Server& server, ENetPeer* peer, std::uint32_t slot) {
    Room* room = peer != nullptr ? findPeerRoom(server, peer) : nullptr;
    if (room == nullptr) return;
    // Any member may hand the role on; only a slot with a human can take it.
    if (ENetPeer* target = room->slots[slot].peer) setHost(*room, target);
}

void kickPlayer(Server& server, ENetPeer* peer, std::uint32_t slot) {
    Room* room = peer != nullptr ? findPeerRoom(server, peer) : nullptr;
    if (room == nullptr || room->slots[room->hostSlot].peer != peer) return;
    ENetPeer* kicked = room->slots[slot].peer;
    if (kicked == nullptr) return;
    const PlayerSetup* info = room->slots[slot].info.get();
    std::string name = info ? info->playerName : std::string();

    sendBytes(kicked, kLobbyChannel, Kicked{}.encode());
    sendTextToRoom(*room, name + " has been kicked by host");
    leaveRoom(server, kicked, false);
}

void changeSlotState(Server& server, ENetPeer* peer, std::uint32_t slot, std::uint32_t closed, ByteView packet) {
    Room* room = peer != nullptr ? findPeerRoom(server, peer) : nullptr;
    if (room == nullptr || room->slots[room->hostSlot].peer != peer) return;
    if (room->slots[slot].peer != nullptr) return;
    room->closed[slot] = closed != 0;
    // Opening or closing a slot removes a player without a connection.
    room->slots[slot].info.reset();
    sendToHumans(*room, kLobbyChannel, packet);
}

bool setupConflicts(const Room& room, const PlayerSetup& setup) {
    for (std::uint32_t j = 0; j < kSlotCount; ++j) {
        if (j == setup.slot) continue;
        const Slot& other = room.slots[j];
        if (other.peer == nullptr || other.info == nullptr) continue;
        if (setup.playerTag != 0 && other.info->playerTag == setup.playerTag) return true;
        if (setup.startLocation != 0 && other.info->startLocation == setup.startLocation) return true;
    }
    return false;
}

void updatePlayerSetup(Server& server, ENetPeer* peer, ByteView packet) {
    auto setup = decodePlayerSetup(packet);
    if (!setup) {
        logMalformed("PlayerSetup", kLobbyChannel, packet.size());
        return;
    }
    // Only slots 0..7 exist; a record for a larger index is dropped and
    // logged like one that does not decode.
    if (setup->slot >= kSlotCount) {
        logMalformed("PlayerSetup", kLobbyChannel, packet.size());
        return;
    }
    Room* room = peer != nullptr ? findPeerRoom(server, peer) : nullptr;
    if (room == nullptr) return;
    Slot& slot = room->slots[setup->slot];

    if (setupConflicts(*room, *setup)) {
        if (slot.info != nullptr) {
            // Sets every view, the sender's included, back to what is stored.
            sendToHumans(*room, kLobbyChannel, slot.info->bytes);
        } else {
            // Nothing is stored for the slot: the sender gets the slot's
            // state as a join would show it, and the slot stays empty.
            sendBytes(peer, kLobbyChannel, slotStateOf(*room, setup->slot));
        }
        return;
    }
    slot.info = std::make_unique<PlayerSetup>(std::move(*setup));
    sendToHumans(*room, kLobbyChannel, slot.info->bytes);
}
