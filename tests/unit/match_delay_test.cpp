#include <gtest/gtest.h>

#include "game/match.h"
#include "protocol/send.h"
#include "support/match_rooms.h"

namespace {
// Steps until something is sent; the number of steps taken.
int stepsUntilSent(Harness& h, int limit) {
    for (int i = 1; i <= limit; ++i) {
        h.step();
        if (!h.takeSent().empty()) return i;
    }
    return -1;
}

// The next call makes a decision.
void armDecision(Room& room) {
    room.delayTicks = 15;
    room.delayCooldown = 0;
}
}  // namespace

TEST(MatchDelay, PassEvery15thCallDecisionEvery41stPass) {
    Harness h;
    Room& room = addMatchRoom(h, 1, {0, 1});
    addMatchRoom(h, 2, {2}, false);  // not running: never adapted
    h.peer(0)->roundTripTime = 40;
    room.lagReports = 3;
    room.delayHold = 5;
    for (int i = 0; i < 15; ++i) h.step();
    EXPECT_EQ(room.delayTicks, 15u);
    h.step();  // the 16th call is the first pass
    EXPECT_EQ(room.delayTicks, 1u);
    EXPECT_EQ(room.delayCooldown, 39u);
    EXPECT_EQ(room.lagReports, 2);
    EXPECT_EQ(room.delayHold, 4);
    room.lagReports = 0;
    EXPECT_EQ(stepsUntilSent(h, 2000), 15 * 40);
    EXPECT_EQ(stepsUntilSent(h, 2000), 15 * 41);
    EXPECT_EQ(room.orderDelay, 2u);  // sent at the minimum, stays there
    EXPECT_EQ(h.server.rooms.at(2)->delayTicks, 0u);
}

TEST(MatchDelay, ShorteningTestUsesTheLargestRoundTripOfOccupiedSlots) {
    struct Case {
        std::uint32_t orderDelay, rtt0, rtt1;
        std::int32_t lag;
        bool decrease;
        std::uint32_t after;
    } cases[] = {
        {2, 40, 0, 0, true, 2},  // sent at the minimum, which stays
        {2, 49, 3, 0, true, 2},  {2, 50, 3, 0, false, 2}, {2, 3, 50, 0, false, 2}, {3, 74, 10, 0, true, 2},
        {3, 75, 10, 0, false, 3}, {10, 0, 0, 0, true, 9}, {10, 0, 0, 1, false, 10},
        {5, 0x80000000u, 0, 0, true, 4},  // 2·rtt in unsigned 32-bit arithmetic
    };
    for (const auto& c : cases) {
        Harness h;
        Room& room = addMatchRoom(h, 1, {0, 1});
        room.orderDelay = c.orderDelay;
        room.lagReports = c.lag;
        h.peer(0)->roundTripTime = c.rtt0;
        h.peer(1)->roundTripTime = c.rtt1;
        armDecision(room);
        h.step();
        auto sent = h.takeSent();
        SCOPED_TRACE(std::to_string(c.orderDelay) + " " + std::to_string(c.rtt0) + " " + std::to_string(c.rtt1));
        if (c.decrease) {
            ASSERT_EQ(sent.size(), 2u);
            EXPECT_EQ(sent[0].peer, h.peer(0));
            EXPECT_EQ(sent[1].peer, h.peer(1));
            EXPECT_EQ(sent[1].channel, kMatchControlChannel);
            EXPECT_EQ(sent[1].data, words({2, 1}));
        } else {
            EXPECT_TRUE(sent.empty());
        }
        EXPECT_EQ(room.orderDelay, c.after);
        EXPECT_EQ(room.delayCooldown, 40u);
        EXPECT_EQ(room.delayTicks, 1u);
    }
}

TEST(MatchDelay, LengtheningNeedsLagNoHoldAndMoreThan100CompletedSteps) {
    struct Case {
        std::int32_t lag, hold;
        std::uint32_t last, orderDelay;
        bool increase;
    } cases[] = {
        {1, 0, 100, 2, false}, {1, 0, 101, 2, true}, {24, 0, 500, 7, true}, {1, 1, 500, 2, false},
        {0, 0, 500, 2, false}, {3, 0, 500, 64, true},
    };
    for (const auto& c : cases) {
        Harness h;
        Room& room = addMatchRoom(h, 1, {0, 1});
        h.peer(0)->roundTripTime = 1000;  // too slow to shorten
        room.lagReports = c.lag;
        room.delayHold = c.hold;
        room.lastCompletedStep = c.last;
        room.orderDelay = c.orderDelay;
        room.maxOrderDelay = 5;
        armDecision(room);
        h.step();
        auto sent = h.takeSent();
        std::uint32_t after = c.increase ? std::min(c.orderDelay + 1, 64u) : c.orderDelay;
        SCOPED_TRACE(std::to_string(c.lag) + " " + std::to_string(c.hold) + " " + std::to_string(c.last));
        if (c.increase) {
            ASSERT_EQ(sent.size(), 2u);
            EXPECT_EQ(sent[0].data, words({1, 1}));
            EXPECT_EQ(sent[0].channel, kMatchControlChannel);
            EXPECT_EQ(sent[1].peer, h.peer(1));
            EXPECT_EQ(room.lagReports, 0);
            EXPECT_EQ(room.maxOrderDelay, std::max(5u, after));
        } else {
            EXPECT_TRUE(sent.empty());
            EXPECT_EQ(room.maxOrderDelay, 5u);
            EXPECT_EQ(room.lagReports, c.lag > 0 ? c.lag - 1 : 0);  // the pass counts down
        }
        EXPECT_EQ(room.orderDelay, after);
    }
}
