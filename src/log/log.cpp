#include "log/log.h"

#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <mutex>
#include <thread>
#include <unistd.h>

#include "platform/clock.h"
#include "platform/console.h"
#include "platform/files.h"

namespace {

struct LogEntry {
    std::string text;
    std::uint16_t consoleAttribute;
    // Written to the console as it stands, and not to the file.
    bool consoleOnly = false;
};

// A writer that cannot keep up (a stalled disk) must not make the queue
// grow without end; lines beyond this are counted and the count is logged.
constexpr std::size_t kQueueLimit = 1 << 16;
// Lines waiting for the console; a console that reads slower than the server
// logs loses lines beyond this, the file keeps them.
constexpr std::size_t kConsoleLimit = 1024;
// The least time between two drains of the writer.
constexpr std::chrono::microseconds kBatchGap{4000};

// The lock guards only the queue's hand-off: callers append, the writer swaps
// the whole queue out. Nobody holds it while writing anything.
std::vector<LogEntry> logQueue;
std::size_t queueDropped = 0;
// The queue's size, readable without the lock.
std::atomic<std::size_t> queuedCount{0};
std::atomic<std::uint32_t> logLock{0};
std::string logFilePath;
std::atomic<bool> logRunning{true};
std::thread logWriter;
// Bumped after every append and at stop; the writer sleeps on it (a futex)
// while the queue is empty, so an idle server's writer never wakes, and a
// bump between its last look and its sleep ends the sleep at once.
std::atomic<std::uint32_t> writerWake{0};

// The console has a thread of its own, so a reader that stops reading (Ctrl+S,
// a full pipe, a stuck journal) blocks only that thread. Its state is never
// freed: at exit the thread may still be blocked in a write.
struct Console {
    std::mutex mutex;
    std::condition_variable wake;
    std::vector<std::string> lines;
    std::size_t dropped = 0;
    bool stopping = false;
    bool finished = false;
    std::thread thread;
};
Console& console = *new Console;

void acquire() {
    std::uint32_t expected = 0;
    while (!logLock.compare_exchange_weak(expected, 100, std::memory_order_acquire)) {
        expected = 0;
    }
}

void release() { logLock.store(0, std::memory_order_release); }

// False when the console is gone (a closed pipe, a hung-up terminal).
bool writeOut(const std::string& bytes) {
    std::size_t done = 0;
    while (done < bytes.size()) {
        ssize_t n = ::write(STDOUT_FILENO, bytes.data() + done, bytes.size() - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        done += static_cast<std::size_t>(n);
    }
    return true;
}

std::string droppedNotice(std::size_t count) {
    return ": " + std::to_string(count) +
           " lines were not shown here: the console could not keep up (server.log has every line)\n";
}

void consoleLoop() {
    std::vector<std::string> batch;
    std::string bytes;
    std::unique_lock lock(console.mutex);
    for (;;) {
        console.wake.wait(lock, [] { return !console.lines.empty() || console.stopping; });
        if (console.lines.empty()) break;
        batch.swap(console.lines);
        lock.unlock();
        bytes.clear();
        for (const auto& line : batch) bytes += line;
        batch.clear();
        writeOut(bytes);
        lock.lock();
        if (console.lines.empty() && console.dropped != 0) {
            std::string notice = droppedNotice(console.dropped);
            console.dropped = 0;
            lock.unlock();
            writeOut(notice);
            lock.lock();
        }
    }
    console.finished = true;
    console.wake.notify_all();
}

std::string consoleLine(const LogEntry& entry) {
    if (entry.consoleOnly) return entry.text;
    const bool colour = entry.consoleAttribute != 0 && stdoutIsTerminal();
    std::string line;
    line.reserve(entry.text.size() + 16);
    if (colour) line += ansiColourStart(entry.consoleAttribute);
    line += ": ";
    line += entry.text;
    if (colour) line += ansiColourEnd();
    line += '\n';
    return line;
}

void toConsole(const std::vector<LogEntry>& batch) {
    {
        std::lock_guard lock(console.mutex);
        for (const auto& entry : batch) {
            if (console.lines.size() < kConsoleLimit)
                console.lines.push_back(consoleLine(entry));
            else
                ++console.dropped;
        }
    }
    console.wake.notify_one();
}

void toFile(const std::vector<LogEntry>& batch) {
    if (logFilePath.empty()) return;
    // Opened for each batch, so the file may be moved or removed while the
    // server runs: the next batch creates it again.
    if (std::FILE* f = openFileForPath(logFilePath, "a")) {
        for (const auto& entry : batch) {
            if (entry.consoleOnly) continue;
            std::fputs(": ", f);
            std::fwrite(entry.text.data(), 1, entry.text.size(), f);
            std::fputc('\n', f);
        }
        std::fflush(f);
        std::fclose(f);
    }
}

void drainLogQueue(std::vector<LogEntry>& batch) {
    acquire();
    batch.swap(logQueue);
    std::size_t dropped = queueDropped;
    queueDropped = 0;
    queuedCount.store(0, std::memory_order_relaxed);
    release();
    if (dropped != 0)
        batch.push_back(LogEntry{std::to_string(dropped) + " log lines were lost: the log writer could not keep up", 0});
    if (batch.empty()) return;
    toFile(batch);
    toConsole(batch);
    batch.clear();
}

void logWriterLoop() {
    // The path is set under the lock that startLog holds while this starts.
    acquire();
    release();
    std::vector<LogEntry> batch;
    for (;;) {
        const std::uint32_t seen = writerWake.load(std::memory_order_acquire);
        drainLogQueue(batch);
        const auto drained = std::chrono::steady_clock::now();
        // Whatever was queued before the stop is written before the thread
        // ends: the stop bumps the counter after its store, so the drain
        // above or the next round sees every line queued ahead of it.
        if (!logRunning.load() && queuedCount.load(std::memory_order_acquire) == 0) break;
        if (queuedCount.load(std::memory_order_acquire) == 0) writerWake.wait(seen, std::memory_order_acquire);
        // A lone line is written at once; a burst (a flood of connects, a
        // churn of rooms) is written a batch per kBatchGap at most, one
        // open of the file each, as when the writer polled.
        if (logRunning.load()) std::this_thread::sleep_until(drained + kBatchGap);
    }
}

void wakeWriter() {
    writerWake.fetch_add(1, std::memory_order_release);
    writerWake.notify_one();
}

}  // namespace

namespace {
void enqueue(LogEntry entry) {
    acquire();
    if (logQueue.size() < kQueueLimit)
        logQueue.push_back(std::move(entry));
    else
        ++queueDropped;
    queuedCount.store(logQueue.size() + queueDropped, std::memory_order_relaxed);
    release();
    wakeWriter();
}
}  // namespace

void logMessage(std::string text, std::uint16_t consoleAttribute) { enqueue(LogEntry{std::move(text), consoleAttribute}); }

void printToConsole(std::string text) { enqueue(LogEntry{std::move(text), 0, true}); }

std::string printable(std::string_view clientBytes) {
    static const char hex[] = "0123456789abcdef";
    std::string out;
    out.reserve(clientBytes.size());
    for (char c : clientBytes) {
        auto byte = static_cast<unsigned char>(c);
        if (byte < 0x20 || byte == 0x7F) {
            out += "\\x";
            out += hex[byte >> 4];
            out += hex[byte & 0xF];
        } else {
            out += c;
        }
    }
    return out;
}

void logError(const std::string& text) {
    logMessage("#### ERROR \n" + text + "\n####", kErrorAttribute);
}

void startLog(const std::string& fileName) {
    acquire();
    try {
        console.thread = std::thread(consoleLoop);
        logWriter = std::thread(logWriterLoop);
    } catch (const std::exception& e) {
        release();
        std::fprintf(stderr, "cannot start the log writer: %s\n", e.what());
        std::exit(1);
    }
    logFilePath = dataRootPrefix() + fileName;
    if (std::FILE* f = openFileForPath(logFilePath, "w")) std::fclose(f);
    release();
    logMessage("## Starting log");
}

void stopLog() {
    logRunning.store(false);
    wakeWriter();
    if (logWriter.joinable()) logWriter.join();
    if (!console.thread.joinable()) return;
    // The console gets a moment to show the last lines; a reader that has
    // stopped reading does not hold up the exit.
    std::unique_lock lock(console.mutex);
    console.stopping = true;
    console.wake.notify_all();
    if (console.wake.wait_for(lock, std::chrono::seconds(1), [] { return console.finished; })) {
        lock.unlock();
        console.thread.join();
    } else {
        console.thread.detach();
    }
}

std::vector<std::string> takeQueuedLogTexts() {
    std::vector<std::string> texts;
    acquire();
    for (auto& entry : logQueue)
        if (!entry.consoleOnly) texts.push_back(std::move(entry.text));
    logQueue.clear();
    queueDropped = 0;
    queuedCount.store(0, std::memory_order_relaxed);
    release();
    return texts;
}
