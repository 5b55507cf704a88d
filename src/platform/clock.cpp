#include "platform/clock.h"

#include <atomic>
#include <chrono>
#include <thread>
#include <time.h>

namespace {
std::atomic<bool> fixed{false};
std::atomic<std::int64_t> fixedSeconds{0};
std::atomic<bool> steadyFixed{false};
std::atomic<std::uint64_t> fixedSteady{0};
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

std::uint64_t steadyMicros() {
    if (steadyFixed.load(std::memory_order_relaxed)) return fixedSteady.load();
    return static_cast<std::uint64_t>(
        std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::steady_clock::now().time_since_epoch())
            .count());
}

void setSteadyClockForTests(std::optional<std::uint64_t> micros) {
    if (micros) fixedSteady.store(*micros);
    steadyFixed.store(micros.has_value());
}
