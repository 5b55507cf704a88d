#pragma once
// Latency histogram in nanoseconds with bounded memory for runs of any
// length: exact below 128 ns, then 64 buckets per power of two (under 1.6 %
// relative error). Quantiles report the upper edge of their bucket, clamped
// to the largest value seen, so they never understate.

#include <array>
#include <cstdint>

namespace loadbot {

class Histogram {
public:
    void add(std::uint64_t ns);
    void merge(const Histogram& other);
    std::uint64_t count() const { return count_; }
    std::uint64_t max() const { return max_; }
    // q in [0, 1]; 0 when empty.
    std::uint64_t quantile(double q) const;

    static std::size_t bucketOf(std::uint64_t ns);
    static std::uint64_t upperEdge(std::size_t bucket);

private:
    static constexpr std::size_t kBuckets = 128 + 58 * 64;
    std::array<std::uint64_t, kBuckets> buckets_{};
    std::uint64_t count_ = 0;
    std::uint64_t max_ = 0;
};

}  // namespace loadbot
