#include "game/catchup.h"

#include <algorithm>
#include <utility>

#include "log/metrics.h"
#include "protocol/messages.h"

namespace {

std::uint32_t u32At(const std::uint8_t* p) {
    return static_cast<std::uint32_t>(p[0]) | static_cast<std::uint32_t>(p[1]) << 8 |
           static_cast<std::uint32_t>(p[2]) << 16 | static_cast<std::uint32_t>(p[3]) << 24;
}

// The records before a snapshot's step that its state already holds.
bool inSnapshot(const Feed& feed, std::uint8_t type, ByteView payload) {
    if (!feed.fromSnapshot) return false;
    const auto t = static_cast<RecordType>(type);
    if (t != RecordType::order && t != RecordType::stepCompleted && t != RecordType::checksum) return false;
    std::uint32_t step = 0;
    return recordStep(type, payload, step) && step <= feed.snapshotStep;
}

void send(ENetPeer* peer, Feed& feed, const Bytes& records) {
    if (records.empty()) return;
    CatchUp run;
    run.records = records;
    sendBytes(peer, kLobbyChannel, encode(run));
    feed.sentBytes += records.size();
    metrics().catchUpBytes.fetch_add(records.size(), std::memory_order_relaxed);
}

// What one pass over whole records came to.
struct Pass {
    std::size_t consumed = 0;  // bytes of whole records looked at
    std::size_t needed = 0;    // the first record is not whole: its full length
    bool blocked = false;      // stopped at a record past the horizon
};

// Sends, as one run, the records at the start of bytes that the stream
// shows, up to a run's worth; stops at a record past the horizon.
Pass sendRecords(ENetPeer* peer, Feed& feed, ByteView bytes, std::int64_t horizon) {
    Pass pass;
    Bytes out;
    while (out.size() < kCatchUpRunBytes) {
        const ByteView rest = bytes.subspan(pass.consumed);
        if (rest.size() < 4) {
            if (pass.consumed == 0) pass.needed = kRecordFrameSize;
            break;
        }
        const std::size_t whole = kRecordFrameSize + u32At(rest.data());
        if (rest.size() < whole) {
            if (pass.consumed == 0) pass.needed = whole;
            break;
        }
        const std::uint8_t type = rest[4];
        const ByteView payload = rest.subspan(kRecordPayloadOffset, whole - kRecordFrameSize);
        std::uint32_t step = 0;
        if (feed.delaySteps != 0 && recordStep(type, payload, step) && static_cast<std::int64_t>(step) > horizon) {
            pass.blocked = true;
            break;
        }
        if (!inSnapshot(feed, type, payload)) out.insert(out.end(), rest.begin(), rest.begin() + whole);
        pass.consumed += whole;
    }
    send(peer, feed, out);
    return pass;
}

void uncharge(CatchUps& catchUps, Feed& feed) {
    catchUps.inFlight -= std::min(catchUps.inFlight, feed.charged);
    feed.charged = 0;
    feed.ready.clear();
    feed.ready.shrink_to_fit();
}

}  // namespace

bool recordStep(std::uint8_t type, ByteView payload, std::uint32_t& step) {
    switch (static_cast<RecordType>(type)) {
        case RecordType::order:
        case RecordType::stepCompleted:
        case RecordType::checksum:
        case RecordType::desync:
        case RecordType::delay:
            if (payload.size() < 4) return false;
            step = u32At(payload.data());
            return true;
        default:
            return false;
    }
}

std::shared_ptr<Feed> beginFeed(const PeerRef& to, std::uint32_t roomId, std::int32_t slot,
                                const std::shared_ptr<RecordingFile>& file, std::uint32_t delaySteps,
                                std::uint64_t nowMicros) {
    auto feed = std::make_shared<Feed>();
    feed->to = to;
    feed->roomId = roomId;
    feed->slot = slot;
    feed->file = file;
    feed->delaySteps = delaySteps;
    feed->startMicros = nowMicros;
    file->readers += 1;
    return feed;
}

void endFeed(Storage& storage, CatchUps& catchUps, Feed& feed) {
    uncharge(catchUps, feed);
    feed.failed = true;  // a read still with the worker is thrown away
    if (feed.file) releaseRecordingFile(storage, feed.file);
    feed.file.reset();
}

FeedTurn turnFeed(Storage& storage, CatchUps& catchUps, const std::shared_ptr<Feed>& shared,
                  const Recording* recording, std::uint32_t horizonStep) {
    Feed& feed = *shared;
    if (feed.failed || !feed.file) return FeedTurn::lost;
    ENetPeer* peer = stillConnected(feed.to);
    if (peer == nullptr || feed.held || feed.reading) return FeedTurn::streaming;
    RecordingFile& file = *feed.file;
    if (file.failed) return FeedTurn::lost;
    // A delayed stream shows steps up to the horizon while the match runs,
    // and everything once it is over.
    const std::int64_t horizon = recording == nullptr ? INT64_MAX
                                 : feed.delaySteps == 0 ? INT64_MAX
                                                        : static_cast<std::int64_t>(horizonStep) -
                                                              static_cast<std::int64_t>(feed.delaySteps);

    std::size_t needed = 0;
    while (!feed.ready.empty()) {
        // Paced by the receiver: the next run waits until ENet has sent most
        // of the last.
        if (holdsMoreThan(peer, catchUps.limits.queueBytes)) return FeedTurn::streaming;
        const Pass pass = sendRecords(peer, feed, feed.ready, horizon);
        feed.offset += pass.consumed;
        feed.ready.erase(feed.ready.begin(), feed.ready.begin() + static_cast<std::ptrdiff_t>(pass.consumed));
        if (pass.blocked) return FeedTurn::streaming;
        if (pass.consumed == 0) {
            // What is left is the start of a record the next read takes whole.
            needed = pass.needed;
            uncharge(catchUps, feed);
        }
    }
    if (feed.charged != 0) uncharge(catchUps, feed);

    if (feed.offset < file.durable) {
        const std::uint64_t left = file.durable - feed.offset;
        const std::size_t size = static_cast<std::size_t>(std::min<std::uint64_t>(std::max(kCatchUpRunBytes, needed), left));
        // The bound holds for all streams together; one stream alone always
        // gets its run, so that a record larger than the bound still goes.
        if (catchUps.inFlight != 0 && catchUps.inFlight + size > catchUps.limits.bytesInFlight) return FeedTurn::streaming;
        std::shared_ptr<RecordingFile> source = feed.file;
        const std::uint64_t offset = feed.offset;
        // Marked before the job goes: a worker that is not running does it
        // at once, completion included.
        feed.reading = true;
        feed.charged = size;
        catchUps.inFlight += size;
        const bool taken = storage.submit(
            [shared, source, offset, size]() -> Storage::Completion {
                Bytes data = readRecordingFile(*source, offset, size);
                return [shared, data = std::move(data)]() mutable {
                    Feed& f = *shared;
                    f.reading = false;
                    if (f.failed) return;
                    if (data.empty()) f.failed = true;
                    f.ready = std::move(data);
                };
            },
            size, feed.to.connection);
        if (!taken) {
            // The receiver's share of the worker is taken: next turn.
            feed.reading = false;
            uncharge(catchUps, feed);
        }
        return FeedTurn::streaming;
    }

    if (recording == nullptr) {
        // The match is over: everything it recorded is sent once the last
        // batches are on disk.
        return file.ended && file.inWorker == 0 ? FeedTurn::ended : FeedTurn::streaming;
    }
    if (!streamIntact(*recording)) return FeedTurn::lost;
    if (feed.delaySteps != 0 || file.inWorker != 0) return FeedTurn::streaming;
    // Everything on disk is sent; the rest is the recording's pending bytes,
    // the last tenth of a second or so, sent now in the same turn as the
    // switch to the live relay.
    const std::uint64_t pendingStart = recording->bytes - recording->pending.size();
    const ByteView tail = ByteView(recording->pending)
                              .subspan(static_cast<std::size_t>(feed.offset > pendingStart ? feed.offset - pendingStart : 0));
    // Paced as a run is: it waits until ENet has sent most of what went
    // before, and a tail longer than a run (a match busier than any real
    // one, or a flush still to come) is read from disk after the next flush.
    if (tail.size() > kCatchUpRunBytes || holdsMoreThan(peer, catchUps.limits.queueBytes)) return FeedTurn::streaming;
    for (std::size_t at = 0; at < tail.size();) {
        const Pass pass = sendRecords(peer, feed, tail.subspan(at), INT64_MAX);
        if (pass.consumed == 0) break;
        at += pass.consumed;
    }
    return FeedTurn::live;
}
