#include "app/options.h"

#include <cstdio>
#include <filesystem>

#include <CLI/CLI.hpp>

#include "protocol/send.h"

bool parseHostPort(const std::string& text, std::string& host, std::uint16_t& port) {
    auto colon = text.rfind(':');
    if (colon == std::string::npos || colon == 0 || colon + 1 == text.size()) return false;
    std::string portText = text.substr(colon + 1);
    unsigned long value = 0;
    for (char c : portText) {
        if (c < '0' || c > '9') return false;
        value = value * 10 + static_cast<unsigned long>(c - '0');
        if (value > 65535) return false;
    }
    if (value == 0) return false;
    host = text.substr(0, colon);
    if (host.size() >= 2 && host.front() == '[' && host.back() == ']') host = host.substr(1, host.size() - 2);
    port = static_cast<std::uint16_t>(value);
    return true;
}

int parseOptions(int argc, char** argv, Options& options) {
    CLI::App app{"Dedicated lockstep game server: lobby, order relay, reports and update files over ENet."};
    app.set_version_flag("--version", std::string("lockstep-server ") + LOCKSTEP_VERSION);
    std::string dataRoot, metrics, limits, record;
    app.add_option("--data-root", dataRoot,
                   "Directory to run in; it becomes the data root (server_data/ is created when missing)");
    app.add_option("--metrics", metrics, "Serve Prometheus metrics over HTTP at ADDR:PORT (off by default)")
        ->type_name("ADDR:PORT");
    app.add_option("--limits", limits, "Read the limits from FILE instead of settings/limits.conf")->type_name("FILE");
    app.add_option("--record", record, "Record every match that starts, one file each, in DIR (off by default)")
        ->type_name("DIR");
    app.add_flag("--private-rooms", options.privateRooms,
                 "Grant clients that ask for it rooms with passwords, hidden rooms and bans from a room");
    app.add_option("--rejoin", options.rejoinSeconds,
                   "Keep the seat of a player whose connection drops for SECONDS, in rooms where every player asked "
                   "for rejoin, and send it the match so far when it comes back (off by default)")
        ->type_name("SECONDS")
        ->check(CLI::Range(1u, 3600u));
    app.add_option("--spectators", options.spectators,
                   "Let up to N clients that ask for it watch each running match (off by default)")
        ->type_name("N")
        ->check(CLI::Range(1u, static_cast<unsigned>(kMaxSpectatorsPerRoom)));
    app.add_option("--spectator-delay", options.spectatorDelaySteps,
                   "Send spectators the match STEPS steps behind the players (default 0: live)")
        ->type_name("STEPS")
        ->check(CLI::Range(0u, 72000u));
    app.add_option("--drain", options.drainSeconds,
                   "SIGTERM (or the key q) drains: no new games, running ones get up to SECONDS to end, then the "
                   "server stops (off by default: SIGTERM stops at once)")
        ->type_name("SECONDS")
        ->check(CLI::Range(1u, 86400u));
    app.add_flag("--agones", options.agones,
                 "Run as an Agones game server: Ready, health pings, player and room Counters and Shutdown to the "
                 "SDK sidecar on localhost:$AGONES_SDK_HTTP_PORT (default 9358)");
    app.add_option("--agones-health", options.agonesHealthSeconds,
                   "With --agones, ping the sidecar's health check every SECONDS (default 2)")
        ->type_name("SECONDS")
        ->check(CLI::Range(1u, 3600u));
    app.add_option("--loop-slice", options.loopSliceMicros,
                   "Ask the kernel (Linux 6.12 and later) to treat the loop's runs as requests of MICROS each, so that "
                   "on a busy core a datagram wakes it ahead of longer-running threads; 0 keeps the kernel's default")
        ->type_name("MICROS")
        ->check(CLI::Range(0u, 100000u));
    app.add_flag("--receive-latency", options.receiveLatency,
                 "For benchmarks: time every order from the kernel's receive of its datagram to the hand-over of "
                 "its relay to the socket, and log the percentiles at shutdown (costs a system call per datagram)");
    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp& e) {
        return app.exit(e);
    } catch (const CLI::CallForVersion& e) {
        return app.exit(e);
    } catch (const CLI::ParseError& e) {
        std::fprintf(stderr, "lockstep-server: %s (see --help)\n", e.what());
        return 2;
    }
    if (!dataRoot.empty()) {
        std::error_code ec;
        if (!std::filesystem::is_directory(dataRoot, ec)) {
            std::fprintf(stderr, "lockstep-server: data root %s is not a directory\n", dataRoot.c_str());
            return 2;
        }
        options.dataRoot = dataRoot;
    }
    // Named from where the server was started, before it enters its data root.
    if (!limits.empty()) options.limitsFile = std::filesystem::absolute(limits).string();
    if (!record.empty()) options.recordDirectory = std::filesystem::absolute(record).lexically_normal().string();
    if (!metrics.empty()) {
        std::string host;
        std::uint16_t port = 0;
        if (!parseHostPort(metrics, host, port)) {
            std::fprintf(stderr, "lockstep-server: --metrics wants ADDR:PORT, got %s\n", metrics.c_str());
            return 2;
        }
        options.metricsHost = host;
        options.metricsPort = port;
    }
    return -1;
}
