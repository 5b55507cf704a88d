#pragma once
// FileData replies are paced: ENet cuts a message into fragments and queues
// them all at once, and walks its queues on every service, so handing it
// several multi-megabyte files together costs every match on the server.
// Requests wait here, in order, and a file is read only when its reply may
// go: while the bytes ENet holds for all downloads together are below
// maxInFlight (one reply may always go when nothing is in flight, however
// large). So the server holds at most that much file data plus one file,
// however many requests wait.

#include <cstddef>
#include <deque>
#include <string>

#include "platform/storage.h"
#include "protocol/send.h"
#include "protocol/wire.h"

// Reads the named file's whole FileData message; a problem to log, if any.
using FileReader = Bytes (*)(const std::string& name, std::string& problem);

struct Downloads {
    // 0: no bound.
    std::size_t maxInFlight = 4u * 1024 * 1024;
    struct Request {
        PeerRef to;
        std::string name;
        // A name that may not be read: answered with length 0 unread.
        bool refused = false;
        FileReader read = nullptr;
    };
    std::deque<Request> waiting;
    std::size_t inFlight = 0;
    // A file is being read by the storage worker, or has been read and
    // waits for room in flight.
    bool reading = false;
    Bytes ready;
    PeerRef readyFor;
};

// Queues the request behind the earlier ones and starts what may start.
void queueFileRequest(Storage& storage, Downloads& downloads, PeerRef to, std::string name, bool refused,
                      FileReader read);
// Sends the file read last when it fits and starts the next read. Requests
// from peers that have gone are dropped unread. Cheap when nothing waits.
void pumpDownloads(Storage& storage, Downloads& downloads);
