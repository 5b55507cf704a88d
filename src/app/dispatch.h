#pragma once
// Every received packet goes through one table from (channel, message type)
// to the handler of that message.

#include <cstdint>

#include <enet/enet.h>

#include "app/server.h"

// One received packet from peer on channel. When `received` is given (ENet's
// packet holding those bytes), a handler whose work outlives it (a report
// for the storage worker) may take the packet over instead of copying it,
// leaving null there; whatever is left there stays the caller's to free.
// `now` is the loop's clock (steadyMicros) as the caller last read it: the
// budgets refill by it.
void dispatchPacket(Server& server, ENetPeer* peer, std::uint8_t channel, ByteView packet, std::uint64_t now,
                    ENetPacket** received = nullptr);
