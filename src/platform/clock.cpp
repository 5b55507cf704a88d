#include "platform/clock.h"

#include <atomic>
#include <chrono>
#include <thread>
#include <time.h>

namespace {
std::atomic<bool> fixed{false};
std::atomic<std::int64_t> fixedSeconds{0};
}  // namespace

std::int64_t unixNow() {
    if (fixed.load()) return fixedSeconds.load();
    return static_cast<std::int64_t>(std::time(nullptr));
}

std::tm localNow() {
    std::time_t t = static_cast<std::time_t>(unixNow());
    std::tm out{};
    localtime_r(&t, &out);
    return out;
}

std::uint64_t threadCpuMicros() {
    timespec t{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
    return static_cast<std::uint64_t>(t.tv_sec) * 1000000u + static_cast<std::uint64_t>(t.tv_nsec) / 1000u;
}

void sleepMilliseconds(unsigned ms) {
    std::this_thread::sleep_for(std::chrono::milliseconds(ms));
}

void setClockForTests(std::optional<std::int64_t> unixSeconds) {
    if (unixSeconds) {
        fixedSeconds.store(*unixSeconds);
        fixed.store(true);
    } else {
        fixed.store(false);
    }
}
