#include "platform/clock.h"

#include <atomic>
#include <chrono>
#include <thread>

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
