#pragma once
// The registry of connected peers, each with its address record.

#include <enet/enet.h>

#include "app/server.h"

bool isRegistered(const Server& server, ENetPeer* peer);
void handleConnect(Server& server, ENetPeer* peer);
// Takes the peer out of its room first.
void handleDisconnect(Server& server, ENetPeer* peer);
