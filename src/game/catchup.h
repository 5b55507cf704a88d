#pragma once
// A match's stream sent to one peer from the match's recording: to a player
// back after a lost connection, or to a spectator. The stream is read back
// through the storage worker, a run at a time and within the receiver's own
// share of it, and a run goes out only once ENet has sent most of the one
// before: a receiver that reads slowly slows its own stream and nobody
// else's, and no stream is ever held whole in memory.
//
// A stream ends in one of two ways. Caught up, it reaches the end of what is
// recorded, and the match goes on live from there; the caller switches the
// receiver to the live relay in the same turn, so that nothing is sent twice
// or missed. Delayed (a spectator some steps behind), it never goes live:
// it follows the recording as it grows, to the end of the match.

#include <cstdint>
#include <memory>

#include <enet/enet.h>

#include "game/recording.h"
#include "platform/storage.h"
#include "protocol/send.h"

struct CatchUpLimits {
    // Read from disk and not yet handed to ENet, every stream together
    // (catchup_bytes_in_flight): what streams may hold in memory at once.
    std::uint64_t bytesInFlight = 16u * 1024 * 1024;
    // What ENet may still hold for the receiver before its next run is sent
    // (catchup_queue_bytes): a run in the pipe and the next one ready keep a
    // loopback stream at full speed.
    std::uint64_t queueBytes = 256u * 1024;
};

// A run read from disk at a time; a record longer than this (a snapshot in a
// rejoin record) is read whole.
inline constexpr std::size_t kCatchUpRunBytes = 64u * 1024;

struct CatchUps {
    CatchUpLimits limits;
    std::uint64_t inFlight = 0;
};

struct Feed {
    PeerRef to;
    std::uint32_t roomId = 0;
    // The player's slot, or -1 for a spectator.
    std::int32_t slot = -1;
    std::shared_ptr<RecordingFile> file;
    // Where the next record to look at starts in the file.
    std::uint64_t offset = kRecordingPreambleSize;
    // After a snapshot: the orders, completions and checksums of steps up to
    // this one are left out.
    bool fromSnapshot = false;
    std::uint32_t snapshotStep = 0;
    // Sent only this many steps behind the match, and never live.
    std::uint32_t delaySteps = 0;
    // Waiting for a snapshot: nothing is read yet.
    bool held = false;
    // A read is with the worker.
    bool reading = false;
    // Read and not yet sent: whole records from offset on (at most one run),
    // and what they are charged to the streams' bound.
    Bytes ready;
    std::uint64_t charged = 0;
    bool failed = false;
    std::uint64_t sentBytes = 0;
    std::uint64_t startMicros = 0;
};

// What a turn of a stream came to.
enum class FeedTurn {
    streaming,  // more to come
    live,       // everything recorded has been sent: switch the receiver to the live relay now
    ended,      // a delayed stream sent the end of the match
    lost,       // the recording stopped or cannot be read: the stream cannot be whole
};

std::shared_ptr<Feed> beginFeed(const PeerRef& to, std::uint32_t roomId, std::int32_t slot,
                                const std::shared_ptr<RecordingFile>& file, std::uint32_t delaySteps,
                                std::uint64_t nowMicros);
// Sends what is ready and paced, and asks the worker for the next run.
// recording is the match's while it runs (null once it ended); horizon is
// the last step a delayed stream may show (ignored by the others).
FeedTurn turnFeed(Storage& storage, CatchUps& catchUps, const std::shared_ptr<Feed>& feed, const Recording* recording,
                  std::uint32_t horizon);
// Lets go of what the stream holds (its bytes, its claim on the file).
void endFeed(Storage& storage, CatchUps& catchUps, Feed& feed);

// The step a record of the stream belongs to, for the records that have one.
bool recordStep(std::uint8_t type, ByteView payload, std::uint32_t& step);
