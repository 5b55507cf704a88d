// The lobby through the dispatch table: the message sequences of creating,
// joining, leaving, kicking and starting, and the place index under all of
// them (the harness checks the index against the rooms after every event).

#include <gtest/gtest.h>

#include <algorithm>

#include "lobby/lobby.h"
#include "support/harness.h"

namespace {

Bytes fresh(std::uint32_t slot) { return freshPlayerSetup(slot)->bytes; }
Bytes slotState(std::uint32_t slot, std::uint32_t closed = 0) { return encode(SlotState{1, slot, closed}); }
Bytes text(const std::string& t) { return encode(Text{t}); }

}  // namespace

TEST(Lobby, CreateThenJoinSendEachViewInOrder) {
    Harness h;
    h.connect(0);
    h.connect(1);
    h.takeLogs();
    h.lobby(0, CreateRoom{1, "", "data", 77});
    std::vector<Sent> created = {{0, 0, encode(JoinAccepted{1, 0, 1})}, {0, 0, fresh(0)}};
    for (std::uint32_t i = 1; i < 8; ++i) created.push_back({0, 0, slotState(i)});
    created = created + toEach({0}, 0, fresh(0)) + toEach({0}, 0, encode(HostStatus{1, 0})) +
              toEach({0}, 0, encode(HostStatus{1, 1})) + toEach({0}, 0, fresh(0));
    EXPECT_EQ(h.takeSent(), created);
    EXPECT_EQ(h.takeLogs(), (std::vector<std::string>{"Joined room 1 Peers in room: 1",
                                                      "Room \"Room # 1\", ID 1, data \"data\", checksum 77. "
                                                      "Total rooms: 1"}));

    h.lobby(0, setupOf(0, 1, "ann"));
    h.lobby(0, SlotState{1, 1, 1});  // the host closes slot 1
    h.takeSent();
    h.lobby(1, JoinRoom{1, 1});
    std::vector<Sent> joined = {{1, 0, encode(JoinAccepted{1, 2, 1})}, {1, 0, setupOf(0, 1, "ann").bytes},
                                {1, 0, slotState(1, 1)}, {1, 0, fresh(2)}};
    for (std::uint32_t i = 3; i < 8; ++i) joined.push_back({1, 0, slotState(i)});
    joined = joined + toEach({0, 1}, 0, fresh(2)) + toEach({1}, 0, h.room(1).settings.bytes);
    EXPECT_EQ(h.takeSent(), joined);
    EXPECT_EQ(placeOf(h.server.rooms, h.peer(1))->slot, 2u);

    // A second create or join from inside a room changes nothing.
    h.lobby(1, CreateRoom{1, "x", "d", 1});
    h.lobby(1, JoinRoom{1, 1});
    EXPECT_TRUE(h.takeSent().empty());
    EXPECT_EQ(h.server.rooms.byId.size(), 1u);
}

TEST(Lobby, JoinRefusals) {
    Harness h;
    Room& room = h.roomOfReady(2);
    h.connect(2);
    h.lobby(0, GameSettings{1, 0, "m", 2});  // capacity 2: full
    h.takeSent();
    h.lobby(2, JoinRoom{1, 9});
    h.lobby(2, JoinRoom{1, 1});
    room.open = false;
    h.lobby(2, JoinRoom{1, 1});
    EXPECT_EQ(h.takeSent(), (std::vector<Sent>{{2, 1, text("Cannot join: room does no longer exist!")},
                                               {2, 1, text("Cannot join: room is already full!")},
                                               {2, 1, text("Cannot join: game has already started!")}}));
    EXPECT_EQ(roomOf(h.server.rooms, h.peer(2)), nullptr);
}

TEST(Lobby, HostLeavesThenKickThenDisconnectThenTheEmptyRoomGoes) {
    Harness h;
    Room& room = h.roomOfReady(3);
    h.lobby(0, LeaveRoom{});
    EXPECT_EQ(h.takeSent(), toEach({1, 2}, 0, fresh(0)) + toEach({1, 2}, 0, slotState(0)) +
                                toEach({1}, 0, encode(HostStatus{1, 1})) +
                                toEach({1, 2}, 0, encode(setupOf(1, 0, "P1"))));
    EXPECT_EQ(room.hostSlot, 1u);
    EXPECT_EQ(placeOf(h.server.rooms, h.peer(0)), nullptr);

    h.lobby(2, Kick{1, 1});  // only the host may kick
    EXPECT_TRUE(h.takeSent().empty());
    h.lobby(1, Kick{1, 2});
    EXPECT_EQ(h.takeSent(), toEach({2}, 0, encode(Kicked{})) + toEach({1, 2}, 1, text("P2 has been kicked by host")) +
                                toEach({1}, 0, fresh(2)) + toEach({1}, 0, slotState(2)));
    h.takeLogs();
    h.disconnect(1);
    EXPECT_TRUE(std::none_of(h.server.rooms.places.begin(), h.server.rooms.places.end(),
                             [](const PlaceEntry& e) { return e.peer != nullptr; }));
    h.step();
    EXPECT_TRUE(h.server.rooms.byId.empty());
    EXPECT_EQ(h.takeLogs(), (std::vector<std::string>{"Left room 1 Peers in room: 0", "Disconnected 10.0.0.2:5001",
                                                      "2 peers now", "Empty room \"Room # 1\" with ID 1 deleted. ",
                                                      "Total rooms: 0"}));
    // IDs are never reused. Bytes a client chose reach the log escaped.
    h.lobby(0, CreateRoom{1, "ag\nain\x1b[2J", "d\x7f", 1});
    EXPECT_EQ(roomOf(h.server.rooms, h.peer(0))->id, 2u);
    EXPECT_EQ(roomOf(h.server.rooms, h.peer(0))->name, "ag\nain\x1b[2J");
    EXPECT_EQ(h.takeLogs().back(), "Room \"ag\\x0aain\\x1b[2J\", ID 2, data \"d\\x7f\", checksum 1. Total rooms: 1");
}

TEST(Lobby, HostRoleSlotStatesSettingsAndSetupConflicts) {
    Harness h;
    Room& room = h.roomOfReady(2);
    h.lobby(1, SetHost{1, 5});  // nobody in slot 5
    h.lobby(1, SlotState{1, 3, 1});  // not the host
    h.lobby(1, GameSettings{});
    EXPECT_TRUE(h.takeSent().empty());
    h.lobby(1, SetHost{1, 1});  // any member may hand the role on
    EXPECT_EQ(room.hostSlot, 1u);
    h.takeSent();
    h.lobby(1, SlotState{1, 0, 1});  // slot 0 holds a human
    EXPECT_FALSE(room.closed[0]);
    Bytes close = words({7, 5, 4, 1});  // relayed as it came, second word and all
    h.receive(1, 0, close);
    EXPECT_TRUE(room.closed[4]);
    GameSettings settings{1, 3, "map", 6};
    h.lobby(1, settings);
    EXPECT_EQ(h.takeSent(), toEach({0, 1}, 0, close) + toEach({0}, 0, encode(settings)));
    EXPECT_EQ(room.settings.mapName, "map");

    // A clashing tag or location sets every view back; nothing stored for the
    // slot: the sender sees the slot's state.
    h.lobby(0, setupOf(1, 1, "x", 0, 0));  // any slot may be written
    h.lobby(0, setupOf(0, 1, "P0", 3, 0));
    h.takeSent();
    h.lobby(1, setupOf(1, 1, "P1", 3, 0));
    EXPECT_EQ(h.takeSent(), toEach({0, 1}, 0, encode(setupOf(1, 1, "x"))));
    h.lobby(1, setupOf(6, 0, "bot", 3, 0));
    EXPECT_EQ(h.takeSent(), toEach({1}, 0, slotState(6)));
    h.lobby(1, setupOf(6, 0, "bot", 0, 0));
    EXPECT_EQ(room.slots[6].info->playerName, "bot");
}

TEST(Lobby, RoomListStatusEntriesThenDetails) {
    Harness h;
    Room& room = h.roomOfReady(2);
    h.connect(2);
    h.server.serverDescription = "desc";
    room.closed[7] = true;
    h.lobby(2, RoomListRequest{1, 1});
    EXPECT_EQ(h.takeSent(), (std::vector<Sent>{{2, 0, encode(ServerStatus{1, "desc", 0, 0, 2, 1, 4})},
                                               {2, 0, encode(RoomListEntry{1, 1, "Room # 1", "data", 77, 2, 7, 1})},
                                               {2, 0, room.settings.bytes},
                                               {2, 0, encode(RoomPlayerNames{1, {"P0", "P1"}})}}));
    // Entries and settings are kept encoded; every change shows in the next list.
    room.closed[6] = true;
    h.markRunning(room);
    h.lobby(2, RoomListRequest{1, 9});
    std::vector<Sent> sent = h.takeSent();
    ASSERT_EQ(sent.size(), 2u);
    EXPECT_EQ(sent[0].bytes, encode(ServerStatus{1, "desc", 1, 2, 0, 1, 4}));
    EXPECT_EQ(sent[1].bytes, encode(RoomListEntry{1, 1, "Room # 1", "data", 77, 2, 6, 0}));
    GameSettings changed = room.settings;
    changed.mapName = "other";
    h.lobby(0, changed);
    h.takeSent();
    h.lobby(2, RoomListRequest{1, 1});
    EXPECT_EQ(h.takeSent()[2].bytes, encode(changed));
}

TEST(Lobby, StartRefusedThenStartedConfirmedAndRunning) {
    Harness h;
    Room& room = h.roomOfReady(3);
    h.lobby(2, setupOf(2, 0, "P2"));
    h.lobby(0, GameSettings{1, 0, "M", 2});
    h.lobby(0, setupOf(6, 0, "bot"));  // no connection: not refreshed below
    h.takeSent();
    h.lobby(1, StartGame{});
    EXPECT_TRUE(h.takeSent().empty());
    h.step();
    auto sent = h.takeSent();
    ASSERT_EQ(sent.size(), 6u + 9u);
    EXPECT_EQ(std::vector<Sent>(sent.begin(), sent.begin() + 6),
              toEach({0, 1, 2}, 1, text("Cannot start game because not all players are ready")) +
                  toEach({0, 1, 2}, 1,
                         text("Cannot start game because there are more players than starting locations on map")));
    EXPECT_EQ(sent[6], (Sent{0, 0, setupOf(0, 1, "P0").bytes}));
    EXPECT_EQ(h.takeLogs(),
              (std::vector<std::string>{"Room 1 failed to start because not all players are ready",
                                        "Room 1 failed to start because there are too many players for map: M"}));
    EXPECT_FALSE(room.startRequested);

    // P2 ready, eight locations, P1 gone: the start compacts P2 into slot 1.
    // A player without a connection who is not ready does not hold it up.
    h.lobby(0, GameSettings{});
    h.lobby(2, setupOf(2, 1, "P2"));
    h.lobby(1, LeaveRoom{});
    h.lobby(0, setupOf(6, 0, "bot"));
    h.lobby(0, StartGame{});
    h.takeSent();
    h.step();
    ASSERT_EQ(room.slots[1].peer, h.peer(2));
    EXPECT_EQ(placeOf(h.server.rooms, h.peer(2))->slot, 1u);
    // Three records that chose nothing on a fresh generator: tags 1, 3 and 4,
    // locations 1, 3 and 8.
    Bytes p0 = encode(setupOf(0, 1, "P0", 1, 1)), p2 = encode(setupOf(2, 1, "P2", 3, 3));
    Bytes bot = encode(setupOf(6, 0, "bot", 4, 8));
    EXPECT_EQ(h.takeSent(), toEach({0, 2}, 0, p0) + toEach({0, 2}, 0, p2) + toEach({0, 2}, 0, bot) +
                                toEach({0, 2}, 0, encode(StartGame{})));
    EXPECT_TRUE(room.started && !room.open && !room.running);
    h.lobby(0, StartGame{});
    h.step();
    EXPECT_FALSE(room.running);
    h.lobby(2, StartGame{});
    h.step();
    EXPECT_TRUE(room.running);
    EXPECT_EQ(room.matchPlayerNames, (std::vector<std::string>{"P0", "P2"}));
    EXPECT_EQ(h.takeSent(), toEach({0, 2}, 0, encode(StartGame{})));
}

TEST(Lobby, GeneratorFiguresAndTheValuesNobodyMayBeHandedOut) {
    resetGlobalGenerator();
    EXPECT_EQ(shufflePermutation(8), (std::vector<std::uint32_t>{0, 2, 3, 5, 7, 1, 6, 4}));
    EXPECT_EQ(shufflePermutation(8), (std::vector<std::uint32_t>{0, 2, 7, 6, 1, 3, 4, 5}));
    // Tags 2 and 9 chosen, 7 free tags (9 and 10 never handed out) and 4
    // free locations on a map of 4: six draws, then three.
    resetGlobalGenerator();
    Room room;
    room.settings.startLocations = 4;
    for (std::uint32_t i : {0u, 1u, 3u}) room.slots[i].info = freshPlayerSetup(i);
    room.slots[0].info->playerTag = 2;
    room.slots[1].info->playerTag = 9;
    room.slots[1].info->startLocation = 11;  // out of range: waits like a 0
    assignTagsAndLocations(room);
    std::mt19937 reference(0);
    reference.discard(6 + 3);
    EXPECT_EQ(globalGenerator()(), reference());
    EXPECT_EQ(room.slots[0].info->playerTag, 2u);
    EXPECT_EQ(room.slots[1].info->playerTag, 9u);
    for (std::uint32_t i : {0u, 1u, 3u}) EXPECT_LE(room.slots[i].info->startLocation, 4u);
    EXPECT_EQ(room.slots[3].info->bytes, encode(setupOf(3, 0, "", room.slots[3].info->playerTag,
                                                        room.slots[3].info->startLocation)));
}

TEST(Lobby, RoomIdsPastTheWrapSkipZeroAndTheRoomsStillAlive) {
    Harness h;
    for (std::size_t i = 0; i < 3; ++i) h.connect(i);
    h.lobby(0, CreateRoom{1, "", "data", 1});
    h.server.rooms.nextRoomId = 0xFFFFFFFFu;
    h.lobby(1, CreateRoom{1, "", "data", 1});
    h.lobby(2, CreateRoom{1, "", "data", 1});
    ASSERT_EQ(h.server.rooms.byId.size(), 3u);
    EXPECT_EQ(h.room(0xFFFFFFFFu).slots[0].peer, h.peer(1));
    EXPECT_EQ(h.room(1).slots[0].peer, h.peer(0));
    EXPECT_EQ(h.room(2).slots[0].peer, h.peer(2));
    EXPECT_EQ(h.room(2).name, "Room # 2");
}
