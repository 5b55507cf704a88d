#include <gtest/gtest.h>

#include "protocol/messages.h"
#include "protocol/wire.h"

TEST(Reader, ReadsWordsStringsAndBlobsInOrder) {
    Bytes b = Writer().u32(0x04030201).str("ab").u8(7).blob(Bytes{9, 8}).str("").take();
    EXPECT_EQ(b, (Bytes{1, 2, 3, 4, 'a', 'b', 0, 7, 2, 0, 0, 0, 9, 8, 0}));
    Reader r(b);
    EXPECT_EQ(r.u32(), 0x04030201u);
    EXPECT_EQ(r.str(), "ab");
    EXPECT_EQ(r.u8(), 7);
    ByteView blob = r.blob();
    EXPECT_EQ(Bytes(blob.begin(), blob.end()), (Bytes{9, 8}));
    EXPECT_EQ(r.str(), "");
    EXPECT_TRUE(r.ok());
    EXPECT_EQ(r.remaining(), 0u);
}

TEST(Reader, EveryReadPastTheEndFailsAndStaysFailed) {
    Bytes three{1, 2, 3};
    Reader r(three);
    EXPECT_EQ(r.u32(), 0u);
    EXPECT_FALSE(r.ok());
    EXPECT_EQ(r.u8(), 0u);  // nothing after a failure
    EXPECT_FALSE(r.ok());

    Bytes noNul{'a', 'b', 'c'};
    Reader s(noNul);
    EXPECT_EQ(s.str(), "");
    EXPECT_FALSE(s.ok());

    Bytes longBlob = Writer().u32(5).u8(1).u8(2).take();
    Reader t(longBlob);
    EXPECT_TRUE(t.blob().empty());
    EXPECT_FALSE(t.ok());

    // A blob length near 2^32 must not wrap the bounds check.
    Bytes hugeBlob = Writer().u32(0xFFFFFFFFu).u8(1).take();
    Reader u(hugeBlob);
    u.blob();
    EXPECT_FALSE(u.ok());
}

TEST(Reader, CountsLargerThanTheDataFail) {
    Bytes b = Writer().u32(3).u32(1).u32(2).take();  // claims 3 words, carries 2
    Reader r(b);
    EXPECT_EQ(r.count(4), 0u);
    EXPECT_FALSE(r.ok());

    Bytes ok = Writer().u32(2).u32(1).u32(2).take();
    Reader q(ok);
    EXPECT_EQ(q.count(4), 2u);
    EXPECT_TRUE(q.ok());
}

TEST(ServerStatus, EmptyDescriptionIs29ExactBytes) {
    ServerStatus s;
    s.runningRooms = 1;
    s.playersInRunningRooms = 2;
    s.playersInOtherRooms = 3;
    s.playersInNoRoom = 4;
    s.protocolVersion = 4;
    Bytes b = s.encode();
    EXPECT_EQ(b, (Bytes{1, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 0, 0, 2, 0, 0, 0, 3, 0, 0, 0, 4, 0, 0, 0, 4, 0, 0, 0}));
    auto back = ServerStatus::decode(b);
    ASSERT_TRUE(back);
    EXPECT_EQ(back->playersInNoRoom, 4u);
    b.pop_back();
    EXPECT_FALSE(ServerStatus::decode(b));
}

#include "game/order.h"

// The relay's allocation-free check must accept exactly what the full
// decoder accepts, and agree on what it reads.
TEST(OrderInspection, AgreesWithTheFullDecoderOnEveryPrefixAndMutation) {
    Order full;
    full.step = 9;
    full.argument = 4;
    full.firstList = {7, 8};
    full.orderType = 901;
    full.secondList = {1};
    full.text = "abc";
    Order done = full;
    done.firstList = {0xFFFFFFFFu, 3};
    done.orderType = 5;
    for (const Order& o : {full, done}) {
        Bytes b = serializeOrder(o);
        if (o.firstList.front() == 0xFFFFFFFFu) {
            // Only the short form comes out of the encoder; build the long one by hand.
            b = Writer().u32(1).u32(9).u32(4).u32(2).u32(0xFFFFFFFFu).u32(3).u32(5).u32(0)
                    .u32(0).u32(0).u32(0).u32(0).u32(0).u8(0).str("x").take();
        }
        for (std::size_t len = 0; len <= b.size() + 1; ++len) {
            Bytes cut(b.begin(), b.begin() + std::min(len, b.size()));
            if (len > b.size()) cut.push_back(0x55);  // trailing byte
            for (int variant = 0; variant < 3; ++variant) {
                Bytes v = cut;
                if (variant == 1 && v.size() > 12) v[12] = 0xFF;  // a huge first count
                if (variant == 2 && !v.empty()) v.back() = 'z';   // no NUL at the end
                auto parsed = parseOrder(ByteView(v));
                auto inspected = inspectOrder(ByteView(v));
                ASSERT_EQ(parsed.has_value(), inspected.has_value()) << len << " " << variant;
                if (!parsed) continue;
                EXPECT_EQ(inspected->step, parsed->step);
                EXPECT_EQ(inspected->argument, parsed->argument);
                EXPECT_EQ(inspected->orderType, parsed->orderType);
                EXPECT_EQ(inspected->stepDone, isStepDoneOrder(*parsed));
            }
        }
    }
}
