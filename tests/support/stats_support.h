#pragma once
// Helpers for the statistics and event tests: a scratch data root, the clock
// set to a local calendar time, and the lines of a text.

#include <cstdint>
#include <string>
#include <vector>

#include "support/files.h"

// Unix seconds of a local calendar time.
std::int64_t localUnixTime(int year, int month, int day, int hour, int minute, int second);

// A fresh directory made the data root for the lifetime of the object; the
// previous prefix and the real clock come back afterwards.
class ScratchDataRoot {
public:
    ScratchDataRoot();
    ~ScratchDataRoot();
    ScratchDataRoot(const ScratchDataRoot&) = delete;
    ScratchDataRoot& operator=(const ScratchDataRoot&) = delete;
    // Directory path ending in "/".
    const std::string& prefix() const { return prefix_; }
    std::string read(const std::string& relative) const { return readWholeFile(prefix_ + relative); }

private:
    std::string previous_;
    std::string prefix_;
};
