// The variable-length lobby records: exact layout and length, and decoding
// that keeps every byte the client sent.

#include <gtest/gtest.h>

#include "lobby/messages.h"

TEST(LobbyMessages, PlayerSetupAndSettingsLayouts) {
    PlayerSetup s;
    s.secondWord = 3;
    s.slot = 2;
    s.ready = 1;
    s.playerTag = 4;
    s.startLocation = 5;
    s.clientValue1 = 6;
    s.clientValue2 = 7;
    s.clientValue3 = 8;
    s.playerName = "Ann";
    s.clientPairs = {{10, "ab"}, {11, ""}};
    s.clientStrings = {"x", "yz"};
    Bytes b = encodePlayerSetup(s);
    EXPECT_EQ(b, Writer().u32(5).u32(3).u32(2).u32(1).u32(4).u32(5).u32(6).u32(7).u32(8).str("Ann")
                     .u32(2).u32(10).str("ab").u32(11).str("").u32(2).str("x").str("yz").take());
    EXPECT_EQ(b.size(), 45u + 3 + (5 + 2) + (5 + 0) + (1 + 1) + (1 + 2));

    b.push_back(0x77);  // bytes after the last field stay with the record
    auto d = decodePlayerSetup(b);
    ASSERT_TRUE(d);
    EXPECT_EQ(d->bytes, b);
    EXPECT_EQ(d->clientPairs, s.clientPairs);
    EXPECT_EQ(d->clientStrings, s.clientStrings);
    d->ready = 0;
    rebuildPlayerSetup(*d);  // encoded anew: second header word 1, no tail
    EXPECT_EQ(d->bytes.size(), b.size() - 1);
    EXPECT_EQ(d->bytes[4], 1);

    EXPECT_EQ(freshPlayerSetup(3)->bytes,
              Writer().u32(5).u32(1).u32(3).u32(0).u32(0).u32(0).u32(0).u32(0).u32(0xFFFFFFFFu).str("").u32(0).u32(0)
                  .take());
    EXPECT_EQ(defaultGameSettings().bytes, Writer().u32(13).u32(1).u32(0).str("").u32(8).u32(0).u32(0).take());
    EXPECT_EQ(RoomListEntry({1, 7, "Room", "ds", 99, 2, 5, 1}).encode().size(), 30u + 4 + 2);
}
