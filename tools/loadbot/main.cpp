// loadbot: simulated game clients on 127.0.0.1 that fill rooms through the
// lobby, play lockstep matches against the server and check every relay.
// Exit status: 0 no errors, 1 errors counted, 2 bad options, 3 set-up failed.

#include <atomic>
#include <csignal>
#include <cstdio>
#include <iostream>

#include <CLI/CLI.hpp>
#include <enet/enet.h>

#include "engine.h"
#include "report.h"

namespace {
std::atomic<bool> stopRequested{false};
void onSignal(int) {
    stopRequested = true;
}
}  // namespace

int main(int argc, char** argv) {
    loadbot::Config config;
    CLI::App app{
        "Load generator: simulated clients on 127.0.0.1 that go through the lobby and play lockstep "
        "matches, checking and timing every relayed order and step notice."};
    int pid = 0;
    bool quiet = false;
    app.add_option("-n,--rooms", config.rooms, "Rooms")->check(CLI::Range(1u, 1024u));
    app.add_option("-p,--players", config.players, "Players per room")->check(CLI::Range(1u, 8u));
    app.add_option("-s,--rate", config.rate, "Steps per second")->check(CLI::Range(0.1, 1000.0));
    app.add_option("-t,--seconds", config.seconds, "Seconds of play (of idling with --idle)")
        ->check(CLI::Range(0.1, 86400.0));
    app.add_option("--port", config.port, "UDP port of the server on 127.0.0.1")
        ->required()
        ->check(CLI::Range(1, 65535));
    app.add_option("--server-pid", pid, "Process to read CPU time, peak RSS and context switches of");
    app.add_option("--threads", config.threads, "Threads serving the clients (rooms are split among them)")
        ->check(CLI::Range(1u, 64u));
    app.add_option("--padding", config.padding, "Extra text bytes per order")->check(CLI::Range(0u, 60000u));
    app.add_option("--setup-seconds", config.setupSeconds, "Time allowed to connect and reach the running match");
    app.add_option("--drain-seconds", config.drainSeconds, "Time allowed after the last send for the last arrivals");
    app.add_flag("--idle", config.idle, "Only connect rooms x players clients and hold them, without traffic");
    app.add_option("--downloaders", config.downloaders,
                   "Extra clients that fetch --download-file from the update service back to back while playing");
    app.add_option("--download-file", config.downloadFile, "Name of a file in the server's update data");
    app.add_option("--label", config.label, "Copied into the JSON line");
    app.add_flag("-q,--quiet", quiet, "Only the JSON line");
    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp& e) {
        return app.exit(e);
    } catch (const CLI::ParseError& e) {
        std::fprintf(stderr, "loadbot: %s (see --help)\n", e.what());
        return 2;
    }
    if (pid > 0) config.serverPid = pid;
    if (config.downloaders > 0 && config.downloadFile.empty()) {
        std::fprintf(stderr, "loadbot: --downloaders needs --download-file\n");
        return 2;
    }
    if (config.rooms * config.players > 4096) {
        std::fprintf(stderr, "loadbot: at most 4096 clients\n");
        return 2;
    }

    std::signal(SIGINT, onSignal);
    std::signal(SIGTERM, onSignal);
    if (enet_initialize() != 0) {
        std::fprintf(stderr, "loadbot: cannot initialise ENet\n");
        return 3;
    }
    loadbot::Result result = loadbot::runLoad(config, stopRequested);
    enet_deinitialize();

    std::cout << loadbot::jsonLine(config, result) << std::endl;
    if (!quiet) std::cerr << loadbot::summary(config, result);
    if (!result.setupOk) return 3;
    return result.errors() == 0 ? 0 : 1;
}
