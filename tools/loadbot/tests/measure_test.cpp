// Histogram quantiles, sequence accounting and the /proc parsers.

#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include <unistd.h>

#include "histogram.h"
#include "procfs.h"
#include "tally.h"

using namespace loadbot;

TEST(Histogram, BucketsCoverEveryValueWithSmallRelativeError) {
    std::size_t previous = 0;
    for (std::uint64_t v :
         {0ull, 1ull, 127ull, 128ull, 129ull, 1000ull, 65535ull, 1000000ull, 123456789ull, 1ull << 40, ~0ull}) {
        std::size_t b = Histogram::bucketOf(v);
        EXPECT_GE(b, previous) << v;
        previous = b;
        EXPECT_GE(Histogram::upperEdge(b), v) << v;
        if (v < 128) {
            EXPECT_EQ(Histogram::upperEdge(b), v);
        } else {
            EXPECT_LE(static_cast<double>(Histogram::upperEdge(b) - v), v / 64.0 + 1) << v;
        }
    }
}

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

TEST(Sequence, CountsGapsRepeatsAndWhatNeverCame) {
    Counts c;
    Sequence s;
    EXPECT_TRUE(s.accept(1, c));
    EXPECT_TRUE(s.accept(2, c));
    EXPECT_FALSE(s.accept(2, c));  // repeat
    EXPECT_TRUE(s.accept(5, c));   // 3 and 4 lost
    EXPECT_FALSE(s.accept(4, c));  // late, after the gap: counted as a repeat, not received twice
    s.finish(8, c);                // 6, 7, 8 never came
    EXPECT_EQ(c.received, 3u);
    EXPECT_EQ(c.lost, 5u);
    EXPECT_EQ(c.duplicated, 2u);
    EXPECT_EQ(c.errors(), 7u);

    Counts clean;
    Sequence t;
    for (std::uint32_t step = 1; step <= 100; ++step) t.accept(step, clean);
    t.finish(100, clean);
    EXPECT_EQ(clean.received, 100u);
    EXPECT_EQ(clean.errors(), 0u);
}

TEST(Procfs, ParsesStatStatusAndMachineLines) {
    // A command name with a space and a parenthesis must not shift fields.
    std::string stat = "1234 (lock step) srv) S 1 1234 1234 0 -1 4194560 100 0 0 0 250 37 0 0 20 0 3 0 99 1 2";
    EXPECT_EQ(parseStatCpuTicks(stat), 287u);
    EXPECT_FALSE(parseStatCpuTicks("1234 no parenthesis").has_value());
    EXPECT_FALSE(parseStatCpuTicks("1 (x) S 1 2").has_value());

    std::string status =
        "Name:\tserver\nVmPeak:\t  9000 kB\nVmHWM:\t    5120 kB\nVmRSS:\t    4096 kB\n"
        "voluntary_ctxt_switches:\t17\nnonvoluntary_ctxt_switches:\t3\n";
    EXPECT_EQ(parseStatusField(status, "VmHWM"), 5120u);
    EXPECT_EQ(parseStatusField(status, "VmRSS"), 4096u);
    EXPECT_EQ(parseStatusField(status, "voluntary_ctxt_switches"), 17u);
    EXPECT_EQ(parseStatusField(status, "nonvoluntary_ctxt_switches"), 3u);
    EXPECT_EQ(parseStatusField(status, "Name"), 0u);
    EXPECT_FALSE(parseStatusField(status, "VmSwap").has_value());

    auto machine = parseMachineStat("cpu  100 5 20 800 10 1 2 7 0 0\ncpu0 50 0 10 400 5 0 1 3 0 0\n");
    ASSERT_TRUE(machine.has_value());
    EXPECT_EQ(machine->total, 945u);
    EXPECT_EQ(machine->idle, 810u);
    EXPECT_EQ(machine->steal, 7u);
    EXPECT_FALSE(parseMachineStat("cpu0 1 2 3\n").has_value());
}

TEST(Procfs, SamplesALiveProcessAndTheMachine) {
    // A process that has never blocked may not have been switched yet: sleep
    // once so that at least one voluntary switch is certain.
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
    auto self = sampleProcess(getpid());
    ASSERT_TRUE(self.has_value());
    EXPECT_GT(self->peakRssKib, 0u);
    EXPECT_GE(self->peakRssKib, self->rssKib);
    EXPECT_GT(self->cpuNs, 0u);
    EXPECT_GT(self->voluntarySwitches + self->involuntarySwitches, 0u);
    EXPECT_FALSE(sampleProcess(-5).has_value());
    auto machine = sampleMachine();
    ASSERT_TRUE(machine.has_value());
    EXPECT_GT(machine->total, machine->idle);
}
