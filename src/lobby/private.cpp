// Private rooms: a password kept as a salted hash, rooms left out of the
// lists, and the addresses a host banned from its room.

#include "lobby/lobby.h"
#include "log/log.h"

namespace {
// A room keeps at most this many banned addresses: more kicks than a host
// makes in a room's life.
constexpr std::size_t kMaxBannedAddresses = 1024;

Room* hostedRoom(const RoomRegistry& rooms, const ENetPeer* peer) {
    Room* room = roomOf(rooms, peer);
    return room != nullptr && room->slots[room->hostSlot].peer == peer ? room : nullptr;
}
}  // namespace

void lockRoom(RoomLock& lock, const std::string& password, bool hidden) {
    lock.hidden = hidden;
    lock.hasPassword = !password.empty();
    if (lock.hasPassword) {
        lock.salt = randomSalt();
        lock.hash = saltedHash(lock.salt, password);
    } else {
        lock.salt = {};
        lock.hash = {};
    }
}

bool passwordMatches(const RoomLock& lock, const std::string& password) {
    return !lock.hasPassword || sameHash(lock.hash, saltedHash(lock.salt, password));
}

void createPrivateRoom(RoomRegistry& rooms, ENetPeer* peer, const CreatePrivateRoom& request) {
    Room* room = createRoom(rooms, peer, CreateRoom{1, request.name, request.dataset, request.datasetChecksum});
    if (room != nullptr) lockRoom(room->lock, request.password, request.hidden != 0);
}

void setRoomPassword(RoomRegistry& rooms, ENetPeer* peer, const SetRoomPassword& request) {
    if (Room* room = hostedRoom(rooms, peer)) lockRoom(room->lock, request.password, request.hidden != 0);
}

void kickAndBan(RoomRegistry& rooms, ENetPeer* peer, std::uint32_t slot) {
    Room* room = hostedRoom(rooms, peer);
    if (room == nullptr || slot >= kSlotCount) return;
    ENetPeer* kicked = room->slots[slot].peer;
    if (kicked == nullptr || kicked == peer) return;
    if (room->lock.bannedAddresses.size() < kMaxBannedAddresses) room->lock.bannedAddresses.insert(kicked->address.host);
    kickPlayer(rooms, peer, slot);
}
