#include "histogram.h"

#include <bit>
#include <cmath>

namespace loadbot {

std::size_t Histogram::bucketOf(std::uint64_t ns) {
    if (ns < 128) return static_cast<std::size_t>(ns);
    // ns >> shift lies in 64..127.
    unsigned shift = static_cast<unsigned>(std::bit_width(ns)) - 7;
    return 128 + (shift - 1) * 64 + static_cast<std::size_t>((ns >> shift) - 64);
}

std::uint64_t Histogram::upperEdge(std::size_t bucket) {
    if (bucket < 128) return bucket;
    std::size_t shift = (bucket - 128) / 64 + 1;
    std::uint64_t sub = (bucket - 128) % 64 + 64;
    return ((sub + 1) << shift) - 1;
}

void Histogram::add(std::uint64_t ns) {
    std::size_t b = bucketOf(ns);
    if (b >= kBuckets) b = kBuckets - 1;
    ++buckets_[b];
    ++count_;
    if (ns > max_) max_ = ns;
}

void Histogram::merge(const Histogram& other) {
    for (std::size_t i = 0; i < kBuckets; ++i) buckets_[i] += other.buckets_[i];
    count_ += other.count_;
    if (other.max_ > max_) max_ = other.max_;
}

std::uint64_t Histogram::quantile(double q) const {
    if (count_ == 0) return 0;
    // The rank of the sample at quantile q, counted from 1.
    auto rank = static_cast<std::uint64_t>(std::ceil(q * static_cast<double>(count_)));
    if (rank < 1) rank = 1;
    std::uint64_t seen = 0;
    for (std::size_t i = 0; i < kBuckets; ++i) {
        seen += buckets_[i];
        if (seen >= rank) {
            std::uint64_t edge = upperEdge(i);
            return edge < max_ ? edge : max_;
        }
    }
    return max_;
}

}  // namespace loadbot
