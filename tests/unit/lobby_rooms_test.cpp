// The room registry through the dispatcher: creation, the room list, the
// host's settings, deletion, unknown and malformed lobby messages.

#include <gtest/gtest.h>

#include "lobby/lobby.h"
#include "support/harness.h"
#include "support/lobby_helpers.h"

using namespace lobbytest;

namespace {
std::string error(const std::string& text) { return "#### ERROR \n" + text + "\n####"; }
}  // namespace

TEST(LobbyCreate, CreatorGetsJoinTrafficThenBothHostStatusesAndTheLogLines) {
    Harness h;
    h.connect(0);
    clear(h);
    h.receive(0, kLobbyChannel, createRoomMsg("", "dataset one", 4000000000u));
    ENetPeer* a = h.peer(0);
    std::vector<Packet> want = {{a, 0, JoinAccepted{1, 0, 1}.encode()}, {a, 0, fresh(0)}};
    for (std::uint32_t i = 1; i < 8; ++i) want.push_back({a, 0, slotState(i, 0)});
    // No GameSettings: slot 0 already counts as the host's.
    for (const Bytes& b : {fresh(0), hostStatus(0), hostStatus(1), fresh(0)}) want.push_back({a, 0, b});
    EXPECT_TRUE(sameTraffic(h.takeSent(), want));
    EXPECT_EQ(h.takeLogs(), (std::vector<std::string>{
                                "Joined room 1 Peers in room: 1",
                                "Room \"Room # 1\", ID 1, data \"dataset one\", checksum 4000000000. Total rooms: 1"}));
}

TEST(LobbyCreate, IdsAreNeverReusedAndAtMostOneRoomIsDeletedPerStep) {
    Harness h;
    for (std::size_t i = 0; i < 4; ++i) h.connect(i);
    createVia(h, 0, "first");
    createVia(h, 1);
    createVia(h, 2);
    h.receive(0, kLobbyChannel, createRoomMsg("second"));  // already in a room
    EXPECT_TRUE(h.takeSent().empty());
    EXPECT_TRUE(h.takeLogs().empty());

    setupVia(h, 1, {.slot = 4, .name = "bot"});  // a record without a peer keeps no room alive
    h.disconnect(1);
    h.receive(2, kLobbyChannel, words({4, 1}));
    clear(h);
    h.step();
    EXPECT_EQ(h.takeLogs(),
              (std::vector<std::string>{"Empty room \"Room # 2\" with ID 2 deleted. ", "Total rooms: 2"}));
    h.step();
    EXPECT_EQ(h.takeLogs(),
              (std::vector<std::string>{"Empty room \"Room # 3\" with ID 3 deleted. ", "Total rooms: 1"}));
    createVia(h, 3);
    EXPECT_EQ(h.server.rooms.at(1)->name, "first");
    EXPECT_EQ(h.server.rooms.at(4)->name, "Room # 4");
}

TEST(LobbyRoomList, StatusEntriesThenDetailsOfTheRequestedRoom) {
    Harness h;
    for (std::size_t i = 0; i < 5; ++i) h.connect(i);
    h.receive(4, kLobbyChannel, RoomListRequest{1, 0}.encode());
    EXPECT_TRUE(sameTraffic(h.takeSent(), {{h.peer(4), 0, Writer().u32(1).u32(1).str("").u32(0).u32(0).u32(0)
                                                              .u32(5).u32(4).take()}}));
    createVia(h, 0, "one");
    h.receive(1, kLobbyChannel, createRoomMsg("two", "set", 9));
    createVia(h, 2);
    joinVia(h, 3, 2);
    setupVia(h, 1, {.slot = 0, .name = "Ann"});
    setupVia(h, 3, {.slot = 1, .name = "Bob"});
    setupVia(h, 3, {.slot = 6, .name = "Ghost"});  // no peer: not listed
    for (std::uint32_t k : {5u, 6u, 7u}) h.receive(0, kLobbyChannel, slotState(k, 1));
    clear(h);

    ENetPeer* asker = h.peer(4);
    h.receive(4, kLobbyChannel, RoomListRequest{7, 2}.encode());
    std::vector<Packet> want = {
        {asker, 0, Writer().u32(1).u32(1).str("").u32(0).u32(0).u32(4).u32(1).u32(4).take()},
        {asker, 0, RoomListEntry{1, 1, "one", "data", 77, 1, 5, 1}.encode()},
        {asker, 0, RoomListEntry{1, 2, "two", "set", 9, 2, 8, 1}.encode()},
        {asker, 0, RoomListEntry{1, 3, "Room # 3", "data", 77, 1, 8, 1}.encode()},
        {asker, 0, settingsMsg(0, "", 8)},
        {asker, 0, RoomPlayerNames{1, {"Ann", "Bob"}}.encode()},
    };
    EXPECT_TRUE(sameTraffic(h.takeSent(), want));

    h.receive(0, kLobbyChannel, settingsMsg(0, "small", 4));
    h.takeSent();
    h.receive(4, kLobbyChannel, RoomListRequest{1, 99}.encode());
    auto sent = h.takeSent();
    ASSERT_EQ(sent.size(), 4u);
    EXPECT_EQ(RoomListEntry::decode(sent[1].data)->capacity, 4u);
}

TEST(LobbySettings, OnlyTheHostsReachTheOthersAndAreStoredAsReceived) {
    Harness h;
    for (std::size_t i = 0; i < 3; ++i) h.connect(i);
    createVia(h, 0);
    joinVia(h, 1, 1);
    joinVia(h, 2, 1);
    h.receive(1, kLobbyChannel, settingsMsg(3, "not host", 2));
    EXPECT_TRUE(h.takeSent().empty());

    Bytes mine = settingsMsg(5, "Map", 6);
    mine[4] = 42;          // the client's second header word travels along
    mine.push_back(0xAB);  // and so do trailing bytes
    h.receive(0, kLobbyChannel, mine);
    EXPECT_TRUE(sameTraffic(h.takeSent(), {{h.peer(1), 0, mine}, {h.peer(2), 0, mine}}));
    const GameSettings& s = h.server.rooms.at(1)->settings;
    EXPECT_EQ(s.mapName, "Map");
    EXPECT_EQ(s.startLocations, 6u);
    EXPECT_EQ(s.bytes, mine);
}

TEST(LobbyDispatch, UnknownTypesAreLogged) {
    Harness h;
    h.connect(0);
    clear(h);
    for (std::uint32_t type : {0u, 1u, 12u, 15u, 0xFFFFFFFFu}) {
        h.receive(0, kLobbyChannel, words({type, 1}));
        EXPECT_EQ(h.takeLogs(), std::vector<std::string>{error("|||| Unknown lobby message " + std::to_string(type) +
                                                               ". Nothing to do with it")});
    }
    EXPECT_TRUE(h.takeSent().empty());
}

TEST(LobbyDispatch, TruncatedMessagesAndSlotsAboveSevenAreMalformed) {
    Harness h;
    for (std::size_t i = 0; i < 2; ++i) h.connect(i);
    createVia(h, 0);
    joinVia(h, 1, 1);
    setupVia(h, 1, {.slot = 1, .ready = 1, .tag = 2, .name = "Bob"});
    h.server.rooms.at(1)->closed[5] = true;
    auto expectOneMalformedLine = [&](const Bytes& m) {
        h.receive(0, kLobbyChannel, m);
        auto logs = h.takeLogs();
        ASSERT_EQ(logs.size(), 1u) << "type " << int(m[0]) << ", " << m.size() << " bytes";
        EXPECT_EQ(logs[0].rfind("#### ERROR \n|||| Malformed ", 0), 0u) << logs[0];
        EXPECT_NE(logs[0].find(" on channel 0, " + std::to_string(m.size()) + " bytes. Dropped"), std::string::npos);
        EXPECT_TRUE(h.takeSent().empty());
    };

    // Every acted-on type, cut short at every length from 4 bytes up.
    for (const Bytes& m : {createRoomMsg("r", "d", 1), joinRoomMsg(1), setup({.slot = 1, .tag = 3, .name = "Bo"}),
                           slotState(5, 0), SetHost{1, 1}.encode(), Kick{1, 1}.encode(), RoomListRequest{1, 1}.encode(),
                           settingsMsg(1, "m", 2), startGame()})
        for (std::size_t n = 4; n < m.size(); ++n) expectOneMalformedLine(Bytes(m.begin(), m.begin() + n));
    // A list count the packet cannot hold.
    expectOneMalformedLine(Writer().u32(5).u32(1).u32(1).u32(0).u32(0).u32(0).u32(0).u32(0).u32(0).str("x")
                               .u32(0x40000000u).take());
    // Only slots 0..7 exist.
    for (const Bytes& m : {SetHost{1, 8}.encode(), Kick{1, 9}.encode(), slotState(8, 1),
                           setup({.slot = 0x80000000u, .name = "far"})})
        expectOneMalformedLine(m);

    const Room& room = *h.server.rooms.at(1);
    EXPECT_EQ(h.server.rooms.size(), 1u);
    EXPECT_FALSE(room.startRequested);
    EXPECT_TRUE(room.closed[5]);
    EXPECT_EQ(room.slots[1].info->playerName, "Bob");
    EXPECT_EQ(humanCount(room), 2u);
    EXPECT_EQ(room.settings.startLocations, 8u);
}
