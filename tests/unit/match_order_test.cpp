#include <gtest/gtest.h>

#include "game/order.h"
#include "support/match_rooms.h"

TEST(MatchOrder, ShortFormReadsAsStepDoneWithDefaults) {
    auto order = parseOrder(words({7, 42, 0x12345678}));
    ASSERT_TRUE(order);
    EXPECT_EQ(order->step, 42u);
    EXPECT_EQ(order->argument, 0x12345678u);
    EXPECT_EQ(order->firstList, (std::vector<std::uint32_t>{0xFFFFFFFFu}));
    EXPECT_EQ(order->orderType, 0u);
    EXPECT_TRUE(order->secondList.empty());
    EXPECT_EQ(order->params, (std::array<std::uint32_t, 4>{0xFFFFFFFFu, 0xFFFFFFFFu, 0, 0}));
    EXPECT_EQ(order->extraParam + order->flag + order->text.size(), 0u);
    EXPECT_EQ(serializeOrder(*order), words({1, 42, 0x12345678}));  // type written as 1
    Order built;  // the same defaults
    built.step = 9;
    built.argument = 3;
    EXPECT_EQ(serializeOrder(built), words({1, 9, 3}));
}

TEST(MatchOrder, FullFormRoundTripsAndStepDoneShrinksToTheShortForm) {
    Bytes bytes = fullOrder(100, 5, {1, 2, 3}, 77, {9, 8}, "move here");
    ASSERT_EQ(bytes.size(), 46u + 4 * (3 + 2) + 9);
    auto order = parseOrder(bytes);
    ASSERT_TRUE(order);
    EXPECT_EQ(order->firstList, (std::vector<std::uint32_t>{1, 2, 3}));
    EXPECT_EQ(order->orderType, 77u);
    EXPECT_EQ(order->secondList, (std::vector<std::uint32_t>{9, 8}));
    EXPECT_EQ(order->params[3], 0x44444444u);
    EXPECT_EQ(order->extraParam, 0x55555555u);
    EXPECT_EQ(order->flag, 0x66u);
    EXPECT_EQ(order->text, "move here");
    EXPECT_FALSE(isStepDoneOrder(*order));
    EXPECT_EQ(serializeOrder(*order), bytes);

    auto done = parseOrder(fullOrder(12, 2, {0xFFFFFFFFu, 4}, 0, {1}, "x"));
    ASSERT_TRUE(done);
    EXPECT_EQ(serializeOrder(*done), words({1, 12, 2}));
    auto notDone = parseOrder(fullOrder(12, 2, {4, 0xFFFFFFFFu}, 0, {}, ""));  // the mark counts only first
    ASSERT_TRUE(notDone);
    EXPECT_FALSE(isStepDoneOrder(*notDone));

    Order resync;
    resync.step = 39;
    resync.argument = 0xFFFFFFFFu;
    resync.firstList.clear();
    resync.orderType = kResyncOrderType;
    EXPECT_EQ(serializeOrder(resync), resyncOrder(39));
}

TEST(MatchOrder, TruncatedOrOverrunningPacketsAreRejected) {
    for (std::size_t n = 0; n < 12; ++n) EXPECT_FALSE(parseOrder(Bytes(n, 0))) << n;
    Bytes whole = fullOrder(1, 2, {3, 4}, 5, {6}, "abc");
    for (std::size_t n = 13; n < whole.size(); ++n) EXPECT_FALSE(parseOrder(whole.data(), n)) << n;
    Bytes bigCount = whole;
    bigCount[15] = 0x7F;  // first count
    EXPECT_FALSE(parseOrder(bigCount));
    Bytes trailing = whole;  // bytes after the text are tolerated
    trailing.push_back(0xAB);
    ASSERT_TRUE(parseOrder(trailing));
    EXPECT_EQ(parseOrder(trailing)->text, "abc");
}
