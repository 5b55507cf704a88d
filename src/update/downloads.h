#pragma once
// FileData replies are paced: ENet cuts a message into fragments and queues
// them all at once, and walks its queues on every service, so handing it
// several multi-megabyte files together costs every match on the server.
// Replies wait here, in order per peer, until the bytes ENet holds for all
// downloads together are below kMaxInFlight; one reply may always go when
// nothing is in flight, however large.

#include <cstddef>
#include <deque>

#include "protocol/send.h"
#include "protocol/wire.h"

struct Downloads {
    static constexpr std::size_t kMaxInFlight = 4u * 1024 * 1024;
    struct Waiting {
        PeerRef to;
        Bytes message;
    };
    std::deque<Waiting> waiting;
    std::size_t inFlight = 0;
};

// Queues the reply behind the peer's earlier ones and sends what may go.
void queueFileData(Downloads& downloads, PeerRef to, Bytes message);
// Sends waiting replies while the bound allows; replies to peers that have
// gone are dropped. Cheap when nothing waits.
void pumpDownloads(Downloads& downloads);
