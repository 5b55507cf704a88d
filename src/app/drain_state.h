#pragma once
// What the server keeps of a drain (app/drain.h does the draining).

#include <cstdint>

struct Drain {
    // --drain: how long running matches may still go on; 0: no drains.
    std::uint32_t seconds = 0;
    bool active = false;
    // steadyMicros() past which the server stops whatever still runs.
    std::uint64_t deadlineMicros = 0;
};
