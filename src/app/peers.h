#pragma once
// The registry of connected peers, each with its address record.

#include <enet/enet.h>

#include "admission/peer_record.h"
#include "app/server.h"

bool isRegistered(const Server& server, ENetPeer* peer);
void handleConnect(Server& server, ENetPeer* peer);
// Takes the peer out of its room first.
void handleDisconnect(Server& server, ENetPeer* peer);
// Disconnects at once every peer that went over a limit on what may be
// queued for it: out of its room and the registry first, then ENet's slot
// and queues are freed.
void cutOffPeersOverLimit(Server& server);
// Reads the ban list (by the storage worker once it runs), each problem to
// stderr and the log, then cuts off the registered peers that it bans.
void loadBans(Server& server);
// Disconnects at once every registered peer whose address the ban list
// holds: a ban added by a reload reaches peers connected before it.
void cutOffBannedPeers(Server& server);
// Disconnects the peer at once, as above.
void cutOff(Server& server, ENetPeer* peer);
// When the data peers have sent but ENet has not yet handed over (partial
// packets) passes the limit for all of them together, the peer holding the
// most is cut off, until the rest fits.
void cutOffOverWaitingTotal(Server& server);
