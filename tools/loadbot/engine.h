#pragma once
// The simulated clients: one ENet host (one socket) per client, all of them
// served from a few threads through epoll, with arrivals stamped when their
// socket is found readable. A run connects, takes every room through the
// lobby into a running match, plays for the given time, waits for the last
// relays, and disconnects.

#include <atomic>
#include <cstdint>
#include <optional>
#include <string>
#include <sys/types.h>

#include "histogram.h"
#include "procfs.h"
#include "tally.h"

namespace loadbot {

struct Config {
    std::uint32_t rooms = 1;
    std::uint32_t players = 8;
    double rate = 20;     // steps per second
    double seconds = 10;  // of play
    std::uint16_t port = 0;
    std::optional<pid_t> serverPid;
    unsigned threads = 1;
    std::uint32_t padding = 0;  // extra text bytes per order
    double setupSeconds = 30;   // connect and lobby must be done by then
    double drainSeconds = 3;    // after the last send, for the last arrivals
    // Connect rooms × players clients, then hold the connections for the
    // given time without any traffic of our own.
    bool idle = false;
    // Clients outside the rooms that fetch this update file back to back
    // while the orders are being sent.
    std::uint32_t downloaders = 0;
    std::string downloadFile;
    std::string label;
};

struct Result {
    bool setupOk = false;
    std::string setupError;
    std::uint32_t clients = 0;
    double setupSeconds = 0;
    double windowSeconds = 0;   // play start until the last arrival (or the drain time-out)
    double sampledSeconds = 0;  // between the two samples of /proc, over which CPU shares are taken
    std::uint64_t stepsPerPlayer = 0;
    std::uint64_t ordersSent = 0;
    std::uint64_t relaysExpected = 0;
    std::uint64_t noticesExpected = 0;
    Counts relays;
    Counts notices;
    Histogram relayLatency;
    Histogram stepLatency;
    Histogram sendLag;                    // how late against the schedule each step was sent
    std::uint64_t otherMessages[8] = {};  // during play, by channel, outside the order channel
    std::string firstText;                // the first text-channel message seen during play
    std::uint64_t droppedConnections = 0;
    std::uint64_t downloads = 0;
    std::uint64_t failedDownloads = 0;  // an answer that is not the file asked for, or empty
    std::uint64_t downloadedBytes = 0;
    std::uint64_t cleanDisconnects = 0;

    std::optional<ProcessSample> serverStart, serverEnd;
    std::uint64_t serverRssAfterFirstMinuteKib = 0;  // 0 when the play was shorter
    std::uint64_t serverRssMaxAfterFirstMinuteKib = 0;
    std::optional<MachineSample> machineStart, machineEnd;
    double loadbotCpuSeconds = 0;

    std::uint64_t errors() const {
        return relays.errors() + notices.errors() + droppedConnections + failedDownloads + (setupOk ? 0 : 1);
    }
};

// Runs the whole load; stop ends the play early (the rest still happens).
Result runLoad(const Config& config, const std::atomic<bool>& stop);

std::uint64_t monotonicNs();

}  // namespace loadbot
