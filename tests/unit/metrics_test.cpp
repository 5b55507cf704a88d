#include <gtest/gtest.h>

#include "core/metrics.h"
#include "game/checksum.h"
#include "game/match.h"
#include "support/harness.h"

TEST(Metrics, StepsDesyncsAndTheStepHistogramFollowTheMatch) {
    Harness h;
    auto room = std::make_unique<Room>();
    room->id = 1;
    for (std::size_t i = 0; i < 2; ++i) {
        h.connect(i);
        room->slots[i].peer = h.peer(i);
        room->slots[i].info = std::make_unique<PlayerSetup>();
    }
    Room& r = *room;
    h.server.rooms.emplace(1, std::move(room));
    auto& m = metrics();
    std::uint64_t steps = m.stepsCompleted.load(), desyncs = m.desyncs.load(), timed = m.stepCount.load();

    enableStepTiming();
    markStepDone(r, 0, 5);
    EXPECT_EQ(r.stepFirstReportMicros.count(5), 1u);
    markStepDone(r, 1, 5);
    EXPECT_EQ(m.stepsCompleted.load(), steps + 1);
    EXPECT_EQ(m.stepCount.load(), timed + 1);
    EXPECT_TRUE(r.stepFirstReportMicros.empty());

    declareDesync(r, 5);
    EXPECT_EQ(m.desyncs.load(), desyncs + 1);

    std::string text = renderMetrics(m.startUnix.load() + 7);
    EXPECT_NE(text.find("\nlockstep_uptime_seconds 7\n"), std::string::npos);
    EXPECT_NE(text.find("lockstep_step_completion_seconds_count " + std::to_string(timed + 1) + "\n"),
              std::string::npos);
    EXPECT_NE(text.find("lockstep_step_completion_seconds_bucket{le=\"+Inf\"} " + std::to_string(timed + 1) + "\n"),
              std::string::npos);
}
