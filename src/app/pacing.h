#pragma once
// The main loop's adaptive sleep: 2 ms after any network activity, creeping
// up by 1 ms per 200 idle iterations to at most 440 ms.

#include <cstdint>

struct Pacing {
    std::uint32_t pollInterval = 2;
    std::uint32_t idleCount = 0;
};

inline constexpr std::uint32_t kActiveInterval = 2;
inline constexpr std::uint32_t kMaxInterval = 440;
inline constexpr std::uint32_t kIdleIterationsPerStep = 200;

// Advances the pacing by one iteration. Returns the new interval when it
// must be logged (multiples of 40 below the cap), else 0.
inline std::uint32_t advancePacing(Pacing& p, bool active) {
    if (active) {
        p.pollInterval = kActiveInterval;
        p.idleCount = 0;
        return 0;
    }
    if (++p.idleCount < kIdleIterationsPerStep) return 0;
    p.idleCount = 0;
    p.pollInterval += 1;
    if (p.pollInterval >= kMaxInterval) {
        p.pollInterval = kMaxInterval;
        return 0;
    }
    return p.pollInterval % 40 == 0 ? p.pollInterval : 0;
}

// An idle iteration is only a count, so a quiet loop need not turn for each
// one: it waits through a stretch of them at once and counts them when it
// wakes. A stretch ends at an iteration boundary (where the loop would have
// turned anyway), at the first boundary at or after the budget, and never
// beyond an iteration whose count logs an interval line, which the loop then
// turns for, so the line comes at its own time.
struct IdleStretch {
    // Iterations the stretch spans; the last one is the turn that ends it.
    std::uint32_t iterations = 1;
    // The sum of their intervals: how long the loop waits.
    std::uint64_t millis = 0;
};

// A budget of 0 is one ordinary interval.
inline IdleStretch planIdleStretch(Pacing p, std::uint64_t budgetMillis) {
    IdleStretch s{1, p.pollInterval};
    while (s.millis < budgetMillis) {
        Pacing next = p;
        if (advancePacing(next, false) != 0) break;
        p = next;
        s.millis += p.pollInterval;
        ++s.iterations;
    }
    return s;
}

// Counts the idle iterations of a stretch that passed within elapsedMillis
// of waiting, the turn that ends the stretch excepted; returns how many.
inline std::uint32_t countIdleIterations(Pacing& p, const IdleStretch& stretch, std::uint64_t elapsedMillis) {
    std::uint64_t boundary = 0;
    std::uint32_t counted = 0;
    while (counted + 1 < stretch.iterations) {
        boundary += p.pollInterval;
        if (boundary > elapsedMillis) break;
        // A stretch stops short of every iteration that logs.
        advancePacing(p, false);
        ++counted;
    }
    return counted;
}
