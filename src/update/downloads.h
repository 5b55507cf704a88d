#pragma once
// FileData replies are paced and shared out fairly. ENet cuts a message into
// fragments and queues them all at once, and walks its queues on every
// service, so the bytes handed to it for downloads are bounded: all peers
// together (maxInFlight) and the peers of one address together
// (maxInFlightPerAddress). Within those bounds the peers take turns: each
// peer has its own queue of requests and at most one reply read or in flight
// at a time, and the next read goes to the next peer in turn that may have
// one. The pool bounds what the downloads take from the matches; a reply
// whose peer has taken none of it for parkMicros leaves the pool (it is
// parked; it still counts for its address), so a peer that does not take its
// reply holds that one reply and nothing of anyone else's turn, and a manifest
// request from anyone else goes out within a second. A reply taken again
// counts again. A reply whose peer takes none of it for stallMicros is from a
// peer that has gone or stopped reading: the service reports it, to be cut
// off, which frees its reply.
//
// A file is read only when its reply may go, one read at a time, so the
// service holds at most the bounds plus one file, however many requests
// wait. The bytes of a reply are given back however it ends: acknowledged,
// the peer disconnected, timed out or cut off.

#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>
#include <unordered_map>
#include <vector>

#include "platform/storage.h"
#include "protocol/send.h"
#include "protocol/wire.h"

// Reads the named file's whole FileData message; a problem to log, if any.
using FileReader = Bytes (*)(const std::string& name, std::string& problem);

struct Downloads {
    // 0: no bound.
    std::size_t maxInFlight = 8u * 1024 * 1024;
    std::size_t maxInFlightPerAddress = 16u * 1024 * 1024;
    std::uint64_t parkMicros = 500'000;
    std::uint64_t stallMicros = 20'000'000;
    std::size_t maxWaitingPerPeer = 1024;

    struct Request {
        std::string name;
        // A name that may not be read: answered with length 0 unread.
        bool refused = false;
        FileReader read = nullptr;
    };
    struct Peer {
        PeerRef to;
        std::uint32_t address = 0;
        std::deque<Request> waiting;
        bool reading = false;
        // The reply with the transport: its number and its bytes.
        std::uint64_t reply = 0;
        std::size_t inFlight = 0;
        // What the transport still held for the peer at the last look, and
        // when that last went down.
        std::uint64_t queuedLeft = 0;
        std::uint64_t progressMicros = 0;
        // Out of the pool: nothing of it taken for parkMicros.
        bool parked = false;
    };
    std::unordered_map<ENetPeer*, Peer> peers;
    // Peers with requests waiting, in turn.
    std::deque<ENetPeer*> turns;
    std::unordered_map<std::uint32_t, std::size_t> inFlightByAddress;
    // In the pool (parked replies left out), and parked.
    std::size_t inFlight = 0;
    std::size_t parked = 0;
    bool reading = false;
    std::uint64_t replies = 0;
};

// Queues the request behind the peer's earlier ones and starts what may
// start. False, with nothing queued, when the peer already has
// maxWaitingPerPeer requests waiting.
bool queueFileRequest(Storage& storage, Downloads& downloads, ENetPeer* peer, std::string name, bool refused,
                      FileReader read);
// Starts the next read, if one may start. Cheap when nothing waits.
void pumpDownloads(Storage& storage, Downloads& downloads);
// The peer is gone: its requests are dropped and its reply's bytes given back.
void forgetDownloads(Downloads& downloads, ENetPeer* peer);
// Looks at what each reply's peer has taken since the last look: parks the
// replies idle for parkMicros, takes back into the pool those taken again,
// and returns the peers whose reply has had none of its bytes taken for
// stallMicros (each named once). Walks the transport's queues, so it is
// called a few times a second.
std::vector<ENetPeer*> checkDownloads(Downloads& downloads, std::uint64_t nowMicros);
