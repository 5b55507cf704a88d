#pragma once
// A match written down as it is played: every relayed order with its sender
// and step, step completions, delay changes, checksums, desyncs, players
// leaving and the end, in the order the server handled them.
//
// Records gather in the match's pending bytes; the loop hands them to the
// storage worker in batches (about ten times a second), as the server's own
// work, and nothing waits for the disk. What one recording holds in memory,
// pending or with the worker, is bounded: a recording that falls that far
// behind stops, with a last record and one log line that say so, and the
// match goes on. The relay never waits for, or depends on, its recording.

#include <cstdint>
#include <memory>
#include <string>

#include "platform/storage.h"
#include "protocol/recording.h"

struct RecordingLimits {
    // One recording's file (recording_max_bytes): a match of eight players
    // for hours is far below; past it the recording stops, marked.
    std::uint64_t maxFileBytes = 256ull * 1024 * 1024;
    // The recordings directory (recordings_max_bytes): the oldest go first.
    std::uint64_t maxDirectoryBytes = 8ull * 1024 * 1024 * 1024;
    // Bytes of one recording pending or with the worker
    // (recording_pending_bytes): a disk this far behind loses the recording.
    std::uint64_t maxPendingBytes = 8ull * 1024 * 1024;
};

// Where the server's recordings go; an empty directory records nothing.
struct Recordings {
    std::string directory;
    // Kept only while their match runs (and while a spectator still reads
    // one): the recordings that rejoin and spectators need when the
    // operator asked for none.
    bool temporary = false;
    RecordingLimits limits;
    std::string serverVersion;
    // Recordings begun, for their file names.
    std::uint64_t begun = 0;
};

// What the worker's jobs of one recording share with the loop.
struct RecordingFile {
    std::string path;
    std::string directory;
    std::uint64_t maxDirectoryBytes = 0;
    int fd = -1;  // the worker's only
    bool pruned = false;
    // Handed to the worker and not yet written (the loop's only).
    std::uint64_t inWorker = 0;
    // Written, as far as the loop knows: what a reader may ask the worker for
    // (the loop's only).
    std::uint64_t durable = 0;
    bool failed = false;
    // The end record is among the bytes handed over, and nothing follows it.
    bool ended = false;
    bool temporary = false;
    // Streams still reading the file (the loop's only): a temporary file
    // ended while one does is removed when the last one lets go.
    std::uint32_t readers = 0;
    bool removeWhenUnread = false;
};

struct Recording {
    std::shared_ptr<RecordingFile> file;
    RecordingLimits limits;
    std::uint32_t roomId = 0;
    Bytes pending;
    std::uint64_t startMicros = 0;
    // Framed so far, pending included.
    std::uint64_t bytes = 0;
    bool stopped = false;
};

// The recording of a match that has just started: its header is the first
// record. Nothing is written until the first flush.
std::unique_ptr<Recording> beginRecording(Recordings& recordings, const RecordingHeader& header,
                                          std::uint64_t nowMicros);
// Appends a record when the match is recorded (recording is not null);
// stops the recording, marked, when it would go over its bounds.
void record(std::unique_ptr<Recording>& recording, RecordType type, ByteView payload);
// Hands the pending records to the storage worker.
void flushRecording(Storage& storage, std::unique_ptr<Recording>& recording);
// Whether the stream of the match can still be read whole from its recording.
bool streamIntact(const Recording& recording);
// A reader of the file lets go of it (a temporary one may go with it).
void releaseRecordingFile(Storage& storage, const std::shared_ptr<RecordingFile>& file);
// Worker side: up to size bytes of the file from offset (fewer at its end);
// empty when it cannot be read.
Bytes readRecordingFile(RecordingFile& file, std::uint64_t offset, std::size_t size);
// Removes the temporary recordings a stopped server left behind.
void clearTemporaryRecordings(Storage& storage, const std::string& directory);
// The end record (why: 0 every player gone, 1 the server stopped), the last
// flush and the file closed; the match keeps no recording after it.
void endRecording(Storage& storage, std::unique_ptr<Recording>& recording, std::uint32_t why,
                  std::uint32_t lastCompletedStep);
