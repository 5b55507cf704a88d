// What a fleet reads off an instance: readiness during a drain, the failed
// disk writes, and the Counters' bodies.

#include <gtest/gtest.h>

#include "app/agones.h"
#include "app/drain.h"
#include "log/metrics.h"
#include "platform/files.h"

TEST(Fleet, ADrainMakesTheInstanceUnreadyAndShowsInTheMetrics) {
    metrics().listening.store(true);
    EXPECT_EQ(readiness().status, 200);
    metrics().draining.store(true);
    EXPECT_EQ(readiness().status, 503);
    EXPECT_EQ(readiness().body, "draining\n");
    EXPECT_NE(renderMetrics(0, 0).find("\nlockstep_draining 1\n"), std::string::npos);
    metrics().draining.store(false);
    metrics().listening.store(false);
}

TEST(Fleet, FailedWritesAreCountedForTheMetrics) {
    const std::uint64_t before = diskWriteFailures();
    EXPECT_FALSE(appendToFile("/dev/full", "x"));
    FileWriter never;
    EXPECT_FALSE(never.commit());
    EXPECT_EQ(diskWriteFailures(), before + 2);
    EXPECT_NE(renderMetrics(0, 0).find("\nlockstep_disk_write_failures_total " + std::to_string(before + 2) + "\n"),
              std::string::npos);
}

TEST(Fleet, CountersTravelAsTheGatewayMapsInt64) {
    EXPECT_EQ(counterBody(3, 1024), R"({"count":"3","capacity":"1024"})");
}

TEST(Fleet, TheLoopWaitsNoLongerThanADrainHasLeft) {
    Drain drain{.seconds = 10};
    EXPECT_EQ(drainWaitMillis(drain, 0, 440), 440u);
    drain.active = true;
    drain.deadlineMicros = 1'000'000;
    EXPECT_EQ(drainWaitMillis(drain, 0, 440), 440u);
    EXPECT_EQ(drainWaitMillis(drain, 900'000, 440), 100u);
    EXPECT_EQ(drainWaitMillis(drain, 999'999, 440), 1u);
    EXPECT_EQ(drainWaitMillis(drain, 1'000'000, 440), 0u);
}
