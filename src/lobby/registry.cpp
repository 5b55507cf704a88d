#include <utility>

#include "lobby/room.h"

std::uint32_t humanCount(const Room& room) {
    std::uint32_t n = 0;
    for (const Slot& s : room.slots) n += s.peer != nullptr;
    return n;
}

std::uint32_t capacity(const Room& room) {
    std::uint32_t notClosed = 0;
    for (bool c : room.closed) notClosed += !c;
    return room.settings.startLocations < notClosed ? room.settings.startLocations : notClosed;
}

Audience audienceOf(const Room& room) {
    Audience audience;
    for (std::size_t i = 0; i < kSlotCount; ++i) {
        const Slot& slot = room.slots[i];
        const bool sent = slot.state == PlayerState::connected || slot.state == PlayerState::catchingUp;
        audience.players[i] = sent ? slot.peer : nullptr;
    }
    audience.spectators = room.spectators;
    return audience;
}

MatchView matchView(const Room& room) {
    MatchView view{room.id, {}, audienceOf(room)};
    for (std::size_t i = 0; i < kSlotCount; ++i)
        view.counted[i] = room.slots[i].peer != nullptr && room.slots[i].state == PlayerState::connected;
    return view;
}

const Place* placeOf(const RoomRegistry& rooms, const ENetPeer* peer) {
    const std::size_t i = peer->incomingPeerID;
    if (i >= rooms.places.size() || rooms.places[i].peer != peer) return nullptr;
    return &rooms.places[i].place;
}

Room* roomOf(const RoomRegistry& rooms, const ENetPeer* peer) {
    const Place* s = placeOf(rooms, peer);
    return s != nullptr ? s->room : nullptr;
}

Room* findRoom(const RoomRegistry& rooms, std::uint32_t id) {
    auto it = rooms.byId.find(id);
    return it == rooms.byId.end() ? nullptr : it->second.get();
}

void takeSlot(RoomRegistry& rooms, Room& room, std::uint32_t slot, ENetPeer* peer) {
    room.slots[slot].peer = peer;
    const std::size_t i = peer->incomingPeerID;
    if (i >= rooms.places.size()) rooms.places.resize(i + 1);
    rooms.places[i] = PlaceEntry{peer, Place{&room, slot}};
}

void leaveSlot(RoomRegistry& rooms, Room& room, std::uint32_t slot) {
    if (const ENetPeer* peer = room.slots[slot].peer; peer != nullptr && placeOf(rooms, peer) != nullptr)
        rooms.places[peer->incomingPeerID] = PlaceEntry{};
    room.slots[slot].peer = nullptr;
    rooms.mayHoldEmptyRoom = true;
}

void compactSlots(RoomRegistry& rooms, Room& room) {
    for (std::uint32_t i = 0; i + 1 < kSlotCount; ++i) {
        Slot& slot = room.slots[i];
        if (slot.peer != nullptr || slot.info != nullptr) continue;
        for (std::uint32_t j = i + 1; j < kSlotCount; ++j) {
            if (room.slots[j].peer != nullptr) {
                std::swap(slot, room.slots[j]);
                rooms.places[slot.peer->incomingPeerID].place.slot = i;
                break;
            }
        }
    }
}
