#pragma once
// The record of a registered peer.

#include <enet/enet.h>

#include "admission/budgets.h"
#include "protocol/send.h"

// What the server keeps of a registered peer, hung on its data field: what
// the senders know of it, and what it and its address may still send. A
// packet reaches all of it through the peer it came from, without a look-up.
struct PeerRecord : PeerInfo {
    PeerBudget budget;
    // The budget its address shares, kept by the server for as long as one
    // of the address's peers is registered.
    AddressBudget* address = nullptr;
};

// The peer's record; null unless it is registered.
inline PeerRecord* recordOf(const ENetPeer* peer) {
    return static_cast<PeerRecord*>(static_cast<PeerInfo*>(peer->data));
}
