#pragma once
// The clock seam: Unix time and the local calendar come from here, so tests
// can set them.

#include <cstdint>
#include <ctime>
#include <optional>

std::int64_t unixNow();
// Local calendar time of unixNow().
std::tm localNow();
void sleepMilliseconds(unsigned ms);
// CPU time the calling thread has used, in microseconds.
std::uint64_t threadCpuMicros();

// A monotonic clock in microseconds, for budgets that refill over time.
std::uint64_t steadyMicros();

// Tests: a fixed Unix time (nullopt returns to the real clock).
void setClockForTests(std::optional<std::int64_t> unixSeconds);
// Tests: a fixed monotonic time (nullopt returns to the real clock).
void setSteadyClockForTests(std::optional<std::uint64_t> micros);
