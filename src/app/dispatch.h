#pragma once
// Every received packet goes through one table from (channel, message type)
// to the handler of that message.

#include <cstdint>

#include <enet/enet.h>

#include "app/server.h"

// One received packet from peer on channel; the packet stays the caller's.
void dispatchPacket(Server& server, ENetPeer* peer, std::uint8_t channel, ByteView packet);
