// A running match through the dispatch table: the relay, step completion,
// checksums, desyncs and resync, the order-delay controller and leaving.

#include <gtest/gtest.h>

#include "lobby/lobby.h"
#include "log/metrics.h"
#include "support/harness.h"

namespace {

Bytes stepDone(std::uint32_t step, std::uint32_t slot) { return words({1, step, slot}); }

std::string error(const std::string& text) { return "#### ERROR \n" + text + "\n####"; }

}  // namespace

TEST(Match, OrdersGoByteForByteToTheOthersAndStepsCompleteWhenEverySeatReported) {
    Harness h;
    Room& room = h.runningRoom(3);
    // The type word is not examined; a byte after the text rides along.
    Bytes ordinary = Writer().u32(9).u32(3).u32(4).u32(1).u32(7).u32(5).u32(0).u32(1).u32(2).u32(3).u32(4).u32(0)
                         .u8(1).str("t").u8(0xEE).take();
    h.receive(1, kOrderChannel, ordinary);
    EXPECT_EQ(h.takeSent(), toEach({0, 2}, kOrderChannel, ordinary));

    h.receive(0, kOrderChannel, stepDone(7, 0));
    h.receive(0, kOrderChannel, stepDone(7, 2));  // the slot the order names, not the sender's
    h.receive(0, kOrderChannel, stepDone(7, 9));  // no such slot
    EXPECT_TRUE(h.takeSent().empty());
    Order longForm;  // a full-form order whose first list starts with the mark
    longForm.step = 7, longForm.argument = 1, longForm.orderType = 5;
    Bytes full = encode(longForm);
    h.receive(1, kOrderChannel, full);
    EXPECT_EQ(h.takeSent(), toEach({0, 1, 2}, kOrderChannel, stepDone(7, 1)));
    EXPECT_EQ(room.match.lastCompletedStep, 7u);
    EXPECT_TRUE(room.match.stepReports.empty());

    // A step completed after a later one sets the last completed step back.
    for (std::uint32_t slot = 0; slot < 3; ++slot) h.receive(slot, kOrderChannel, stepDone(5, slot));
    EXPECT_EQ(room.match.lastCompletedStep, 5u);
    h.receive(0, kOrderChannel, stepDone(6 + kStepWindow, 0));  // too far ahead to be kept
    h.receive(0, kOrderChannel, stepDone(5 + kStepWindow, 0));
    EXPECT_EQ(room.match.stepReports.size(), 1u);
}

TEST(Match, ResyncStepMalformedOrdersAndStrangers) {
    Harness h;
    Room& room = h.runningRoom(1);
    h.connect(1);
    room.match.resyncStep = 10;
    h.receive(0, kOrderChannel, stepDone(11, 0));
    h.receive(0, kOrderChannel, checksumOrder(11, 5));
    EXPECT_TRUE(h.takeSent().empty());
    EXPECT_TRUE(room.match.checksumRecords.empty());
    h.receive(0, kOrderChannel, stepDone(10, 0));
    EXPECT_EQ(h.takeSent(), toEach({0}, kOrderChannel, stepDone(10, 0)));
    h.takeLogs();
    h.receive(0, kOrderChannel, Bytes(11, 0));
    h.receive(1, kOrderChannel, Bytes(11, 0));  // outside every room: not even looked at
    h.receive(1, kOrderChannel, stepDone(10, 0));
    EXPECT_EQ(h.takeLogs(), (std::vector<std::string>{error("|||| Malformed order on channel 3, 11 bytes. Dropped")}));
    EXPECT_TRUE(h.takeSent().empty());
}

TEST(Match, ChecksumsCompareOncePerStepAndAMismatchStartsTheResync) {
    Harness h;
    Room& room = h.runningRoom(3);
    room.match.lastCompletedStep = 20;
    // Checksums from one player for ever new steps: at most a window's worth
    // of records, and none for steps far ahead.
    h.receive(0, kOrderChannel, checksumOrder(20 + kStepWindow, 1));
    h.receive(0, kOrderChannel, checksumOrder(21 + kStepWindow, 1));
    EXPECT_EQ(room.match.checksumRecords.size(), 1u);
    room.match.lastCompletedStep = 21 + 2 * kStepWindow;
    h.receive(0, kOrderChannel, checksumOrder(21 + 2 * kStepWindow, 1));
    EXPECT_EQ(room.match.checksumRecords.begin()->first, 21 + 2 * kStepWindow);  // the old one pruned
    EXPECT_EQ(room.match.checksumRecords.size(), 1u);
    room.match.checksumRecords.clear();
    room.match.lastCompletedStep = 20;

    for (std::size_t p = 0; p < 3; ++p) h.receive(p, kOrderChannel, checksumOrder(4, 5));
    h.receive(0, kOrderChannel, checksumOrder(5, 1));
    h.receive(1, kOrderChannel, checksumOrder(5, 2));
    h.receive(2, kOrderChannel, checksumOrder(5, 0));  // zero is no checksum yet
    EXPECT_TRUE(h.takeSent().empty());
    EXPECT_EQ(room.match.checksumRecords.size(), 1u);
    const auto desyncsBefore = metrics().desyncs.load();
    h.takeLogs();
    h.receive(2, kOrderChannel, checksumOrder(5, 1));
    EXPECT_EQ(h.takeLogs(), (std::vector<std::string>{error("|||| Checksums failed at step 5 in room 1")}));
    EXPECT_EQ(metrics().desyncs.load(), desyncsBefore + 1);
    EXPECT_TRUE(room.match.checksumRecords.empty());
    EXPECT_EQ(room.match.desyncCount, 1u);
    EXPECT_EQ(room.match.resyncStep, 21u);
    Order resync;
    resync.step = 21, resync.argument = 0xFFFFFFFFu, resync.firstList = {}, resync.orderType = kResyncOrderType;
    EXPECT_EQ(h.takeSent(), toEach({0, 1, 2}, kTextChannel, encode(Text{"Desync detected... attempting resync..."})) +
                                toEach({0, 1, 2}, kOrderChannel, serializeOrder(resync)));

    // From the fourth desync on, the players hear the count.
    room.match.desyncCount = 3;
    for (std::size_t p = 0; p < 3; ++p) h.receive(p, kOrderChannel, checksumOrder(6, 7 + (p == 1)));
    auto sent = h.takeSent();
    ASSERT_EQ(sent.size(), 9u);
    EXPECT_EQ(sent[3], (Sent{0, kTextChannel,
                             encode(Text{"This is desync number 4. Consider quitting match if this happens too often"})}));
}

TEST(Match, ResyncReportsFileTheEvidenceAndEndTheResync) {
    TempDataRoot root;
    Harness h;
    Room& room = h.runningRoom(2);
    h.connect(2);
    room.match.desyncCount = 2;
    room.match.resyncStep = 9;
    Bytes world{1, 2, 3}, log{'l', 'o', 'g'};
    Bytes report = encode(ResyncReport{1, world, log});
    h.receive(2, kMatchControlChannel, report);  // a stranger's report does nothing
    EXPECT_TRUE(h.takeSent().empty());
    h.receive(1, kMatchControlChannel, report);
    EXPECT_EQ(readWholeFile(root / "server_data/resyncs/room1_desync2_peer1.world"), "\x01\x02\x03");
    EXPECT_EQ(readWholeFile(root / "server_data/resyncs/room1_desync2_peer1.log"), "log");
    EXPECT_EQ(room.match.resyncStep, 0xFFFFFFFFu);
    EXPECT_EQ(room.match.delayHold, kMaxDelayHold);
    EXPECT_EQ(h.takeSent(), toEach({0, 1}, kMatchControlChannel, report));
    // Past the room's allowance the evidence is relayed but not written.
    h.server.limits.resyncBytesPerRoom = 11;
    room.match.desyncCount = 3;
    h.takeLogs();
    h.receive(0, kMatchControlChannel, report);
    EXPECT_EQ(h.takeSent(), toEach({0, 1}, kMatchControlChannel, report));
    EXPECT_FALSE(std::filesystem::exists(root / "server_data/resyncs/room1_desync3_peer0.world"));
    EXPECT_EQ(h.takeLogs(),
              std::vector<std::string>{error("|||| Resync evidence of room 1 over its limit of 11 bytes: not written")});
    report.pop_back();
    h.receive(0, kMatchControlChannel, report);
    EXPECT_EQ(h.takeLogs(),
              (std::vector<std::string>{error("|||| Malformed resync report on channel 2, 21 bytes. Dropped")}));
}

TEST(Match, DelayDecisionsHoldsAndLagReports) {
    Harness h;
    Room& room = h.runningRoom(2);
    Match& m = room.match;
    h.peer(0)->roundTripTime = 40;
    h.peer(1)->roundTripTime = 49;
    // A pass every 15th call after the first 15, a decision every 41st pass.
    for (int call = 0; call < 15 + 15 * 40; ++call) h.step();
    EXPECT_TRUE(h.takeSent().empty());
    h.step();
    EXPECT_EQ(h.takeSent(), toEach({0, 1}, kMatchControlChannel, encode(DelayDecrease{})));
    EXPECT_EQ(m.orderDelay, 2u);
    // One pass in any 15 calls, and with no cooldown it decides.
    auto decideNow = [&] {
        m.delayCooldown = 0;
        for (int call = 0; call < 15; ++call) h.step();
    };
    h.peer(1)->roundTripTime = 50;  // 2 x 50 is not below 50 x 2
    decideNow();
    EXPECT_TRUE(h.takeSent().empty());

    for (int i = 0; i < 30; ++i) h.receive(1, kMatchControlChannel, words({5, 1}));
    EXPECT_EQ(m.lagReports, kMaxLagReports);
    m.lastCompletedStep = 100;  // lengthening waits for more than 100 steps
    decideNow();
    EXPECT_TRUE(h.takeSent().empty());
    m.lagReports = 2, m.lastCompletedStep = 101;
    decideNow();
    EXPECT_EQ(h.takeSent(), toEach({0, 1}, kMatchControlChannel, encode(DelayIncrease{})));
    EXPECT_EQ(m.orderDelay, 3u);
    EXPECT_EQ(m.maxOrderDelay, 3u);
    EXPECT_EQ(m.lagReports, 0);

    for (int i = 0; i < 30; ++i) h.receive(0, kMatchControlChannel, words({4}));
    EXPECT_EQ(m.delayHold, kMaxDelayHold);
    m.lagReports = 1;
    decideNow();  // a hold blocks the lengthening
    EXPECT_TRUE(h.takeSent().empty());
    h.takeLogs();
    h.receive(0, kMatchControlChannel, words({6, 1}));
    EXPECT_EQ(h.takeLogs(),
              (std::vector<std::string>{error("|||| Unknown ingame message 6. Nothing to do with it")}));
}

TEST(Match, MatchesThatDecideTogetherTellAtMostSixtyFourPlayersARoomWork) {
    constexpr std::size_t kRooms = 9;
    Harness h(8 * kRooms);
    std::vector<Room*> rooms;
    for (std::size_t r = 0; r < kRooms; ++r) {
        const std::size_t first = 8 * r;
        for (std::size_t i = first; i < first + 8; ++i) h.connect(i);
        h.lobby(first, CreateRoom{1, "", "data", 77});
        const std::uint32_t id = h.server.rooms.nextRoomId - 1;
        for (std::size_t i = first + 1; i < first + 8; ++i) h.lobby(i, JoinRoom{1, id});
        for (std::size_t i = first; i < first + 8; ++i)
            h.lobby(i, setupOf(static_cast<std::uint32_t>(i - first), 1, "P" + std::to_string(i)));
        Room& room = h.room(id);
        h.markRunning(room);
        rooms.push_back(&room);
    }
    h.takeSent();
    h.takeLogs();
    auto told = [](std::size_t firstRoom, std::size_t count, const Bytes& notice) {
        std::vector<Sent> out;
        for (std::size_t peer = 8 * firstRoom; peer < 8 * (firstRoom + count); ++peer)
            out.push_back({peer, kMatchControlChannel, notice});
        return out;
    };
    const Bytes decrease = encode(DelayDecrease{});

    for (int call = 0; call < 15 + 15 * 40; ++call) h.step();
    EXPECT_TRUE(h.takeSent().empty());
    // The room work that falls on all nine decisions makes eight of them;
    // the ninth waits for the next room work, and is decided there.
    rooms[8]->match.lagReports = 1;
    h.step();
    EXPECT_EQ(h.takeSent(), told(0, 8, decrease));
    EXPECT_EQ(h.server.rooms.passesDue, std::deque<Room*>{rooms[8]});
    rooms[8]->match.lagReports = 0;
    h.step();
    EXPECT_EQ(h.takeSent(), told(8, 1, decrease));
    EXPECT_TRUE(h.server.rooms.passesDue.empty());

    // The late pass kept the match's pace: its next pass comes 15 room
    // works after the one it was due on, alone and so at once.
    rooms[8]->match.delayCooldown = 0;
    for (int call = 0; call < 13; ++call) h.step();
    EXPECT_TRUE(h.takeSent().empty());
    h.step();
    EXPECT_EQ(h.takeSent(), told(8, 1, decrease));

    // A room deleted while its pass waits is no longer due.
    for (Room* room : rooms) room->match.delayCooldown = 0;
    for (int call = 0; call < 15; ++call) h.step();
    EXPECT_EQ(h.takeSent(), told(0, 8, decrease));
    for (std::size_t i = 64; i < 72; ++i) h.disconnect(i);
    h.takeSent();
    h.step();
    EXPECT_TRUE(h.server.rooms.passesDue.empty());
    EXPECT_EQ(h.server.rooms.byId.size(), kRooms - 1);
}

TEST(Match, LeavingCompletesTheLeaversStepsThenTellsTheOthers) {
    Harness h;
    h.runningRoom(3);
    h.receive(0, kOrderChannel, stepDone(5, 0));
    h.receive(2, kOrderChannel, stepDone(5, 2));
    h.receive(2, kOrderChannel, stepDone(6, 2));
    h.receive(1, kMatchControlChannel, words({3}));
    EXPECT_EQ(h.takeSent(), toEach({0, 1, 2}, kOrderChannel, stepDone(5, 1)) +
                                toEach({0, 1, 2}, kMatchControlChannel, encode(PlayerLeftMatch{1, 1})) +
                                toEach({0, 1, 2}, kTextChannel, encode(Text{"P1 has left the game"})) +
                                toEach({0, 2}, kLobbyChannel, freshPlayerSetup(1)->bytes) +
                                toEach({0, 2}, kLobbyChannel, encode(SlotState{1, 1, 0})));
    h.receive(0, kOrderChannel, stepDone(8, 0));
    h.disconnect(2);  // step 6 still waits for slot 0; step 8 completes
    auto sent = h.takeSent();
    ASSERT_GE(sent.size(), 5u);
    EXPECT_EQ(sent[0], (Sent{0, kOrderChannel, stepDone(8, 2)}));
    EXPECT_EQ(sent[4], (Sent{0, kTextChannel, encode(Text{"P2 has been disconnected from server"})}));
}
