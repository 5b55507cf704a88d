#pragma once
// Command-line options. With none, the server behaves as a console program
// started in its data root.

#include <cstdint>
#include <optional>
#include <string>

struct Options {
    std::optional<std::string> dataRoot;
    std::optional<std::string> metricsHost;
    std::uint16_t metricsPort = 0;
    std::optional<std::string> limitsFile;
    // Where every match that starts is recorded (absolute).
    std::optional<std::string> recordDirectory;
    bool privateRooms = false;
    // --rejoin: how long a dropped player's seat waits (0: off).
    std::uint32_t rejoinSeconds = 0;
    // --spectators per room (0: off) and --spectator-delay in steps.
    std::uint32_t spectators = 0;
    std::uint32_t spectatorDelaySteps = 0;
    // --drain: 0 when SIGTERM stops at once.
    std::uint32_t drainSeconds = 0;
    // --agones and --agones-health.
    bool agones = false;
    std::uint32_t agonesHealthSeconds = 2;
    // --receive-latency, for benchmarks.
    bool receiveLatency = false;
    // --loop-slice: microseconds; 0 leaves the kernel's default.
    std::uint32_t loopSliceMicros = 0;
};

// Returns -1 to go on, or the exit status to end with at once (0 after
// --help or --version, 2 after a wrong option, with one line on stderr).
int parseOptions(int argc, char** argv, Options& options);
// "ADDR:PORT"; false when it is not one.
bool parseHostPort(const std::string& text, std::string& host, std::uint16_t& port);
