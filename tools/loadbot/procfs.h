#pragma once
// What /proc tells about the process under load and about the machine.

#include <cstdint>
#include <optional>
#include <string>
#include <sys/types.h>

namespace loadbot {

struct ProcessSample {
    std::uint64_t cpuNs = 0;  // user + system time of all its threads
    std::uint64_t peakRssKib = 0;
    std::uint64_t rssKib = 0;
    std::uint64_t voluntarySwitches = 0;  // summed over its threads
    std::uint64_t involuntarySwitches = 0;
};
std::optional<ProcessSample> sampleProcess(pid_t pid, const std::string& procRoot = "/proc");

// The machine-wide "cpu" line of /proc/stat, in clock ticks.
struct MachineSample {
    std::uint64_t total = 0;
    std::uint64_t idle = 0;  // idle + iowait
    std::uint64_t steal = 0;
};
std::optional<MachineSample> sampleMachine(const std::string& procRoot = "/proc");

// Parsers, separate for the tests.
// utime + stime in ticks from the text of /proc/<pid>/stat.
std::optional<std::uint64_t> parseStatCpuTicks(const std::string& statText);
// A "Name:  value" line of a status file; nullopt when absent.
std::optional<std::uint64_t> parseStatusField(const std::string& statusText, const std::string& name);
std::optional<MachineSample> parseMachineStat(const std::string& statText);

}  // namespace loadbot
