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

SeatPeers seatPeers(const Room& room) {
    SeatPeers peers;
    for (std::size_t i = 0; i < kSlotCount; ++i) peers[i] = room.slots[i].peer;
    return peers;
}

Seating seating(const Room& room) { return Seating{room.id, seatPeers(room)}; }

const Seat* seatOf(const RoomRegistry& rooms, const ENetPeer* peer) {
    auto it = rooms.seats.find(peer);
    return it == rooms.seats.end() ? nullptr : &it->second;
}

Room* roomOf(const RoomRegistry& rooms, const ENetPeer* peer) {
    const Seat* s = seatOf(rooms, peer);
    return s != nullptr ? s->room : nullptr;
}

Room* findRoom(const RoomRegistry& rooms, std::uint32_t id) {
    auto it = rooms.byId.find(id);
    return it == rooms.byId.end() ? nullptr : it->second.get();
}

void seat(RoomRegistry& rooms, Room& room, std::uint32_t slot, ENetPeer* peer) {
    room.slots[slot].peer = peer;
    rooms.seats[peer] = Seat{&room, slot};
}

void unseat(RoomRegistry& rooms, Room& room, std::uint32_t slot) {
    rooms.seats.erase(room.slots[slot].peer);
    room.slots[slot].peer = nullptr;
}

void compactSlots(RoomRegistry& rooms, Room& room) {
    for (std::uint32_t i = 0; i + 1 < kSlotCount; ++i) {
        Slot& slot = room.slots[i];
        if (slot.peer != nullptr || slot.info != nullptr) continue;
        for (std::uint32_t j = i + 1; j < kSlotCount; ++j) {
            if (room.slots[j].peer != nullptr) {
                std::swap(slot, room.slots[j]);
                rooms.seats[slot.peer].slot = i;
                break;
            }
        }
    }
}
