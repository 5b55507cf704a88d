#pragma once
// The match relay: orders, step completion, the order-delay controller and
// match control messages.

#include <cstdint>

#include <enet/enet.h>

#include "protocol/wire.h"

struct Server;
struct Room;

// Every packet on the order channel from a registered peer.
void handleOrder(Server& server, ENetPeer* peer, ByteView packet);
// Every packet on the match control channel from a registered peer.
void handleMatchControl(Server& server, ENetPeer* peer, ByteView packet);
// Records that slot finished step; announces the step to every occupied slot
// once all of them have. Slots outside 0..7 are ignored.
void markStepDone(Room& room, std::int32_t slot, std::uint32_t step);
// True when step has reports and every occupied slot has reported it.
bool isStepComplete(const Room& room, std::uint32_t step);
// Once per service step: the order-delay controller of every running room.
void adaptOrderDelay(Server& server);
// The controller's view of a peer's round-trip time in milliseconds.
std::uint32_t peerRoundTripTime(const ENetPeer* peer);

// The bytes, as one shared packet, to every slot of the room whose peer is
// set (except one peer, when given), in slot order.
void sendToOccupiedSlots(const Room& room, std::uint8_t channel, ByteView bytes, const ENetPeer* except = nullptr);
