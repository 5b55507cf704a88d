#pragma once
// The operator's reports: traffic since start, and the lag scores per room.

#include <cstdint>

#include <enet/enet.h>

#include "lobby/room.h"

// host may be null (no socket): its figures then read as zero.
void printNetworkReport(const ENetHost* host, std::uint32_t bytesReceived);
void printLoadReport(const RoomRegistry& rooms);
