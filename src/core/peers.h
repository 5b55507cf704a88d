#pragma once
// The registry of connected peers, each with its address record.

#include <string>

#include <enet/enet.h>

#include "core/server.h"

PeerInfo makePeerInfo(const ENetAddress& address);
// "a.b.c.d:port"
std::string peerAddressText(const PeerInfo& info);
bool isRegistered(const Server& server, ENetPeer* peer);
// The IPv4 address as ENet keeps it (network byte order in a 32-bit word).
std::uint32_t peerSourceIp(ENetPeer* peer);

void handleConnect(Server& server, ENetPeer* peer);
void handleDisconnect(Server& server, ENetPeer* peer);
