#include "protocol/messages.h"

#include "core/server.h"
#include "protocol/send.h"

Bytes ServerStatus::encode() const {
    Writer w(29 + description.size());
    w.u32(kType).u32(secondWord).str(description);
    w.u32(runningRooms).u32(playersInRunningRooms).u32(playersInOtherRooms).u32(playersInNoRoom);
    w.u32(protocolVersion);
    return w.take();
}

std::optional<ServerStatus> ServerStatus::decode(ByteView bytes) {
    Reader r(bytes);
    ServerStatus s;
    if (r.u32() != kType) return std::nullopt;
    s.secondWord = r.u32();
    s.description = r.str();
    s.runningRooms = r.u32();
    s.playersInRunningRooms = r.u32();
    s.playersInOtherRooms = r.u32();
    s.playersInNoRoom = r.u32();
    s.protocolVersion = r.u32();
    if (!r.ok()) return std::nullopt;
    return s;
}

Bytes encodeText(const std::string& text) { return Writer(text.size() + 1).str(text).take(); }

std::optional<std::string> decodeText(ByteView bytes) {
    Reader r(bytes);
    std::string s = r.str();
    if (!r.ok()) return std::nullopt;
    return s;
}

void sendServerStatus(Server& server, ENetPeer* peer) {
    ServerStatus status;
    status.description = server.serverDescription;
    for (const auto& [id, room] : server.rooms) {
        std::uint32_t humans = humanCount(*room);
        if (room->running) {
            status.runningRooms += 1;
            status.playersInRunningRooms += humans;
        } else {
            status.playersInOtherRooms += humans;
        }
    }
    status.playersInNoRoom = static_cast<std::uint32_t>(server.peers.size()) - status.playersInOtherRooms -
                             status.playersInRunningRooms;
    status.protocolVersion = kProtocolVersion;
    Bytes bytes = status.encode();
    sendBytes(peer, kLobbyChannel, bytes);
}

void sendTextToRoom(const Room& room, const std::string& text) {
    ENetPeer* targets[kSlotCount];
    std::size_t n = 0;
    for (const Slot& slot : room.slots)
        if (slot.peer != nullptr) targets[n++] = slot.peer;
    Bytes bytes = encodeText(text);
    sendBytesToMany(targets, n, kTextChannel, bytes);
}

namespace {
bool holds(const Room& room, const ENetPeer* peer) {
    for (const Slot& slot : room.slots)
        if (slot.peer == peer) return true;
    return false;
}
}  // namespace

Room* findPeerRoom(Server& server, ENetPeer* peer) {
    // The room last found for a peer is kept on its record and checked first:
    // an order then costs a look at eight slots, not at every room. The hint
    // is only ever a guess; the slots decide.
    auto* info = peer != nullptr ? static_cast<PeerInfo*>(peer->data) : nullptr;
    if (info != nullptr && info->lastRoomId != 0) {
        auto it = server.rooms.find(info->lastRoomId);
        if (it != server.rooms.end() && holds(*it->second, peer)) return it->second.get();
    }
    Room* found = nullptr;
    for (auto& [id, room] : server.rooms)
        if (holds(*room, peer)) found = room.get();
    if (info != nullptr) info->lastRoomId = found != nullptr ? found->id : 0;
    return found;
}

void relayText(Server& server, ENetPeer* sender, const std::string& text) {
    if (sender == nullptr || server.peers.count(sender) == 0) return;
    Room* senderRoom = findPeerRoom(server, sender);
    std::vector<ENetPeer*> targets;
    if (senderRoom != nullptr) {
        // Every member of a room is registered; walking the registry keeps its order.
        for (ENetPeer* peer : server.peers)
            if (findPeerRoom(server, peer) == senderRoom) targets.push_back(peer);
    } else {
        for (ENetPeer* peer : server.peers)
            if (findPeerRoom(server, peer) == nullptr) targets.push_back(peer);
    }
    Bytes bytes = encodeText(text);
    sendBytesToMany(targets.data(), targets.size(), kTextChannel, bytes);
}
