#pragma once
// Rooms of up to eight players, and the registry that owns them with its
// index from a peer to its place in them.
//
// A room's slots are its roster: each player's record, its connection and
// its state in the match. Its audience is who is sent what the match relays:
// the players connected (and caught up with the stream) and the spectators
// that watch live. Steps wait only for the players counted.

#include <array>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

#include <enet/enet.h>

#include "game/catchup.h"
#include "game/match.h"
#include "platform/secrets.h"
#include "protocol/messages.h"
#include "protocol/send.h"

// Where a player of a running match stands. Before the start, and in any
// room where a drop is a leave, every player with a record is connected.
enum class PlayerState : std::uint8_t {
    connected,   // plays: counted, and sent the relay
    away,        // lost its connection; its record waits for it to rejoin
    rejoining,   // back, and being sent the match's stream: sent nothing live yet
    catchingUp,  // sent the relay again, and running through the stream: not counted until it says it caught up
};

struct Slot {
    ENetPeer* peer = nullptr;            // a human's connection (null while away)
    std::unique_ptr<PlayerSetup> info;  // nobody in the slot when null
    PlayerState state = PlayerState::connected;
    // In a room where a drop is not a leave: what brings the player back
    // (never logged), and until when its seat waits while it is away.
    RejoinToken token{};
    std::uint64_t awayUntilMicros = 0;
    // Back, and being sent the stream; and the snapshot asked for it, if
    // any (request 0: none).
    std::shared_ptr<Feed> feed;
    std::uint32_t snapshotRequest = 0;
    PeerRef snapshotFrom;
    std::uint64_t snapshotDeadlineMicros = 0;
};

// Failed joins counted over a minute.
struct JoinFailures {
    std::uint64_t since = 0;  // steadyMicros of the minute's start
    std::uint32_t count = 0;
};

// A private room's guard: its password (kept only as a salted hash), whether
// it is listed, the addresses its hosts banned, and the failed joins that
// bound how fast anyone may guess.
struct RoomLock {
    bool hasPassword = false;
    bool hidden = false;
    Salt salt{};
    PasswordHash hash{};
    std::set<std::uint32_t> bannedAddresses;
    // By the connection number of the peer that failed.
    std::unordered_map<std::uint64_t, JoinFailures> failuresByPeer;
    JoinFailures failures;
    std::uint64_t refusalLineMicros = 0;
    bool refusalLogged = false;
};

struct Room {
    std::uint32_t id = 0;
    std::string name;
    std::string dataset;
    std::uint32_t datasetChecksum = 0;
    bool open = true;
    bool startRequested = false;
    bool started = false;
    bool running = false;
    std::vector<std::string> matchPlayerNames;
    GameSettings settings;
    // What every room list repeats, encoded once: the settings (kept in step
    // with them) and the room's entry, valid while listKey stays the same.
    SharedMessage sharedSettings;
    SharedMessage listEntry;
    std::uint32_t listKey = 0xFFFFFFFFu;
    // The entry a client that knows no private rooms gets for a room with a
    // password: full, so that it offers no join.
    SharedMessage fullListEntry;
    RoomLock lock;
    std::array<Slot, kSlotCount> slots;
    SlotFlags confirmed{};
    SlotFlags closed{};
    std::uint32_t hostSlot = 0;
    // Every player of the match was granted rejoin: a drop keeps the seat.
    bool rejoinable = false;
    // Spectators that watch the match live, in the order they came.
    std::vector<ENetPeer*> spectators;
    Match match;
};

// Slots whose peer is set.
std::uint32_t humanCount(const Room& room);
// The smaller of the map's start locations and the slots not closed.
std::uint32_t capacity(const Room& room);
// The players sent the relay: connected, or back and past the stream.
Audience audienceOf(const Room& room);
MatchView matchView(const Room& room);

struct Place {
    Room* room = nullptr;
    std::uint32_t slot = 0;
};

// An entry of the place index, which is filed by the ENet peer's index in
// its host (incomingPeerID): finding the sender's room is then one array
// read for every packet a player sends. The entry names its peer, so that
// no other peer object with the same index is taken for it.
struct PlaceEntry {
    const ENetPeer* peer = nullptr;
    Place place;
};

// What rejoin and spectators allow (--rejoin, --spectators,
// --spectator-delay and their limits).
struct MatchAccess {
    // How long an away player's seat waits; 0: a drop is a leave everywhere.
    std::uint64_t awayMicros = 0;
    std::uint32_t spectatorsPerRoom = 0;
    std::uint32_t spectatorDelaySteps = 0;
    // A snapshot asked for a rejoin: how long it is waited for
    // (snapshot_wait_ms) and how large it may be (snapshot_max_bytes).
    std::uint64_t snapshotWaitMicros = 5'000'000;
    std::uint64_t snapshotMaxBytes = 4u * 1024 * 1024;
    // Refused rejoins per address per minute (rejoin_failures_per_address_per_minute):
    // past them, rejoins from the address are refused unchecked.
    std::uint32_t failuresPerAddress = 10;
};

// A peer watching a match.
struct Watcher {
    std::uint32_t roomId = 0;
    // While it is sent the stream; null once it watches live.
    std::shared_ptr<Feed> feed;
    bool orderLogged = false;
};

// Slot peers change only through takeSlot, leaveSlot and compactSlots, which
// keep the index in step with the rooms.
struct RoomRegistry {
    // Owned rooms, walked in ID order.
    std::map<std::uint32_t, std::unique_ptr<Room>> byId;
    std::uint32_t nextRoomId = 1;
    // Every player's place; the peers are all the one host's. A deque, so
    // that a place a handler holds stays where it is when a slot taken for
    // another peer makes the index longer.
    std::deque<PlaceEntry> places;
    // Where matches are recorded as they start; null: none are.
    Recordings* recordings = nullptr;
    // Failed joins into a room with a password allowed per minute, per peer
    // and per room (0: no bound); past them joins are refused unchecked.
    std::uint32_t joinFailuresPerPeer = 5;
    std::uint32_t joinFailuresPerRoom = 30;
    // The worker that reads streams back and writes recordings.
    Storage* storage = nullptr;
    MatchAccess access;
    CatchUps catchUps;
    // Every stream being sent, to players back and to spectators.
    std::vector<std::shared_ptr<Feed>> feeds;
    std::unordered_map<const ENetPeer*, Watcher> watchers;
    // Refused rejoins by address.
    std::unordered_map<std::uint32_t, JoinFailures> rejoinFailures;
    std::uint32_t nextSnapshotRequest = 1;
    // The room work runs every couple of milliseconds and a walk of every
    // room's slots is most of its cost, so the walks that look for rare
    // states run only while the state can be there: a room may be empty
    // only after a slot was left or a room made, and a seat can expire only
    // while one is away, and the start check only after a start was asked
    // for and until no room waits for its start.
    bool mayHoldEmptyRoom = false;
    std::uint32_t awaySeats = 0;
    bool mayHoldPendingStart = false;
    // The delay controllers' schedule. A match is ticked on the first room
    // work after it runs, and then only on its passes, every
    // kDelayTicksPerPass room works from the wheel's slot of that first
    // tick: a room work visits a fifteenth of the matches instead of all.
    std::array<std::vector<Room*>, kDelayTicksPerPass> delayWheel;
    std::uint64_t delayTurns = 0;
    std::vector<Room*> newlyRunning;
    // The passes of the slots reached so far that are still to be made, in
    // the wheel's order: a room work that falls on many decisions at once
    // makes those of at most kDelayNoticesPerRoomWork notices, and the next
    // room works make the rest.
    std::deque<Room*> passesDue;
};

// The room and slot of a player's connection, or nullptr.
const Place* placeOf(const RoomRegistry& rooms, const ENetPeer* peer);
Room* roomOf(const RoomRegistry& rooms, const ENetPeer* peer);
Room* findRoom(const RoomRegistry& rooms, std::uint32_t id);
void takeSlot(RoomRegistry& rooms, Room& room, std::uint32_t slot, ENetPeer* peer);
void leaveSlot(RoomRegistry& rooms, Room& room, std::uint32_t slot);
// Moves humans forward into empty slots; records without a peer stay put.
void compactSlots(RoomRegistry& rooms, Room& room);
