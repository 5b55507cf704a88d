#pragma once
// Life in an Agones fleet (--agones): the game server tells the SDK sidecar
// in its pod, over the sidecar's REST interface on
// localhost:$AGONES_SDK_HTTP_PORT, that it is ready, that its loop still
// turns, how full it is, and when it has finished. One worker thread makes
// the calls from a queue; the loop only posts to it and never waits for the
// sidecar, which may start after the server, answer slowly or fail.

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

struct Server;

struct SidecarCall {
    std::string method;  // POST, PUT or PATCH
    std::string path;
    std::string body;
};

// Where the worker's lines go: handed to the loop, which logs them.
using SidecarReport = std::function<void(std::string line)>;

class SidecarClient {
public:
    SidecarClient(std::string host, std::uint16_t port, SidecarReport report);
    // Abandons what is still queued (after flush, if the caller wants it out).
    ~SidecarClient();
    SidecarClient(const SidecarClient&) = delete;
    SidecarClient& operator=(const SidecarClient&) = delete;

    // Never waits for the sidecar. A call to the method and path of one still
    // queued takes its place (the latest counts, one health ping), so the
    // queue holds at most one call per endpoint however long the sidecar is
    // away.
    void post(SidecarCall call);
    // Waits at most `bound` until every queued call is done; false when some
    // were not.
    bool flush(std::chrono::milliseconds bound);

    // A failed call is tried again after this, doubled per failure up to the
    // longest wait.
    static constexpr std::chrono::milliseconds kFirstRetry{100};
    static constexpr std::chrono::milliseconds kLongestRetry{2000};

private:
    struct Entry {
        SidecarCall call;
        std::uint64_t version = 0;
    };
    enum class Outcome { done, refused, retry };
    void run();
    Outcome send(const SidecarCall& call);

    std::string host_;
    std::uint16_t port_;
    SidecarReport report_;
    std::mutex mutex_;
    std::condition_variable changed_;
    std::deque<Entry> queue_;
    std::uint64_t versions_ = 0;
    bool stopping_ = false;
    // Worker only: the current run of failures, logged once.
    std::uint64_t failuresInRun_ = 0;
    std::thread worker_;
};

// The sidecar's port: $AGONES_SDK_HTTP_PORT, or 9358.
std::uint16_t sidecarPort();

// The Counters the server keeps current, and what they hold.
inline constexpr const char* kPlayersCounter = "players";
inline constexpr const char* kRoomsCounter = "rooms";
// Rooms a full instance holds when every room is full (1024 players in
// rooms of 8); the rooms Counter's capacity, or the number of rooms when
// more rooms of fewer players exist.
inline constexpr std::uint64_t kRoomsCapacity = 128;

// The loop's side: when to ping and what was last said.
struct Agones {
    Agones(std::uint16_t port, std::uint32_t healthSeconds, SidecarReport report);
    std::uint16_t port;
    SidecarClient client;
    std::chrono::microseconds healthEvery;
    std::chrono::steady_clock::time_point nextHealth{};
    std::chrono::steady_clock::time_point nextCounters{};
    std::uint64_t players = UINT64_MAX, rooms = UINT64_MAX;
};

// Once the host listens: Ready and the version label.
void agonesReady(Agones& agones);
// Every turn of the loop: the health ping when due, the Counters when they
// changed, at most once a second. A loop that stops turning stops pinging,
// and Agones replaces the process.
void agonesTurn(Agones& agones, const Server& server, std::chrono::steady_clock::time_point now);
// After the orderly stop (and so after a drain's last match): Shutdown,
// waited for at most a few seconds.
void agonesShutdown(Agones& agones);

// A Counter's update, as the sidecar's REST gateway takes it.
std::string counterBody(std::uint64_t count, std::uint64_t capacity);
