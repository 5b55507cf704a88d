#include "platform/process.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <dirent.h>
#include <malloc.h>
#include <string>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {
// Seconds since the epoch at which the system booted.
double bootTime() {
    std::FILE* f = std::fopen("/proc/stat", "r");
    if (f == nullptr) return 0;
    char line[256];
    unsigned long long btime = 0;
    while (std::fgets(line, sizeof line, f))
        if (std::sscanf(line, "btime %llu", &btime) == 1) break;
    std::fclose(f);
    return static_cast<double>(btime);
}
}  // namespace

bool readProcessFigures(ProcessFigures& figures) {
    figures = ProcessFigures{};
    std::FILE* f = std::fopen("/proc/self/stat", "r");
    if (f == nullptr) return false;
    char buf[1024];
    std::size_t n = std::fread(buf, 1, sizeof buf - 1, f);
    std::fclose(f);
    buf[n] = '\0';
    // The command name may hold blanks and parentheses: the fields start
    // after the last ')'.
    const char* rest = std::strrchr(buf, ')');
    if (rest == nullptr) return false;
    unsigned long utime = 0, stime = 0, vsize = 0;
    unsigned long long start = 0;
    long rss = 0;
    // Fields 3.. : state ppid pgrp session tty tpgid flags minflt cminflt
    // majflt cmajflt utime stime cutime cstime priority nice threads
    // itrealvalue starttime vsize rss.
    if (std::sscanf(rest + 1, " %*c %*d %*d %*d %*d %*d %*u %*u %*u %*u %*u %lu %lu %*d %*d %*d %*d %*d %*d %llu %lu %ld",
                    &utime, &stime, &start, &vsize, &rss) != 5)
        return false;
    const double ticks = static_cast<double>(sysconf(_SC_CLK_TCK));
    figures.cpuSeconds = static_cast<double>(utime + stime) / ticks;
    figures.startTimeSeconds = bootTime() + static_cast<double>(start) / ticks;
    figures.virtualBytes = vsize;
    figures.residentBytes = static_cast<std::uint64_t>(rss > 0 ? rss : 0) * static_cast<std::uint64_t>(sysconf(_SC_PAGESIZE));
    if (DIR* d = opendir("/proc/self/fd")) {
        while (dirent* e = readdir(d))
            if (e->d_name[0] != '.') ++figures.openFds;
        closedir(d);
        if (figures.openFds > 0) --figures.openFds;  // the directory being read
    }
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) == 0) figures.maxFds = limit.rlim_cur;
    return true;
}

bool raiseOpenFileLimit() {
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return false;
    if (limit.rlim_cur == limit.rlim_max) return true;
    limit.rlim_cur = limit.rlim_max;
    return setrlimit(RLIMIT_NOFILE, &limit) == 0;
}

void keepLargeBlocksInHeap() {
    // Blocks up to 32 MiB (the largest message) from the heap; up to 64 MiB
    // freed at its top kept rather than given back. Setting either fixes
    // both, instead of the allocator's own guesses that move with the load.
    mallopt(M_MMAP_THRESHOLD, 32 * 1024 * 1024);
    mallopt(M_TRIM_THRESHOLD, 64 * 1024 * 1024);
}

namespace {
// The kernel's struct sched_attr (its first version, 48 bytes), which the C
// library does not declare.
struct SchedAttr {
    std::uint32_t size;
    std::uint32_t policy;
    std::uint64_t flags;
    std::int32_t nice;
    std::uint32_t priority;
    std::uint64_t runtime;
    std::uint64_t deadline;
    std::uint64_t period;
};
constexpr std::uint32_t kSchedNormal = 0;
constexpr std::uint64_t kSchedFlagResetOnFork = 0x01;
}  // namespace

bool requestSchedulerSlice(std::uint32_t micros) {
    SchedAttr attr{};
    if (syscall(SYS_sched_getattr, 0, &attr, sizeof attr, 0) != 0) return false;
    if (attr.policy != kSchedNormal) return true;
    attr.size = sizeof attr;
    // Of the flags, only reset-on-fork is the thread's own setting to keep;
    // the others would ask for more than the slice.
    attr.flags &= kSchedFlagResetOnFork;
    attr.runtime = static_cast<std::uint64_t>(std::max(micros, 100u)) * 1000;
    return syscall(SYS_sched_setattr, 0, &attr, 0) == 0;
}
