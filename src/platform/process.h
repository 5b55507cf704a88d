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

// Raises the soft limit on open files to the hard limit. The soft limit is
// often 1,024 while the hard one is far higher; the game's log, reports, dumps
// and update files must never fail for want of a descriptor, whatever else
// (the metrics endpoint's connections) holds some. Does nothing when the two
// are equal, as under the shipped service unit (LimitNOFILE= sets both).
// False when the limit could not be raised.
bool raiseOpenFileLimit();

// Large blocks (a received report, an update file being read) come from the
// heap and stay there when freed, up to a bound, instead of being mapped
// and unmapped for each one: every fresh mapping is faulted in page by page
// on the thread that fills it, and every unmapping interrupts the other
// threads' processors, which the loop pays for in relay latency when reports
// of a MiB arrive many times a second. Costs at most the bound in memory
// kept after a burst.
void keepLargeBlocksInHeap();

// Asks the scheduler to treat the calling thread's runs as requests of about
// `micros` each (Linux 6.12 and later; below 100 is taken as 100): a thread
// with shorter requests than the others on its core is woken in front of
// them instead of waiting for their slice to end, at the same share of the
// core. Does nothing to a thread under another policy than the normal one
// (set by the operator) and keeps its nice value. False when the kernel
// refused.
bool requestSchedulerSlice(std::uint32_t micros);
