#pragma once
// The lobby: creating rooms, the room list, joining and leaving, the host
// role, player setups, readiness and the start. Every change is followed by
// the messages that bring each human's view of the room up to date, in the
// order clients expect them.

#include <cstdint>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <vector>

#include <enet/enet.h>

#include "lobby/room.h"

// The bytes to every human of the room (except one peer, when given).
// (Spectators are not humans of the room: they are sent only what the
// match relays.)
void sendToHumans(const Room& room, std::uint8_t channel, ByteView bytes, const ENetPeer* except = nullptr);
void sendTextToRoom(const Room& room, const std::string& text);

// ---- Rooms (rooms.cpp) ----
// The new room, or nullptr when the peer is in a room already.
Room* createRoom(RoomRegistry& rooms, ENetPeer* peer, const CreateRoom& request);
// The status line of the room list: rooms, players in and out of them.
ServerStatus serverStatus(const RoomRegistry& rooms, const std::string& description, std::size_t peerCount);
// The status, one entry per room, and the details of the room with roomId;
// returns the bytes sent. Hidden rooms are left out; a room with a password
// is listed full to a client that knows no private rooms, and named in a
// LockedRooms after the entries to one that does (privateRooms).
std::size_t sendRoomList(const RoomRegistry& rooms, const ServerStatus& status, ENetPeer* peer, std::uint32_t roomId,
                         bool privateRooms = false);
void updateGameSettings(RoomRegistry& rooms, ENetPeer* peer, GameSettings settings);
// Who a text goes to: every registered peer that shares the sender's room
// (or, for a sender in no room, every peer in no room), the sender included,
// in the order of the peer registry.
std::vector<ENetPeer*> textRecipients(const RoomRegistry& rooms, const std::set<ENetPeer*>& peers, ENetPeer* sender);
// Takes the first room without humans out of the registry (logged), or
// returns nullptr.
std::unique_ptr<Room> deleteEmptyRoom(RoomRegistry& rooms);
// What every new room starts with: 8 start locations, everything else 0.
GameSettings defaultGameSettings();

// ---- Membership (membership.cpp) ----
// A join as a client that knows no private rooms asks it: a room with a
// password or hidden refuses it with the texts of a full or a missing room,
// and counts the attempt as a failed one.
void joinRoom(RoomRegistry& rooms, ENetPeer* peer, std::uint32_t roomId);
// A join with a password; a refusal is answered with JoinRefused.
void joinPrivateRoom(RoomRegistry& rooms, ENetPeer* peer, std::uint32_t roomId, const std::string& password);

// What a room's lock (password, hidden, bans) says of a peer that would come
// in: with a refusal, why, in JoinRefused's terms and in the texts a client
// that knows no private rooms understands. Failed password checks count
// against the room's and the peer's allowance.
struct LockVerdict {
    bool ok = true;
    JoinRefusal reason{};
    const char* legacyText = "";
    std::string text;
};
LockVerdict passLock(RoomRegistry& rooms, Room& room, ENetPeer* peer, const std::string* password);

// ---- Private rooms (private.cpp) ----
void createPrivateRoom(RoomRegistry& rooms, ENetPeer* peer, const CreatePrivateRoom& request);
// From the host: the password (empty: none) and whether the room is hidden.
void setRoomPassword(RoomRegistry& rooms, ENetPeer* peer, const SetRoomPassword& request);
// From the host: the kick, then the kicked peer's address may not join the
// room again while it lives.
void kickAndBan(RoomRegistry& rooms, ENetPeer* peer, std::uint32_t slot);
void lockRoom(RoomLock& lock, const std::string& password, bool hidden);
bool passwordMatches(const RoomLock& lock, const std::string& password);
// Takes the peer out of its room, if it is in one.
void leaveRoom(RoomRegistry& rooms, ENetPeer* peer, bool disconnected);
void setHost(Room& room, ENetPeer* newHost);
void requestHost(RoomRegistry& rooms, ENetPeer* peer, std::uint32_t slot);
void kickPlayer(RoomRegistry& rooms, ENetPeer* peer, std::uint32_t slot);
// packet is the SlotState as it came: it is what the humans get.
void changeSlotState(RoomRegistry& rooms, ENetPeer* peer, const SlotState& state, ByteView packet);
void updatePlayerSetup(RoomRegistry& rooms, ENetPeer* peer, PlayerSetup setup);
// The record of a slot a human has just taken or just left.
std::unique_ptr<PlayerSetup> freshPlayerSetup(std::uint32_t slot);
// Re-encodes a record the server changed; its second header word becomes 1.
void rebuildPlayerSetup(PlayerSetup& setup);

// ---- Rejoin (rejoin.cpp) ----
// At the start of a match where every player was granted rejoin (and
// rejoin is on): the room keeps a dropped player's seat, and each player
// gets the token of its own.
void handOutRejoinTickets(RoomRegistry& rooms, Room& room);
// A player of such a room lost its connection: its seat waits for it.
void keepSeat(RoomRegistry& rooms, Room& room, std::uint32_t slot);
// A new connection presents a token; a refusal costs it nothing but a
// reply, one log line and a try of its address's allowance.
void rejoin(RoomRegistry& rooms, ENetPeer* peer, const Rejoin& request, std::uint64_t nowMicros);
// The rejoined player ran through the stream: steps wait for it again.
void caughtUp(RoomRegistry& rooms, ENetPeer* peer);
void receiveSnapshot(RoomRegistry& rooms, ENetPeer* peer, const StateSnapshot& snapshot);
// No snapshot is coming for the slot: its stream starts from the start.
void giveUpSnapshot(Room& room, std::uint32_t slot);
// Room work: seats that waited too long are released as a leave is.
void releaseExpiredSeats(RoomRegistry& rooms, std::uint64_t nowMicros);
// The slot's reports of every step still open count as given, so that the
// others are not held up by a player that is gone (or away).
void releaseOpenSteps(Room& room, std::uint32_t slot);
// Takes a player's slot out of the room as a leave does, the seat of an away
// player included.
void vacateSlot(RoomRegistry& rooms, Room& room, std::uint32_t slot, bool disconnected);

// ---- Spectators and streams (watchers.cpp) ----
bool isWatching(const RoomRegistry& rooms, const ENetPeer* peer);
void spectate(RoomRegistry& rooms, ENetPeer* peer, const Spectate& request, std::uint64_t nowMicros);
// A spectator leaves (LeaveRoom, LeaveMatch, or its connection is gone);
// false when the peer watches nothing.
bool stopWatching(RoomRegistry& rooms, ENetPeer* peer);
// What a spectator sent to the match: dropped, with one line per spectator.
void dropSpectatorOrder(RoomRegistry& rooms, ENetPeer* peer);
// The room is going: its spectators are told; delayed streams read on.
void endSpectating(RoomRegistry& rooms, Room& room);
// Ends a stream and forgets it (a null one is left alone).
void stopFeed(RoomRegistry& rooms, std::shared_ptr<Feed>& feed);
// Every loop turn while streams are sent: each gets its turn, and snapshots
// that did not come in time are given up.
void turnStreams(RoomRegistry& rooms, std::uint64_t nowMicros);

// ---- Start (start.cpp) ----
void requestStart(RoomRegistry& rooms, ENetPeer* peer);
// Once per room work: the start check of every room, while one may be
// waiting for its start.
void checkRoomStarts(RoomRegistry& rooms);
// Once per room work, after the start checks: the order-delay controller of
// every running match.
void tickOrderDelays(RoomRegistry& rooms);
// Asked to start and not yet started, or started and not yet running.
bool startPending(const Room& room);
// The process-wide generator, seeded with 0 so that every run draws the same
// tags and start locations.
std::mt19937& globalGenerator();
void resetGlobalGenerator();
// n distinct numbers 0..n-1 in an order drawn from the global generator
// (inside-out Fisher-Yates).
std::vector<std::uint32_t> shufflePermutation(std::uint32_t n);
// Fills in missing tags and start locations of every record of the room.
void assignTagsAndLocations(Room& room);
