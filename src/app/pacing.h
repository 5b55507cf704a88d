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
