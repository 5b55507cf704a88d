// The invariants are the oracle of every state test and of the session
// fuzzer: a check that no longer fires would let a broken state pass them
// all. Each test breaks one thing in a sound state, expects its own line,
// and puts the thing back before the harness goes on.

#include <gtest/gtest.h>

#include <deque>
#include <string>
#include <vector>

#include "app/invariants.h"
#include "lobby/lobby.h"
#include "support/harness.h"

namespace {

// What brokenInvariant says while field holds value; the field is put back after.
template <typename T>
std::string whileSet(Harness& h, T& field, T value) {
    const T kept = field;
    field = value;
    std::string said = brokenInvariant(h.server);
    field = kept;
    return said;
}

}  // namespace

TEST(Invariants, ASoundServerBreaksNone) {
    Harness h;
    h.runningRoom(3);
    h.step();
    EXPECT_EQ(brokenInvariant(h.server), "");
}

TEST(Invariants, TheMatchsCountersMustStayInTheirRanges) {
    Harness h;
    Room& room = h.runningRoom(2);
    Match& m = room.match;
    EXPECT_EQ(whileSet(h, m.orderDelay, 1u), "order delay out of range");
    EXPECT_EQ(whileSet(h, m.orderDelay, 2u), "");
    EXPECT_EQ(whileSet(h, m.orderDelay, 64u), "");
    EXPECT_EQ(whileSet(h, m.orderDelay, 65u), "order delay out of range");
    EXPECT_EQ(whileSet(h, m.lagReports, -1), "lag reports out of range");
    EXPECT_EQ(whileSet(h, m.lagReports, kMaxLagReports), "");
    EXPECT_EQ(whileSet(h, m.lagReports, kMaxLagReports + 1), "lag reports out of range");
    EXPECT_EQ(whileSet(h, m.delayHold, -1), "delay hold out of range");
    EXPECT_EQ(whileSet(h, m.delayHold, kMaxDelayHold), "");
    EXPECT_EQ(whileSet(h, m.delayHold, kMaxDelayHold + 1), "delay hold out of range");
    EXPECT_EQ(whileSet(h, room.hostSlot, static_cast<std::uint32_t>(kSlotCount - 1)), "");
    EXPECT_EQ(whileSet(h, room.hostSlot, static_cast<std::uint32_t>(kSlotCount)), "host slot out of range");
}

TEST(Invariants, ARoomsPhasesComeInOrder) {
    Harness h;
    Room& room = h.runningRoom(2);
    EXPECT_EQ(whileSet(h, room.started, false), "running before started");
    EXPECT_EQ(whileSet(h, room.open, true), "started but open");
    EXPECT_EQ(whileSet(h, room.id, room.id + 1), "room " + std::to_string(room.id) + " filed under another ID");
}

TEST(Invariants, EveryPlayerHasItsSetupItsPlaceAndOneSlot) {
    Harness h;
    Room& room = h.roomOfReady(2);
    Slot& first = room.slots[0];
    auto setup = std::move(first.info);
    EXPECT_EQ(brokenInvariant(h.server), "a player's slot has no setup");
    first.info = std::move(setup);
    EXPECT_EQ(whileSet(h, room.slots[1].peer, first.peer), "a peer holds two slots");
    EXPECT_EQ(whileSet(h, h.server.rooms.awaySeats, 1u), "the count of away seats is off");
}

TEST(Invariants, OnlyARunningMatchWhereDropsKeepSeatsHasPlayersAway) {
    Harness h;
    Room& room = h.roomOfReady(2);
    const std::string outside = "a player away or back outside a running room where drops keep seats";
    EXPECT_EQ(whileSet(h, room.slots[1].state, PlayerState::away), outside);
    h.markRunning(room);
    EXPECT_EQ(whileSet(h, room.slots[1].state, PlayerState::away), outside);
    room.rejoinable = true;
    // Inside such a match an away player has no connection.
    EXPECT_EQ(whileSet(h, room.slots[1].state, PlayerState::away),
              "an away player with a connection, or one without that is not away");
}

TEST(Invariants, EveryRunningMatchIsOnTheDelayScheduleOnceAndNoOtherRoomIs) {
    Harness h;
    Room& room = h.runningRoom(2);
    h.step();  // the match leaves the newcomers for its slot on the wheel
    RoomRegistry& rooms = h.server.rooms;
    const std::string once = "room " + std::to_string(room.id) + " is not in the delay schedule once";
    EXPECT_EQ(whileSet(h, rooms.newlyRunning, std::vector<Room*>{&room}), once);
    Room stranger;
    std::vector<Room*> withStranger = rooms.delayWheel[0];
    withStranger.push_back(&stranger);
    EXPECT_EQ(whileSet(h, rooms.delayWheel[0], withStranger),
              "the delay schedule holds a room that is gone or not running");
    EXPECT_EQ(whileSet(h, rooms.passesDue, std::deque<Room*>{&stranger}),
              "a delay pass is due for a room that is gone or not running");
    EXPECT_EQ(whileSet(h, rooms.passesDue, std::deque<Room*>{&room}), "");
}

TEST(Invariants, AnAddressBudgetCountsItsPeers) {
    Harness h;
    h.connect(0);
    AddressBudget& budget = h.server.addressBudgets.begin()->second;
    EXPECT_EQ(whileSet(h, budget.peers, budget.peers + 1), "an address budget counts its peers wrong");
}
