#pragma once
// This process's own figures as the kernel keeps them (/proc/self).

#include <cstdint>

struct ProcessFigures {
    double cpuSeconds = 0;          // user and system time
    double startTimeSeconds = 0;    // Unix time the process started
    std::uint64_t residentBytes = 0;
    std::uint64_t virtualBytes = 0;
    std::uint64_t openFds = 0;
    std::uint64_t maxFds = 0;
};

// False when /proc cannot be read; the figures are then zero.
bool readProcessFigures(ProcessFigures& figures);
