// Moving players into and out of rooms, the host role, slot states and the
// players' setups. Every change is followed by the messages that bring each
// human's view of the room up to date, in the order clients expect them.

#include "lobby/lobby.h"
#include "log/log.h"
#include "platform/clock.h"

namespace {

void refuseJoin(ENetPeer* peer, const std::string& text) { sendBytes(peer, kTextChannel, encode(Text{text})); }

Bytes slotStateOf(const Room& room, std::uint32_t slot) {
    SlotState state;
    state.slot = slot;
    state.closed = room.closed[slot] ? 1 : 0;
    return encode(state);
}

std::string roomCountLine(const char* what, const Room& room) {
    return std::string(what) + std::to_string(room.id) + " Peers in room: " + std::to_string(humanCount(room));
}

// The lowest free slot of a join (no peer, no record, not closed), or -1.
int findFreeSlot(const Room& room) {
    for (std::size_t i = 0; i < kSlotCount; ++i) {
        const Slot& slot = room.slots[i];
        if (slot.peer == nullptr && slot.info == nullptr && !room.closed[i]) return static_cast<int>(i);
    }
    return -1;
}

// Would this record clash with the tag or start location of a human in
// another slot?
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

// The peer's room when the peer is its host, else nullptr.
Room* hostedRoom(const RoomRegistry& rooms, const ENetPeer* peer) {
    Room* room = roomOf(rooms, peer);
    return room != nullptr && room->slots[room->hostSlot].peer == peer ? room : nullptr;
}

}  // namespace

void rebuildPlayerSetup(PlayerSetup& setup) {
    setup.secondWord = 1;
    setup.bytes = encode(setup);
}

std::unique_ptr<PlayerSetup> freshPlayerSetup(std::uint32_t slot) {
    auto setup = std::make_unique<PlayerSetup>();
    setup->slot = slot;
    rebuildPlayerSetup(*setup);
    return setup;
}

namespace {

constexpr char kNoRoom[] = "Cannot join: room does no longer exist!";
constexpr char kFull[] = "Cannot join: room is already full!";

// Refuses a join: with the text a client that knows no private rooms
// understands, or, to one that asked with a password, with JoinRefused.
struct JoinReply {
    ENetPeer* peer;
    std::uint32_t roomId;
    bool withPassword;
    void refuse(JoinRefusal reason, const char* legacyText, const std::string& text) const {
        if (withPassword)
            sendBytes(peer, kLobbyChannel, encode(JoinRefused{1, roomId, static_cast<std::uint32_t>(reason), text}));
        else
            refuseJoin(peer, legacyText);
    }
};

// Whether a failed join is still allowed in this minute, per peer and per
// room; when it is not, the join is refused without its password checked.
bool mayTry(const RoomRegistry& rooms, RoomLock& lock, std::uint64_t connection, std::uint64_t now) {
    auto current = [now](JoinFailures& f) -> JoinFailures& {
        if (now - f.since >= 60'000'000) f = JoinFailures{now, 0};
        return f;
    };
    // Entries of a minute gone hold nothing: the map never grows past the
    // peers that failed in one minute.
    if (lock.failuresByPeer.size() > 64)
        std::erase_if(lock.failuresByPeer, [now](const auto& e) { return now - e.second.since >= 60'000'000; });
    const JoinFailures& room = current(lock.failures);
    const JoinFailures& peer = current(lock.failuresByPeer[connection]);
    return (rooms.joinFailuresPerRoom == 0 || room.count < rooms.joinFailuresPerRoom) &&
           (rooms.joinFailuresPerPeer == 0 || peer.count < rooms.joinFailuresPerPeer);
}

void countFailure(RoomLock& lock, std::uint64_t connection) {
    lock.failures.count += 1;
    lock.failuresByPeer[connection].count += 1;
}

}  // namespace

LockVerdict passLock(RoomRegistry& rooms, Room& room, ENetPeer* peer, const std::string* password) {
    RoomLock& lock = room.lock;
    if (!lock.hasPassword && !lock.hidden && lock.bannedAddresses.empty()) return {};
    // A hidden room answers every refusal as a missing one would, so that
    // nobody learns its ID by trying.
    const bool hidden = lock.hidden;
    const LockVerdict missing{false, JoinRefusal::noRoom, kNoRoom, kNoRoom};
    if (lock.bannedAddresses.count(peer->address.host) != 0)
        return hidden ? missing : LockVerdict{false, JoinRefusal::banned, kFull, "Cannot join: you may not join this room!"};
    const std::uint64_t connection = refOf(peer).connection, now = steadyMicros();
    if (lock.hasPassword || hidden) {
        if (!mayTry(rooms, lock, connection, now)) {
            if (!lock.refusalLogged || now - lock.refusalLineMicros >= 60'000'000) {
                lock.refusalLogged = true;
                lock.refusalLineMicros = now;
                logError("|||| Room " + std::to_string(room.id) + ": too many failed joins; joins refused "
                         "unchecked for a while (last from " + peerAddressText(peer) + ")");
            }
            return hidden ? missing
                          : LockVerdict{false, JoinRefusal::tooManyAttempts, kFull,
                                        "Cannot join: too many failed attempts. Try again in a minute."};
        }
        if (password == nullptr ? lock.hasPassword || hidden : !passwordMatches(lock, *password)) {
            countFailure(lock, connection);
            return hidden ? missing : LockVerdict{false, JoinRefusal::wrongPassword, kFull, "Cannot join: wrong password!"};
        }
    }
    return {};
}

namespace {

void admit(RoomRegistry& rooms, ENetPeer* peer, std::uint32_t roomId, const std::string* password) {
    if (roomOf(rooms, peer) != nullptr || isWatching(rooms, peer)) return;
    const JoinReply reply{peer, roomId, password != nullptr};

    Room* found = findRoom(rooms, roomId);
    if (found == nullptr) return reply.refuse(JoinRefusal::noRoom, kNoRoom, kNoRoom);
    Room& room = *found;
    if (const LockVerdict lock = passLock(rooms, room, peer, password); !lock.ok)
        return reply.refuse(lock.reason, lock.legacyText, lock.text);
    if (!room.open)
        return reply.refuse(JoinRefusal::started, "Cannot join: game has already started!",
                            "Cannot join: game has already started!");
    if (humanCount(room) >= capacity(room)) return reply.refuse(JoinRefusal::full, kFull, kFull);
    // Players without a connection can fill the open slots below capacity.
    int free = findFreeSlot(room);
    if (free < 0) return reply.refuse(JoinRefusal::full, kFull, kFull);
    auto index = static_cast<std::uint32_t>(free);

    takeSlot(rooms, room, index, peer);
    room.slots[index].info = freshPlayerSetup(index);

    sendBytes(peer, kLobbyChannel, encode(JoinAccepted{1, index, room.id}));
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

}  // namespace

void joinRoom(RoomRegistry& rooms, ENetPeer* peer, std::uint32_t roomId) { admit(rooms, peer, roomId, nullptr); }

void joinPrivateRoom(RoomRegistry& rooms, ENetPeer* peer, std::uint32_t roomId, const std::string& password) {
    admit(rooms, peer, roomId, &password);
}

void leaveRoom(RoomRegistry& rooms, ENetPeer* peer, bool disconnected) {
    if (stopWatching(rooms, peer)) return;
    const Place* place = placeOf(rooms, peer);
    if (place == nullptr) return;
    Room& room = *place->room;
    // Only a lost connection keeps the seat: a player that leaves, or is
    // kicked, is gone.
    if (disconnected && room.running && room.rejoinable) return keepSeat(rooms, room, place->slot);
    vacateSlot(rooms, room, place->slot, disconnected);
}

void releaseOpenSteps(Room& room, std::uint32_t slot) {
    // markStepDone may complete and erase entries, so walk a copy of the keys.
    std::vector<std::uint32_t> steps;
    for (const auto& [step, flags] : room.match.stepReports) steps.push_back(step);
    const MatchView view = matchView(room);
    for (std::uint32_t step : steps) markStepDone(room.match, view, static_cast<std::int32_t>(slot), step);
}

void vacateSlot(RoomRegistry& rooms, Room& room, std::uint32_t index, bool disconnected) {
    Slot& slot = room.slots[index];

    if (room.running) {
        // The leaver still stands in its slot while this runs.
        releaseOpenSteps(room, index);

        sendToHumans(room, kMatchControlChannel, encode(PlayerLeftMatch{1, index}));
        std::string name = slot.info ? slot.info->playerName : std::string();
        if (room.match.recording)
            record(room.match.recording, RecordType::left, Writer().u32(index).u32(disconnected ? 1 : 0).str(name).take());
        sendTextToRoom(room, name + (disconnected ? " has been disconnected from server" : " has left the game"));
    }

    stopFeed(rooms, slot.feed);
    if (slot.peer != nullptr) leaveSlot(rooms, room, index);
    if (slot.state == PlayerState::away) rooms.awaySeats -= 1;
    rooms.mayHoldEmptyRoom = true;
    slot.info.reset();
    slot.state = PlayerState::connected;
    slot.token = {};
    slot.snapshotRequest = 0;

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
    if (ENetPeer* old = room.slots[room.hostSlot].peer) sendBytes(old, kLobbyChannel, encode(HostStatus{1, 0}));
    int index = -1;
    for (std::size_t i = 0; i < kSlotCount && newHost != nullptr && index < 0; ++i)
        if (room.slots[i].peer == newHost) index = static_cast<int>(i);
    if (index < 0) return;
    sendBytes(newHost, kLobbyChannel, encode(HostStatus{1, 1}));

    Slot& slot = room.slots[index];
    if (slot.info == nullptr) slot.info = freshPlayerSetup(static_cast<std::uint32_t>(index));
    slot.info->ready = 0;
    rebuildPlayerSetup(*slot.info);
    sendToHumans(room, kLobbyChannel, slot.info->bytes);
    room.hostSlot = static_cast<std::uint32_t>(index);
}

void requestHost(RoomRegistry& rooms, ENetPeer* peer, std::uint32_t slot) {
    Room* room = roomOf(rooms, peer);
    if (room == nullptr) return;
    // Any member may hand the role on; only a slot with a human can take it.
    if (ENetPeer* target = room->slots[slot].peer) setHost(*room, target);
}

void kickPlayer(RoomRegistry& rooms, ENetPeer* peer, std::uint32_t slot) {
    Room* room = hostedRoom(rooms, peer);
    if (room == nullptr) return;
    ENetPeer* kicked = room->slots[slot].peer;
    if (kicked == nullptr) return;
    const PlayerSetup* info = room->slots[slot].info.get();
    std::string name = info ? info->playerName : std::string();

    sendBytes(kicked, kLobbyChannel, encode(Kicked{}));
    sendTextToRoom(*room, name + " has been kicked by host");
    leaveRoom(rooms, kicked, false);
}

void changeSlotState(RoomRegistry& rooms, ENetPeer* peer, const SlotState& state, ByteView packet) {
    Room* room = hostedRoom(rooms, peer);
    if (room == nullptr) return;
    if (room->slots[state.slot].peer != nullptr) return;
    room->closed[state.slot] = state.closed != 0;
    // Opening or closing a slot removes a player without a connection.
    room->slots[state.slot].info.reset();
    sendToHumans(*room, kLobbyChannel, packet);
}

void updatePlayerSetup(RoomRegistry& rooms, ENetPeer* peer, PlayerSetup setup) {
    Room* room = roomOf(rooms, peer);
    if (room == nullptr) return;
    Slot& slot = room->slots[setup.slot];

    if (setupConflicts(*room, setup)) {
        if (slot.info != nullptr) {
            // Sets every view, the sender's included, back to what is stored.
            sendToHumans(*room, kLobbyChannel, slot.info->bytes);
        } else {
            // Nothing is stored for the slot: the sender gets the slot's
            // state as a join would show it, and the slot stays empty.
            sendBytes(peer, kLobbyChannel, slotStateOf(*room, setup.slot));
        }
        return;
    }
    slot.info = std::make_unique<PlayerSetup>(std::move(setup));
    sendToHumans(*room, kLobbyChannel, slot.info->bytes);
}
