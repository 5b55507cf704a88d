#pragma once
// Checksum comparison, desyncs, resync orders and the evidence files of
// resync reports.

#include <cstdint>
#include <string>

#include <enet/enet.h>

#include "protocol/wire.h"

struct Server;
struct Room;

// A checksum order from peer for step (orders beyond resyncStep never get here).
void handleChecksum(Server& server, ENetPeer* peer, std::uint32_t step, std::uint32_t checksum);
// Logs, tells the players, stops orders beyond the next step and sends the
// resync order.
void declareDesync(Room& room, std::uint32_t step);
// Match control message 8: evidence files, then completion of the resync.
void handleResyncReport(Server& server, ENetPeer* peer, ByteView packet);

// Data root + "server_data/resyncs/room<id>_desync<count>_peer<slot>".
std::string evidenceBaseName(const Room& room, std::size_t slot);
