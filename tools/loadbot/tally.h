#pragma once
// Accounting of the relayed orders and the step notices that one receiver
// gets from one source. Each source numbers its steps 1, 2, 3, ... and the
// channel is reliable and ordered, so anything but the next number is a
// fault: a repeat or an older number is a duplicate, a jump loses the steps
// jumped over, and whatever has not arrived by the end is lost.

#include <cstdint>

namespace loadbot {

struct Counts {
    std::uint64_t received = 0;  // distinct arrivals
    std::uint64_t lost = 0;
    std::uint64_t duplicated = 0;
    std::uint64_t misrouted = 0;
    std::uint64_t corrupt = 0;

    std::uint64_t errors() const { return lost + duplicated + misrouted + corrupt; }
    void add(const Counts& other) {
        received += other.received;
        lost += other.lost;
        duplicated += other.duplicated;
        misrouted += other.misrouted;
        corrupt += other.corrupt;
    }
};

class Sequence {
public:
    // True when step is new (the next one, or later after a gap).
    bool accept(std::uint32_t step, Counts& counts) {
        if (step <= last_) {
            ++counts.duplicated;
            return false;
        }
        counts.lost += step - last_ - 1;
        last_ = step;
        ++counts.received;
        return true;
    }
    // The source sent steps 1..lastSent; the rest never came.
    void finish(std::uint32_t lastSent, Counts& counts) const {
        if (lastSent > last_) counts.lost += lastSent - last_;
    }
    std::uint32_t last() const { return last_; }

private:
    std::uint32_t last_ = 0;
};

}  // namespace loadbot
