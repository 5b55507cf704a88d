// Entry point: data root, log, ENet, the generator and the Server, then the
// main loop until SIGINT or SIGTERM, then the orderly shutdown.

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <string>
#include <unistd.h>
#include <type_traits>
#include <vector>

#include <enet/enet.h>

#include "app/agones.h"
#include "app/drain.h"
#include "app/options.h"
#include "app/pacing.h"
#include "app/peers.h"
#include "app/server.h"
#include "app/service.h"
#include "lobby/lobby.h"
#include "log/log.h"
#include "log/metrics.h"
#include "platform/clock.h"
#include "platform/console.h"
#include "platform/metrics_http.h"
#include "platform/notify.h"
#include "platform/process.h"
#include "platform/signals.h"
#include "platform/wakeup.h"
#include "protocol/messages.h"
#include "platform/files.h"
#include "stats/events.h"
#include "stats/netreport.h"

namespace {

void handleKey(Server& server, int key) {
    switch (key) {
        case 'r':
            printNetworkReport(server.host, server.bytesReceived);
            break;
        case 't':
            printLoadReport(server.rooms);
            break;
        case 'd':
            dumpEvents(server.storage, server.events, server.statistics, "keypress_dump");
            break;
        case kDrainKey:
            if (server.drain.seconds != 0) drainRequested = 1;
            break;
        case 'b': {
            std::uint64_t refused = 0;
            for (LimitFired l : {LimitFired::banned, LimitFired::peersPerAddress, LimitFired::connectsPerMinute})
                refused += metrics().limitsFired[static_cast<std::size_t>(l)].load(std::memory_order_relaxed);
            logMessage("Bans: " + std::to_string(server.connections.bans.entries) + " entries; " +
                       std::to_string(refused) + " connects refused since the start");
            break;
        }
        default:
            break;
    }
}

// Gauges for the metrics endpoint and the service manager's status line.
void publishStatus(Server& server, bool notify) {
    std::uint64_t running = 0;
    for (const auto& [id, room] : server.rooms.byId) running += room->running;
    auto& m = metrics();
    m.peersConnected.store(server.peers.size(), std::memory_order_relaxed);
    m.rooms.store(server.rooms.byId.size(), std::memory_order_relaxed);
    m.matchesRunning.store(running, std::memory_order_relaxed);
    m.downloadBytesInFlight.store(server.downloads.inFlight, std::memory_order_relaxed);
    if (notify)
        notifyStatus(std::to_string(server.peers.size()) + " peers, " + std::to_string(server.rooms.byId.size()) +
                     " rooms, " + std::to_string(running) + " matches running");
}

// Instead of sleeping blindly, wait on the host's socket for at most the
// interval: a packet that arrives during the wait is served at once rather
// than after the rest of the sleep. Signals, finished disk jobs and work
// posted by other threads end the wait too, through the inbox's eventfd.
void waitForTraffic(Server& server, std::uint64_t intervalMs, int keysFd = -1) {
    if (server.host == nullptr) {
        sleepMilliseconds(static_cast<std::uint32_t>(intervalMs));
        return;
    }
    if (server.receiveStamps) server.receiveStamps->mark(TurnMark::waitBegin, static_cast<std::uint32_t>(intervalMs));
    if (!waitForSocketOrWakeup(static_cast<int>(server.host->socket), server.inbox.wakeup(),
                               static_cast<int>(intervalMs), keysFd))
        sleepMilliseconds(static_cast<std::uint32_t>(intervalMs));
    if (server.receiveStamps) server.receiveStamps->mark(TurnMark::waitEnd);
}

// Nothing but a packet, a key, a post or the clock can give the loop work:
// no peer in any state (ENet keeps timers for a handshake or a goodbye), no
// room, no drain. A finished disk job wakes the loop itself, as a post does.
bool quiet(const Server& server) {
    if (server.host == nullptr || server.eventsLeft || !server.peers.empty() || !server.rooms.byId.empty() ||
        server.drain.active || drainRequested)
        return false;
    for (std::size_t i = 0; i < server.host->peerCount; ++i)
        if (server.host->peers[i].state != ENET_PEER_STATE_DISCONNECTED) return false;
    return true;
}

// Milliseconds from now to a deadline, rounded up; 0 once it has passed.
std::uint64_t millisUntil(std::chrono::steady_clock::time_point now, std::chrono::steady_clock::time_point at) {
    if (at <= now) return 0;
    return static_cast<std::uint64_t>(std::chrono::ceil<std::chrono::milliseconds>(at - now).count());
}

// To the next whole minute of the wall clock, where the periodic dump's
// latch may change; every time zone in use moves minutes together.
std::uint64_t millisToNextMinute() {
    const std::int64_t ms = static_cast<std::int64_t>(
        std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::system_clock::now().time_since_epoch())
            .count());
    return static_cast<std::uint64_t>(60'000 - ms % 60'000);
}

// The endpoint's bounds are read once, before it starts; problems in the
// file are reported when the server loads it a moment later.
MetricsEndpointLimits metricsEndpointLimits(const std::string& file) {
    std::string text;
    std::vector<std::string> later;
    readSmallTextFile(file, 1024 * 1024, text);
    const Limits l = parseLimits(text, file, later);
    MetricsEndpointLimits m;
    auto set = [](auto& field, std::uint64_t value) {
        if (value != 0) field = static_cast<std::remove_reference_t<decltype(field)>>(value);
    };
    set(m.workers, l.metricsWorkers);
    set(m.waiting, l.metricsWaitingConnections);
    set(m.requestBytes, l.metricsRequestBytes);
    if (l.metricsTimeoutSeconds != 0)
        m.readTimeout = m.writeTimeout = m.keepAlive = std::chrono::seconds(l.metricsTimeoutSeconds);
    if (l.metricsRequestSeconds != 0) m.requestTime = std::chrono::seconds(l.metricsRequestSeconds);
    set(m.requestsPerConnection, l.metricsRequestsPerConnection);
    return m;
}

// --data-root: the directory is the data root, so it gets the tree the
// server expects.
bool enterDataRoot(const std::string& dir) {
    if (chdir(dir.c_str()) != 0) {
        std::fprintf(stderr, "lockstep-server: cannot enter data root %s\n", dir.c_str());
        return false;
    }
    std::error_code ec;
    std::filesystem::create_directories("server_data/update_data", ec);
    std::filesystem::create_directories("server_data/announcements", ec);
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    installStopSignals();
    keepLargeBlocksInHeap();
    // Before anything opens a file, so none of them is refused for want of
    // a descriptor the hard limit allows.
    if (!raiseOpenFileLimit())
        std::fprintf(stderr, "lockstep-server: warning: cannot raise the open file limit to its hard limit\n");

    Options options;
    if (int status = parseOptions(argc, argv, options); status >= 0) return status;
    if (options.dataRoot && !enterDataRoot(*options.dataRoot)) return 2;
    metrics().startUnix.store(unixNow());

    std::string rootError;
    if (!chooseDataRoot(rootError)) {
        std::fprintf(stderr, "lockstep-server: %s\n", rootError.c_str());
        return 1;
    }
    if (dataRootPrefix() == "../")
        std::fprintf(stderr, "lockstep-server: warning: no server_data/ here; the data root is the parent directory\n");
    const std::string limitsFile = options.limitsFile ? *options.limitsFile : dataRootPrefix() + "settings/limits.conf";
    if (options.metricsHost) {
        std::string error;
        auto health = [](HealthAnswer (*check)()) {
            return [check] {
                HealthAnswer a = check();
                return HttpAnswer{a.status, std::move(a.body)};
            };
        };
        std::vector<HttpRoute> routes{
            {"/metrics", [] { return HttpAnswer{200, renderMetrics(unixNow(), monotonicMicros()), "text/plain; version=0.0.4"}; }},
            {"/healthz", health([] { return loopHealth(monotonicMicros()); })},
            {"/readyz", health(readiness)},
        };
        if (!startMetricsEndpoint(*options.metricsHost, options.metricsPort, std::move(routes), error,
                                  metricsEndpointLimits(limitsFile))) {
            std::fprintf(stderr, "lockstep-server: %s\n", error.c_str());
            return 2;
        }
        enableStepTiming();
    }
    startLog("server.log");
    logMessage("path: " + dataRootPrefix());

    if (enet_initialize() != 0) {
        logError("An error occurred while initializing ENet");
        stopLog();
        return 1;
    }
    logMessage("Enet initialized\n");
    resetGlobalGenerator();

    auto server = std::make_unique<Server>();
    server->limitsFile = limitsFile;
    server->limitsFileNamed = options.limitsFile.has_value();
    if (options.recordDirectory) server->recordings.directory = *options.recordDirectory;
    if (options.privateRooms) server->features |= kFeaturePrivateRooms;
    if (options.rejoinSeconds != 0) server->features |= kFeatureRejoin | kFeatureSnapshots;
    if (options.spectators != 0) server->features |= kFeatureSpectate;
    server->rooms.access.awayMicros = std::uint64_t{options.rejoinSeconds} * 1'000'000;
    server->rooms.access.spectatorsPerRoom = options.spectators;
    server->rooms.access.spectatorDelaySteps = options.spectatorDelaySteps;
    // Rejoin and spectators read the match back from its recording: without
    // --record, matches are recorded anyway, in a directory of the server's
    // own, and each file goes when its match ends.
    const bool streams = options.rejoinSeconds != 0 || options.spectators != 0;
    if (streams && !options.recordDirectory) {
        server->recordings.directory = dataRootPrefix() + "server_data/streams";
        server->recordings.temporary = true;
    }
    server->drain.seconds = options.drainSeconds;
    if (options.drainSeconds != 0) drainOnTerminate();
    if (!startServer(*server)) {
        // Every thread is stopped and joined before the process ends, so
        // the exit status is the 1 of a failed start, not an abort.
        server.reset();
        enet_deinitialize();
        stopLog();
        stopMetricsEndpoint();
        return 1;
    }
    loadLimits(*server);
    loadBans(*server);
    if (options.receiveLatency) {
        server->receiveStamps = std::make_unique<ReceiveStamps>(kOrderChannel);
        server->receiveStamps->install(server->host);
    }
    server->storage.onDone = [&inbox = server->inbox] { inbox.wakeup().signal(); };
    server->storage.start();
    if (server->recordings.temporary) clearTemporaryRecordings(server->storage, server->recordings.directory);
    wakeOnSignals(server->inbox.wakeup().fd());
    beginConsoleKeys();
    notifyReady();
    metrics().listening.store(true);
    std::unique_ptr<Agones> agones;
    if (options.agones) {
        // The worker's lines are logged by the loop, in order with its own.
        agones = std::make_unique<Agones>(sidecarPort(), options.agonesHealthSeconds,
                                          [&inbox = server->inbox](std::string line) {
                                              inbox.post([line = std::move(line)] { logMessage(line); });
                                          });
        agonesReady(*agones);
    }
    // Pinged at a third of the service manager's time-out, so one late turn
    // is no restart.
    const std::chrono::microseconds watchdogEvery{watchdogTimeoutMicros() / 3};

    using Steady = std::chrono::steady_clock;
    auto nextPublish = Steady::now();
    auto nextKeyRead = Steady::now();
    auto nextWatchdog = Steady::now();
    unsigned publishes = 0;
    Pacing pacing;
    // The other threads are started: only the loop asks.
    if (options.loopSliceMicros != 0 && !requestSchedulerSlice(options.loopSliceMicros))
        std::fprintf(stderr, "lockstep-server: the kernel refused --loop-slice\n");
    while (!quitRequested) {
        metrics().loopWakeups.fetch_add(1, std::memory_order_relaxed);
        const std::uint64_t turnStart = monotonicMicros();
        const std::uint64_t turnCpuStart = stepTimingEnabled() ? threadCpuMicros() : 0;
        metrics().lastTurnMicros.store(turnStart, std::memory_order_relaxed);
        bool active = serviceStep(*server);
        if (std::uint32_t logged = advancePacing(pacing, active))
            logMessage(" - Interval changed to " + std::to_string(logged));
        // Keys once per 2 ms at most: the loop wakes for every packet under
        // load, and a poll of standard input per packet would be wasted.
        if (Steady::now() >= nextKeyRead) {
            int key = readConsoleKey();
            if (key >= 0) handleKey(*server, key);
            nextKeyRead = Steady::now() + std::chrono::milliseconds(kActiveInterval);
        }
        if (dumpRequested) {
            dumpRequested = 0;
            handleKey(*server, 'd');
        }
        if (reloadRequested) {
            reloadRequested = 0;
            // The writer opens the log file by its path for every batch, so
            // a file moved away by logrotate is already replaced.
            logMessage("SIGHUP: the log file is reopened at its path; reloading the limits from " +
                       server->limitsFile + ", the bans from " + server->bansFile + " and the announcements");
            loadLimits(*server);
            loadBans(*server);
            forgetAnnouncements(server->announcements);
        }
        if (reportRequested) {
            reportRequested = 0;
            handleKey(*server, 'r');
            handleKey(*server, 't');
        }
        if (agones) agonesTurn(*agones, *server, Steady::now());
        if (drainRequested && !server->drain.active) startDrain(*server, steadyMicros());
        if (drainFinished(*server, steadyMicros())) break;
        if (Steady::now() >= nextPublish) {
            publishStatus(*server, publishes++ % 5 == 0);
            metrics().storagePending.store(server->storage.pending(), std::memory_order_relaxed);
            nextPublish = Steady::now() + std::chrono::seconds(1);
        }
        if (watchdogEvery.count() != 0 && Steady::now() >= nextWatchdog) {
            notifyWatchdog();
            nextWatchdog = Steady::now() + watchdogEvery;
        }
        if (stepTimingEnabled()) {
            metrics().loopTurn.observe(static_cast<double>(monotonicMicros() - turnStart) / 1e6);
            metrics().loopTurnCpu.observe(static_cast<double>(threadCpuMicros() - turnCpuStart) / 1e6);
        }
        if (server->eventsLeft) continue;
        if (!active && quiet(*server)) {
            // The next turn that has anything to do: the status and health
            // publication (which keeps /healthz fresh), the watchdog, the
            // fleet's health call, the dump latch. Traffic ends the wait
            // sooner, as always.
            const auto now = Steady::now();
            std::uint64_t budget = std::min(millisUntil(now, nextPublish), millisToNextMinute());
            if (watchdogEvery.count() != 0) budget = std::min(budget, millisUntil(now, nextWatchdog));
            if (agones) budget = std::min(budget, millisUntil(now, agones->nextHealth));
            const IdleStretch stretch = planIdleStretch(pacing, budget);
            const std::uint64_t waitStart = steadyMicros();
            waitForTraffic(*server, stretch.millis, consoleKeysFd());
            countIdleIterations(pacing, stretch, (steadyMicros() - waitStart) / 1000);
        } else {
            waitForTraffic(*server, drainWaitMillis(server->drain, steadyMicros(), pacing.pollInterval));
        }
    }

    notifyStopping();
    if (server->receiveStamps) {
        server->receiveStamps->uninstall();
        logMessage("Receive to send: " + server->receiveStamps->summary());
        for (const std::string& line : server->receiveStamps->slowestBatches()) logMessage("Slow batch: " + line);
        for (const std::string& line : server->receiveStamps->anatomy()) logMessage("Batches, " + line);
    }
    wakeOnSignals(-1);
    endConsoleKeys();
    stopServer(*server);
    if (agones) agonesShutdown(*agones);
    agones.reset();
    server->inbox.run();
    server.reset();
    enet_deinitialize();
    logMessage("Enet server deinitialized");
    sleepMilliseconds(1000);
    logMessage("## Ending log");
    stopLog();
    stopMetricsEndpoint();
    return 0;
}
