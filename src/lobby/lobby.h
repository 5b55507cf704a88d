#pragma once
// Lobby: the room registry, joining and leaving, readiness and the start.

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include <enet/enet.h>

#include "protocol/wire.h"

struct Server;
struct Room;
struct PlayerSetup;

// Every packet on the lobby channel from a registered peer.
void handleLobbyMessage(Server& server, ENetPeer* peer, ByteView packet);
// Takes the peer out of its room, if it is in one.
void leaveRoom(Server& server, ENetPeer* peer, bool disconnected);
// Once per service step: deletes at most one room without humans.
void deleteEmptyRoom(Server& server);
// Once per service step: the start check of every room.
void checkRoomStarts(Server& server);

// ---- Registry (rooms.cpp) ----
void createRoom(Server& server, ENetPeer* peer, const std::string& name, const std::string& dataset,
                std::uint32_t datasetChecksum);
// The status, one entry per room, and the details of the room with roomId.
void sendRoomList(Server& server, ENetPeer* peer, std::uint32_t roomId);
void updateGameSettings(Server& server, ENetPeer* peer, ByteView packet);

// ---- Membership (membership.cpp) ----
void joinRoom(Server& server, ENetPeer* peer, std::uint32_t roomId);
void setHost(Room& room, ENetPeer* newHost);
void requestHost(Server& server, ENetPeer* peer, std::uint32_t slot);
void kickPlayer(Server& server, ENetPeer* peer, std::uint32_t slot);
void changeSlotState(Server& server, ENetPeer* peer, std::uint32_t slot, std::uint32_t closed, ByteView packet);
void updatePlayerSetup(Server& server, ENetPeer* peer, ByteView packet);
// The lowest free slot of a join (no peer, no record, not closed), or -1.
int findFreeSlot(const Room& room);
// Would this record clash with the tag or start location of a human in
// another slot?
bool setupConflicts(const Room& room, const PlayerSetup& setup);

// ---- Start (start.cpp) ----
void requestStart(Server& server, ENetPeer* peer);
// n distinct numbers 0..n-1 (n >= 1) in an order drawn from the global
// generator (inside-out Fisher-Yates).
std::vector<std::uint32_t> shufflePermutation(std::uint32_t n);
// Fills in missing tags and start locations of every record of the room.
void assignTagsAndLocations(Room& room);
// Moves humans forward into empty slots; records without a peer stay put.
void compactSlots(Room& room);

// ---- Recipients (shared by the lobby files) ----
// The peers of the room's human slots in slot order, optionally without one.
struct Humans {
    ENetPeer* peers[8];
    std::size_t count = 0;
};
Humans humansOf(const Room& room, const ENetPeer* except = nullptr);
void sendToHumans(const Room& room, std::uint8_t channel, ByteView bytes, const ENetPeer* except = nullptr);
// The slot index whose peer is this one, or -1.
int slotOfPeer(const Room& room, const ENetPeer* peer);
