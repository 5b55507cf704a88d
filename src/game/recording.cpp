#include "game/recording.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <system_error>
#include <unistd.h>
#include <utility>
#include <vector>

#include "log/log.h"
#include "log/metrics.h"
#include "platform/clock.h"
#include "platform/files.h"

namespace fs = std::filesystem;

namespace {

std::uint32_t millisSince(const Recording& r) {
    return static_cast<std::uint32_t>((steadyMicros() - r.startMicros) / 1000);
}

// Removes the oldest recordings (by name, which starts with the start time)
// until the directory holds at most maxBytes, the one being begun aside.
void pruneDirectory(const std::string& directory, const std::string& keep, std::uint64_t maxBytes) {
    if (maxBytes == 0) return;
    std::vector<std::pair<std::string, std::uint64_t>> files;
    std::uint64_t total = 0;
    std::error_code ec;
    for (fs::directory_iterator it(directory, ec), end; !ec && it != end; it.increment(ec)) {
        if (!it->is_regular_file(ec) || it->path().extension() != ".rec" || it->path().string() == keep) continue;
        const std::uint64_t size = it->file_size(ec);
        files.emplace_back(it->path().string(), size);
        total += size;
    }
    std::sort(files.begin(), files.end());
    for (const auto& [path, size] : files) {
        if (total <= maxBytes) break;
        if (fs::remove(path, ec)) total -= size;
    }
}

// The worker's side: appends the batch (the file made at the first one).
bool appendBatch(RecordingFile& file, const Bytes& batch) {
    if (file.fd < 0) {
        if (!prepareFilePath(file.path)) return false;
        // Read back too, on this same thread, by the streams that catch up.
        file.fd = ::open(file.path.c_str(), O_RDWR | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
        if (file.fd < 0) return false;
    }
    std::size_t done = 0;
    while (done < batch.size()) {
        const ssize_t n = ::write(file.fd, batch.data() + done, batch.size() - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        done += static_cast<std::size_t>(n);
    }
    return true;
}

// Stops the recording with a last record that says why; it goes past the
// bounds, so that the file always says how it ended.
void stop(Recording& r, const std::string& why) {
    const Bytes payload = Writer().str(why).take();
    const Bytes framed = frameRecord(RecordType::lost, millisSince(r), payload);
    r.pending.insert(r.pending.end(), framed.begin(), framed.end());
    r.bytes += framed.size();
    r.stopped = true;
    metrics().recordingsLost.fetch_add(1, std::memory_order_relaxed);
    logError("|||| Recording of room " + std::to_string(r.roomId) + " stopped: " + why + ". The match goes on");
}

}  // namespace

std::unique_ptr<Recording> beginRecording(Recordings& recordings, const RecordingHeader& header,
                                          std::uint64_t nowMicros) {
    auto r = std::make_unique<Recording>();
    r->limits = recordings.limits;
    r->roomId = header.roomId;
    r->startMicros = nowMicros;
    r->file = std::make_shared<RecordingFile>();
    r->file->directory = recordings.directory;
    r->file->maxDirectoryBytes = recordings.temporary ? 0 : recordings.limits.maxDirectoryBytes;
    r->file->temporary = recordings.temporary;
    recordings.begun += 1;
    r->file->path = recordings.directory + "/" + std::to_string(header.startUnix) + "-" +
                    std::to_string(recordings.begun) + "-room" + std::to_string(header.roomId) + ".rec";
    r->pending = recordingPreamble();
    const Bytes framed = frameRecord(RecordType::header, 0, encodeHeader(header));
    r->pending.insert(r->pending.end(), framed.begin(), framed.end());
    r->bytes = r->pending.size();
    return r;
}

void record(std::unique_ptr<Recording>& recording, RecordType type, ByteView payload) {
    if (!recording || recording->stopped) return;
    Recording& r = *recording;
    const std::size_t size = 13 + payload.size();
    if (r.limits.maxFileBytes != 0 && r.bytes + size > r.limits.maxFileBytes)
        return stop(r, "over recording_max_bytes (" + std::to_string(r.limits.maxFileBytes) + " bytes)");
    if (r.limits.maxPendingBytes != 0 && r.pending.size() + r.file->inWorker + size > r.limits.maxPendingBytes)
        return stop(r, "the disk fell behind (recording_pending_bytes, " +
                               std::to_string(r.limits.maxPendingBytes) + " bytes)");
    const Bytes framed = frameRecord(type, millisSince(r), payload);
    r.pending.insert(r.pending.end(), framed.begin(), framed.end());
    r.bytes += framed.size();
}

void flushRecording(Storage& storage, std::unique_ptr<Recording>& recording) {
    if (!recording || recording->pending.empty()) return;
    Recording& r = *recording;
    std::shared_ptr<RecordingFile> file = r.file;
    if (file->failed) {
        r.pending.clear();
        return;
    }
    Bytes batch = std::exchange(r.pending, {});
    const std::size_t size = batch.size();
    file->inWorker += size;
    storage.submit(
        [file, size, batch = std::move(batch)]() -> Storage::Completion {
            if (!file->pruned) {
                file->pruned = true;
                pruneDirectory(file->directory, file->path, file->maxDirectoryBytes);
            }
            const bool ok = appendBatch(*file, batch);
            return [file, ok, size] {
                file->inWorker -= size;
                if (ok) {
                    file->durable += size;
                    metrics().recordingBytes.fetch_add(size, std::memory_order_relaxed);
                } else if (!file->failed) {
                    file->failed = true;
                    metrics().recordingsLost.fetch_add(1, std::memory_order_relaxed);
                    logError("|||| Recording " + file->path + " could not be written: stopped. The match goes on");
                }
            };
        },
        size);
}

void endRecording(Storage& storage, std::unique_ptr<Recording>& recording, std::uint32_t why,
                  std::uint32_t lastCompletedStep) {
    if (!recording) return;
    Recording& r = *recording;
    if (!r.stopped) {
        const Bytes payload = Writer().u32(why).u32(lastCompletedStep).take();
        const Bytes framed = frameRecord(RecordType::end, millisSince(r), payload);
        r.pending.insert(r.pending.end(), framed.begin(), framed.end());
        r.bytes += framed.size();
    }
    const bool whole = !r.stopped;
    flushRecording(storage, recording);
    std::shared_ptr<RecordingFile> file = r.file;
    file->ended = true;
    const bool remove = file->temporary && file->readers == 0;
    if (file->temporary && !remove) file->removeWhenUnread = true;
    storage.submit([file, remove]() -> Storage::Completion {
        // Synced once, at the end: a crash loses at most the last batches,
        // and the reader stops at the last whole record.
        bool ok = true;
        if (file->fd >= 0) {
            ok = remove || fsync(file->fd) == 0;
            ok = ::close(file->fd) == 0 && ok;
        }
        file->fd = -1;
        if (remove) ::unlink(file->path.c_str());
        return [file, ok] {
            if (!ok && !file->failed) {
                file->failed = true;
                logError("|||| Recording " + file->path + " could not be written whole");
            }
        };
    });
    if (whole) metrics().recordingsWritten.fetch_add(1, std::memory_order_relaxed);
    recording.reset();
}

bool streamIntact(const Recording& recording) { return !recording.stopped && !recording.file->failed; }

void releaseRecordingFile(Storage& storage, const std::shared_ptr<RecordingFile>& file) {
    if (file->readers > 0) --file->readers;
    if (file->readers != 0 || !file->removeWhenUnread) return;
    file->removeWhenUnread = false;
    storage.submit([file]() -> Storage::Completion {
        ::unlink(file->path.c_str());
        return {};
    });
}

Bytes readRecordingFile(RecordingFile& file, std::uint64_t offset, std::size_t size) {
    int fd = file.fd;
    const bool own = fd < 0;
    if (own) fd = ::open(file.path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return {};
    Bytes data(size);
    std::size_t done = 0;
    while (done < size) {
        const ssize_t n = ::pread(fd, data.data() + done, size - done, static_cast<off_t>(offset + done));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        done += static_cast<std::size_t>(n);
    }
    if (own) ::close(fd);
    data.resize(done);
    return data;
}

void clearTemporaryRecordings(Storage& storage, const std::string& directory) {
    storage.submit([directory]() -> Storage::Completion {
        std::error_code ec;
        for (fs::directory_iterator it(directory, ec), end; !ec && it != end; it.increment(ec))
            if (it->path().extension() == ".rec") fs::remove(it->path(), ec);
        return {};
    });
}
