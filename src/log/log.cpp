#include "log/log.h"

#include <atomic>
#include <cstdlib>
#include <exception>
#include <cstdio>
#include <deque>
#include <thread>
#include <unistd.h>

#include "platform/clock.h"
#include "platform/console.h"
#include "platform/files.h"

namespace {

struct LogEntry {
    std::string text;
    std::uint16_t consoleAttribute;
};

std::deque<LogEntry> logQueue;
// The queue's size, readable without the lock.
std::atomic<std::size_t> queuedCount{0};
std::atomic<std::uint32_t> logLock{0};
std::string logFilePath;
std::atomic<bool> logRunning{true};
std::thread logWriter;

void acquire() {
    std::uint32_t expected = 0;
    while (!logLock.compare_exchange_weak(expected, 100, std::memory_order_acquire)) {
        expected = 0;
    }
}

void release() { logLock.store(0, std::memory_order_release); }

void writeEntry(const LogEntry& entry) {
    const bool colour = entry.consoleAttribute != 0 && stdoutIsTerminal();
    if (!logFilePath.empty()) {
        if (std::FILE* f = openFileForPath(logFilePath, "a")) {
            std::fputs(": ", f);
            std::fwrite(entry.text.data(), 1, entry.text.size(), f);
            std::fputc('\n', f);
            std::fflush(f);
            std::fclose(f);
        }
    }
    std::string line;
    line.reserve(entry.text.size() + 16);
    if (colour) line += ansiColourStart(entry.consoleAttribute);
    line += ": ";
    line += entry.text;
    if (colour) line += ansiColourEnd();
    line += '\n';
    std::fwrite(line.data(), 1, line.size(), stdout);
    std::fflush(stdout);
}

void drainLogQueue() {
    acquire();
    while (!logQueue.empty()) {
        LogEntry entry = std::move(logQueue.front());
        logQueue.pop_front();
        queuedCount.store(logQueue.size(), std::memory_order_relaxed);
        writeEntry(entry);
    }
    release();
}

void logWriterLoop() {
    // The emptiness test reads the size without the lock; a stale answer only
    // delays the last drain by one round.
    while (logRunning.load() || queuedCount.load(std::memory_order_relaxed) != 0) {
        drainLogQueue();
        sleepMilliseconds(4);
    }
}

}  // namespace

void logMessage(std::string text, std::uint16_t consoleAttribute) {
    acquire();
    logQueue.push_back(LogEntry{std::move(text), consoleAttribute});
    queuedCount.store(logQueue.size(), std::memory_order_relaxed);
    release();
}

void logError(const std::string& text) {
    logMessage("#### ERROR \n" + text + "\n####", kErrorAttribute);
}

void startLog(const std::string& fileName) {
    acquire();
    try {
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
    if (logWriter.joinable()) logWriter.join();
}

std::vector<std::string> takeQueuedLogTexts() {
    std::vector<std::string> texts;
    acquire();
    for (auto& entry : logQueue) texts.push_back(std::move(entry.text));
    logQueue.clear();
    queuedCount.store(0, std::memory_order_relaxed);
    release();
    return texts;
}
