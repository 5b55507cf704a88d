// The latency histogram behind every p50, p99 and p99.9 the benchmark
// prints: a quantile may round up a little, never down.

#include <gtest/gtest.h>

#include "histogram.h"

using namespace loadbot;

TEST(Histogram, QuantilesNeverUnderstateAndMaxIsExact) {
    Histogram h;
    EXPECT_EQ(h.quantile(0.5), 0u);
    // 1..1000 microseconds, one sample each.
    for (std::uint64_t us = 1; us <= 1000; ++us) h.add(us * 1000);
    EXPECT_EQ(h.count(), 1000u);
    EXPECT_EQ(h.max(), 1000000u);
    for (auto [q, exact] : {std::pair{0.5, 500000.0}, {0.99, 990000.0}, {0.999, 999000.0}}) {
        double got = static_cast<double>(h.quantile(q));
        EXPECT_GE(got, exact) << q;
        EXPECT_LE(got, exact * 1.016) << q;
    }
    EXPECT_EQ(h.quantile(1.0), 1000000u);

    // A single outlier shows in the max and p99.9 of 1000 samples, not in p99.
    Histogram skewed;
    for (int i = 0; i < 999; ++i) skewed.add(100000);
    skewed.add(50000000);
    EXPECT_LE(skewed.quantile(0.99), 101600u);
    EXPECT_LE(skewed.quantile(0.999), 101600u);
    skewed.add(50000000);
    EXPECT_EQ(skewed.quantile(0.999), 50000000u);
    EXPECT_EQ(skewed.max(), 50000000u);

    Histogram merged;
    merged.merge(h);
    merged.merge(skewed);
    EXPECT_EQ(merged.count(), 2001u);
    EXPECT_EQ(merged.max(), 50000000u);
}

