#include <gtest/gtest.h>

#include "game/match.h"
#include "protocol/send.h"
#include "support/match_rooms.h"

namespace {
std::vector<ENetPeer*> recipients(const std::vector<SentPacket>& sent, std::uint8_t channel, const Bytes& bytes) {
    std::vector<ENetPeer*> out;
    for (const auto& s : sent)
        if (s.channel == channel && s.data == bytes) out.push_back(s.peer);
    return out;
}
}  // namespace

TEST(MatchRelay, OrdinaryOrderGoesByteForByteToEveryOtherOccupiedSlot) {
    Harness h;
    Room& room = addMatchRoom(h, 1, {0, 1, 3});
    room.slots[2].info = std::make_unique<PlayerSetup>();  // a player without a connection
    addMatchRoom(h, 2, {4});
    Bytes order = fullOrder(20, 99, {1, 2}, 500, {3}, "attack", 0xDEAD);
    order.push_back(0xEE);  // what comes in goes out
    h.receive(1, kOrderChannel, order);
    auto sent = h.takeSent();
    EXPECT_EQ(sent.size(), 2u);
    EXPECT_EQ(recipients(sent, kOrderChannel, order), (std::vector<ENetPeer*>{h.peer(0), h.peer(3)}));

    h.receive(4, kOrderChannel, order);  // alone: nowhere
    h.connect(5);
    h.takeLogs();
    h.receive(5, kOrderChannel, Bytes{1, 2});  // in no room: ignored without a word
    EXPECT_TRUE(h.takeSent().empty());
    EXPECT_TRUE(h.takeLogs().empty());
    room.running = false;  // not consulted
    h.receive(0, kOrderChannel, order);
    EXPECT_EQ(recipients(h.takeSent(), kOrderChannel, order), (std::vector<ENetPeer*>{h.peer(1), h.peer(3)}));
}

TEST(MatchRelay, StepCompletesWhenEveryOccupiedSlotHasReported) {
    Harness h;
    Room& room = addMatchRoom(h, 1, {0, 1, 2});
    room.slots[5].info = std::make_unique<PlayerSetup>();  // never waited for
    h.receive(0, kOrderChannel, stepDone(7, 0));
    h.receive(2, kOrderChannel, stepDone(7, 2));
    EXPECT_TRUE(h.takeSent().empty());
    h.receive(1, kOrderChannel, stepDone(7, 1));
    auto sent = h.takeSent();
    EXPECT_EQ(sent.size(), 3u);
    EXPECT_EQ(recipients(sent, kOrderChannel, words({1, 7, 1})),
              (std::vector<ENetPeer*>{h.peer(0), h.peer(1), h.peer(2)}));
    EXPECT_TRUE(room.stepReports.empty());
    EXPECT_EQ(room.lastCompletedStep, 7u);

    // Completed after a later step: the last completed step goes back.
    for (std::uint32_t s : {0u, 1u, 2u}) h.receive(s, kOrderChannel, stepDone(6, s));
    for (std::uint32_t s : {0u, 1u, 2u}) h.receive(s, kOrderChannel, stepDone(5, s));
    EXPECT_EQ(room.lastCompletedStep, 5u);
    EXPECT_EQ(h.takeSent().size(), 6u);

    // Slot 0 reports for slot 1 too; a completed step reported again starts over.
    h.receive(0, kOrderChannel, stepDone(7, 1));
    h.receive(0, kOrderChannel, stepDone(7, 0));
    EXPECT_TRUE(h.takeSent().empty());
    h.receive(2, kOrderChannel, stepDone(7, 2));
    EXPECT_EQ(recipients(h.takeSent(), kOrderChannel, words({1, 7, 2})).size(), 3u);

    for (std::uint32_t bad : {8u, 0xFFFFFFFFu}) h.receive(0, kOrderChannel, stepDone(4, bad));
    markStepDone(room, -3, 4);
    EXPECT_TRUE(room.stepReports.empty());
    EXPECT_TRUE(h.takeSent().empty());
}

TEST(MatchRelay, ShortFormAlwaysStepDoneLongFormOnlyWithTheMark) {
    Harness h;
    Room& room = addMatchRoom(h, 1, {0});
    h.receive(0, kOrderChannel, words({5, 11, 0}));  // alone: back to the sender at once
    auto sent = h.takeSent();
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(sent[0].peer, h.peer(0));
    EXPECT_EQ(sent[0].data, words({1, 11, 0}));
    h.receive(0, kOrderChannel, fullOrder(12, 0, {0xFFFFFFFFu, 7}, 33, {}, "t"));
    EXPECT_EQ(recipients(h.takeSent(), kOrderChannel, words({1, 12, 0})).size(), 1u);
    h.receive(0, kOrderChannel, fullOrder(13, 0, {7, 0xFFFFFFFFu}, 33, {}, "t"));
    EXPECT_TRUE(h.takeSent().empty());
    EXPECT_EQ(room.lastCompletedStep, 12u);
}

TEST(MatchRelay, OrdersBeyondTheResyncStepAreDroppedAndMalformedOnesLogged) {
    Harness h;
    Room& room = addMatchRoom(h, 1, {0, 1});
    room.resyncStep = 10;
    h.receive(0, kOrderChannel, fullOrder(11, 0, {}, 1, {}, ""));
    h.receive(0, kOrderChannel, stepDone(11, 0));
    h.receive(1, kOrderChannel, stepDone(11, 1));
    h.receive(0, kOrderChannel, checksumOrder(11, 5));
    EXPECT_TRUE(h.takeSent().empty());
    EXPECT_TRUE(room.stepReports.empty());
    EXPECT_TRUE(room.checksumRecords.empty());
    Bytes atLimit = fullOrder(10, 0, {}, 1, {}, "");
    h.receive(0, kOrderChannel, atLimit);
    EXPECT_EQ(recipients(h.takeSent(), kOrderChannel, atLimit).size(), 1u);
    EXPECT_TRUE(h.takeLogs().empty());

    Bytes noNul = fullOrder(1, 0, {}, 1, {}, "abc");
    noNul.pop_back();
    for (const Bytes& bad : {Bytes{}, Bytes(11, 0), Bytes(45, 0), noNul}) {
        h.receive(0, kOrderChannel, bad);
        EXPECT_EQ(h.takeLogs(), (std::vector<std::string>{"#### ERROR \n|||| Malformed order on channel 3, " +
                                                          std::to_string(bad.size()) + " bytes. Dropped\n####"}));
    }
    EXPECT_TRUE(h.takeSent().empty());
}

TEST(MatchControl, HoldAndLagRequestsAreCappedUnknownTypesLogged) {
    Harness h;
    Room& room = addMatchRoom(h, 1, {0});
    Room& other = addMatchRoom(h, 2, {1});
    h.receive(0, kMatchControlChannel, words({4, 1}));
    h.receive(0, kMatchControlChannel, words({5}));  // nothing after the type is read
    EXPECT_EQ(room.delayHold, 2);
    EXPECT_EQ(room.lagReports, 1);
    for (int i = 0; i < 30; ++i) {
        h.receive(0, kMatchControlChannel, words({4, 1}));
        h.receive(0, kMatchControlChannel, words({5, 1}));
    }
    EXPECT_EQ(room.delayHold, 24);
    EXPECT_EQ(room.lagReports, 24);
    EXPECT_EQ(other.delayHold + other.lagReports, 0);

    h.connect(2);
    h.takeLogs();
    h.receive(2, kMatchControlChannel, words({4, 1}));  // in no room: nothing
    EXPECT_TRUE(h.takeLogs().empty());
    for (std::uint32_t type : {1u, 2u, 6u, 0xFFFFFFFFu}) h.receive(0, kMatchControlChannel, words({type, 1}));
    std::vector<std::string> expected;
    for (const char* t : {"1", "2", "6", "4294967295"})
        expected.push_back(std::string("#### ERROR \n|||| Unknown ingame message ") + t + ". Nothing to do with it\n####");
    EXPECT_EQ(h.takeLogs(), expected);
    EXPECT_TRUE(h.takeSent().empty());
}
