// soak: a churning population of clients on 127.0.0.1 against one server for
// a while (rooms made and given up, matches started and abandoned, players
// who leave, disconnect or just go silent, junk packets of every kind), then
// a check that the server still answers a newcomer and kept its descriptors
// and memory flat. Exit status: 0 pass, 1 fail, 2 bad options.

#include <atomic>
#include <csignal>
#include <cstdio>
#include <iostream>

#include <CLI/CLI.hpp>
#include <enet/enet.h>

#include "soak.h"

namespace {
std::atomic<bool> stopRequested{false};
void onSignal(int) { stopRequested = true; }
}  // namespace

int main(int argc, char** argv) {
    soak::Config config;
    CLI::App app{"Churn soak: clients that join, play, leave, vanish and send junk, against one server."};
    int pid = 0;
    app.add_option("--port", config.port, "UDP port of the server on 127.0.0.1")
        ->required()
        ->check(CLI::Range(1, 65535));
    app.add_option("-t,--seconds", config.seconds, "Length of the run")->check(CLI::Range(1.0, 86400.0));
    app.add_option("-n,--peers", config.peers, "Server peers to use at most, including two probes")
        ->check(CLI::Range(16u, 1024u));
    app.add_option("--server-pid", pid, "Process whose open descriptors and resident memory are sampled");
    app.add_option("--seed", config.seed, "Seed of the choices");
    app.add_option("--step-rate", config.stepRate, "Steps per second in each running match")
        ->check(CLI::Range(0.5, 100.0));
    app.add_option("--junk-per-second", config.junkPerSecond, "Malformed packets per second (0: peers / 32)");
    app.add_option("--stall-seconds", config.stallSeconds, "A match without a completed step this long has stalled");
    app.add_option("--sample-seconds", config.sampleSeconds, "Interval of the descriptor and memory samples");
    bool memoryFiguresOnly = false;
    app.add_flag("--memory-figures-only", memoryFiguresOnly,
                 "Print the resident memory without judging it (for runs too short to leave the warm-up)");
    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp& e) {
        return app.exit(e);
    } catch (const CLI::ParseError& e) {
        std::fprintf(stderr, "soak: %s (see --help)\n", e.what());
        return 2;
    }
    if (pid > 0) config.serverPid = pid;
    config.judgeMemory = !memoryFiguresOnly;
    std::signal(SIGINT, onSignal);
    std::signal(SIGTERM, onSignal);
    if (enet_initialize() != 0) {
        std::fprintf(stderr, "soak: cannot initialise ENet\n");
        return 2;
    }
    soak::Result result = soak::runSoak(config, stopRequested);
    enet_deinitialize();
    std::cout << soak::resultJson(config, result) << std::endl;
    std::cerr << soak::resultSummary(config, result);
    return result.pass() ? 0 : 1;
}
