#pragma once
// Counters for operators. The main thread bumps them with relaxed atomic adds
// (no locks on the hot path); the metrics endpoint reads them from its own
// thread. They cost next to nothing when nobody reads them.

#include <array>
#include <atomic>
#include <cstdint>
#include <string>

// Seconds in ten buckets, counted without locks.
struct Histogram {
    std::array<double, 10> bounds;
    std::array<std::atomic<std::uint64_t>, 11> counts{};
    std::atomic<std::uint64_t> sumMicros{0};
    std::atomic<std::uint64_t> count{0};
    void observe(double seconds);
};

// The limits that act on one peer, one address or one report, by the name
// they have in the limits file.
enum class LimitFired : std::size_t {
    overbudgetDisconnect,
    outgoing,
    waitingTotal,
    connectsPerMinute,
    peersPerAddress,
    banned,
    reportsPerDay,
    reportsPerHour,
    resyncPerRoom,
    workerShare,
    replyBytes,
    lobbyChat,
    maxRooms,
    roomsPerMinute,
    downloadStall,
    downloadRequests,
    count
};

struct MetricsCounters {
    static constexpr std::size_t kChannels = 8;  // 0..6 and "other"
    std::array<std::atomic<std::uint64_t>, kChannels> messagesIn{};
    std::array<std::atomic<std::uint64_t>, kChannels> bytesIn{};
    std::array<std::atomic<std::uint64_t>, kChannels> messagesOut{};
    std::array<std::atomic<std::uint64_t>, kChannels> bytesOut{};
    std::atomic<std::uint64_t> malformedDropped{0};
    std::atomic<std::uint64_t> unknownDropped{0};
    // Messages dropped over a peer's budget, by group (lobby, text, orders,
    // reports, events, update).
    std::array<std::atomic<std::uint64_t>, 6> budgetDrops{};
    std::array<std::atomic<std::uint64_t>, static_cast<std::size_t>(LimitFired::count)> limitsFired{};
    std::atomic<std::uint64_t> desyncs{0};
    std::atomic<std::uint64_t> stepsCompleted{0};
    std::atomic<std::uint64_t> loopWakeups{0};
    // Lobby chat lines not sent to a recipient that had too much queued.
    std::atomic<std::uint64_t> chatLinesDropped{0};
    // Matches recorded (--record): whole, their bytes written, and those
    // that stopped short (fell behind, hit their cap, or a write failed).
    std::atomic<std::uint64_t> recordingsWritten{0};
    std::atomic<std::uint64_t> recordingBytes{0};
    std::atomic<std::uint64_t> recordingsLost{0};
    // Players back in their match (--rejoin), rejoins refused, and the
    // stream's bytes sent to rejoined players and spectators.
    std::atomic<std::uint64_t> rejoins{0};
    std::atomic<std::uint64_t> rejoinsRefused{0};
    std::atomic<std::uint64_t> catchUpBytes{0};
    // Published by the main loop from time to time.
    std::atomic<std::uint64_t> peersConnected{0};
    std::atomic<std::uint64_t> rooms{0};
    std::atomic<std::uint64_t> matchesRunning{0};
    std::atomic<std::uint64_t> storagePending{0};
    std::atomic<std::uint64_t> downloadBytesInFlight{0};

    // Step completion: from the first report of a step to its notice.
    Histogram stepCompletion{{0.001, 0.0025, 0.005, 0.01, 0.025, 0.05, 0.1, 0.25, 0.5, 1.0}};
    // The loop's own work in one turn (everything but the wait for traffic):
    // tells a long turn of ours from time the loop did not get the CPU.
    Histogram loopTurn{{0.00005, 0.0001, 0.00025, 0.0005, 0.001, 0.0025, 0.005, 0.01, 0.025, 0.1}};
    // The same turns in CPU time of the loop's thread: a turn long in wall
    // time but short here lost the CPU rather than worked.
    Histogram loopTurnCpu{{0.00005, 0.0001, 0.00025, 0.0005, 0.001, 0.0025, 0.005, 0.01, 0.025, 0.1}};

    std::atomic<std::int64_t> startUnix{0};
    // The main loop's last turn (monotonicMicros) and whether the host listens.
    std::atomic<std::uint64_t> lastTurnMicros{0};
    std::atomic<bool> listening{false};
    // A drain runs: no new games, so the instance is no longer ready.
    std::atomic<bool> draining{false};
};

MetricsCounters& metrics();

inline std::size_t metricsChannel(unsigned channel) { return channel < 7 ? channel : 7; }

inline void countIn(unsigned channel, std::size_t bytes) {
    auto& m = metrics();
    m.messagesIn[metricsChannel(channel)].fetch_add(1, std::memory_order_relaxed);
    m.bytesIn[metricsChannel(channel)].fetch_add(bytes, std::memory_order_relaxed);
}

inline void countOut(unsigned channel, std::size_t bytes, std::size_t recipients) {
    auto& m = metrics();
    m.messagesOut[metricsChannel(channel)].fetch_add(recipients, std::memory_order_relaxed);
    m.bytesOut[metricsChannel(channel)].fetch_add(bytes * recipients, std::memory_order_relaxed);
}

void observeStepCompletion(double seconds);

// Step timing costs a clock read per step, so it runs only while someone
// can read the figures (the metrics endpoint is on).
void enableStepTiming();
bool stepTimingEnabled();
std::uint64_t monotonicMicros();

// The loop can be trusted while it turned within this many microseconds.
inline constexpr std::uint64_t kHealthyTurnAgeMicros = 2'000'000;

// Seconds since the loop last turned, against nowMicros (monotonicMicros).
double loopTurnAgeSeconds(std::uint64_t nowMicros);
// /healthz: 200 "ok" while the loop turned within kHealthyTurnAgeMicros,
// else 503 with the age. /readyz: 200 once the host listens and until a
// drain starts, else 503.
struct HealthAnswer {
    int status;
    std::string body;
};
HealthAnswer loopHealth(std::uint64_t nowMicros);
HealthAnswer readiness();

// The Prometheus text exposition of every counter and the process's own
// figures; uptime against nowUnix, the loop's age against nowMicros.
std::string renderMetrics(std::int64_t nowUnix, std::uint64_t nowMicros);

inline void countLimit(LimitFired which) {
    metrics().limitsFired[static_cast<std::size_t>(which)].fetch_add(1, std::memory_order_relaxed);
}
