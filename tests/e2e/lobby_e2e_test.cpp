// The lobby through the real binary and real ENet clients: the room list,
// creation, a join, leaving, the start with its confirmations and go notice,
// and a player lost during the match.

#include <gtest/gtest.h>

#include "lobby/messages.h"
#include "protocol/messages.h"
#include "support/lobby_helpers.h"
#include "support/server_process.h"
#include "support/test_client.h"

using namespace lobbytest;

namespace {

// The next n messages on one channel; fails the test when one is missing.
std::vector<Bytes> take(TestClient& client, std::uint8_t channel, std::size_t n) {
    std::vector<Bytes> out;
    for (std::size_t i = 0; i < n; ++i) {
        auto m = client.nextOn(channel, 3000);
        if (!m) {
            ADD_FAILURE() << "message " << i << " of " << n << " on channel " << int(channel) << " missing";
            break;
        }
        out.push_back(std::move(*m));
    }
    return out;
}

std::vector<Bytes> creationTraffic(std::uint32_t roomId) {
    std::vector<Bytes> want = {JoinAccepted{1, 0, roomId}.encode(), fresh(0)};
    for (std::uint32_t i = 1; i < 8; ++i) want.push_back(slotState(i, 0));
    want.push_back(fresh(0));
    want.push_back(hostStatus(0));
    want.push_back(hostStatus(1));
    want.push_back(fresh(0));
    return want;
}

}  // namespace

TEST(LobbyBinary, RoomListAndCreation) {
    ServerProcess server(ServerOptions{.description = "Lobby server"});
    ASSERT_TRUE(server.start());
    TestClient a, b;
    ASSERT_TRUE(a.connect(server.port()));
    ASSERT_TRUE(b.connect(server.port()));

    a.send(0, RoomListRequest{1, 0}.encode());
    auto status = take(a, 0, 1);
    ASSERT_EQ(status.size(), 1u);
    EXPECT_EQ(status[0], Writer().u32(1).u32(1).str("Lobby server").u32(0).u32(0).u32(0).u32(2).u32(4).take());
    EXPECT_TRUE(a.quiet(300));

    a.send(0, createRoomMsg("Arena", "base", 1234));
    EXPECT_EQ(take(a, 0, 13), creationTraffic(1));
    ASSERT_TRUE(server.waitForLog("Room \"Arena\", ID 1, data \"base\", checksum 1234. Total rooms: 1"));
    EXPECT_NE(server.log().find(": Joined room 1 Peers in room: 1\n: Room \"Arena\""), std::string::npos);

    b.send(0, RoomListRequest{1, 1}.encode());
    auto list = take(b, 0, 4);
    ASSERT_EQ(list.size(), 4u);
    EXPECT_EQ(list[0], Writer().u32(1).u32(1).str("Lobby server").u32(0).u32(0).u32(1).u32(1).u32(4).take());
    EXPECT_EQ(list[1], (RoomListEntry{1, 1, "Arena", "base", 1234, 1, 8, 1}.encode()));
    EXPECT_EQ(list[2], settingsMsg(0, "", 8));
    EXPECT_EQ(list[3], (RoomPlayerNames{1, {""}}.encode()));
    EXPECT_EQ(server.stop(), 0);
}

TEST(LobbyBinary, JoinLeaveAndDeletion) {
    ServerProcess server;
    ASSERT_TRUE(server.start());
    TestClient a, b, c;
    ASSERT_TRUE(a.connect(server.port()));
    ASSERT_TRUE(b.connect(server.port()));
    ASSERT_TRUE(c.connect(server.port()));
    a.send(0, createRoomMsg(""));
    take(a, 0, 13);

    b.send(0, joinRoomMsg(1));
    std::vector<Bytes> want = {JoinAccepted{1, 1, 1}.encode(), fresh(0), fresh(1)};
    for (std::uint32_t i = 2; i < 8; ++i) want.push_back(slotState(i, 0));
    want.push_back(fresh(1));
    want.push_back(settingsMsg(0, "", 8));
    EXPECT_EQ(take(b, 0, 11), want);
    EXPECT_EQ(take(a, 0, 1), std::vector<Bytes>{fresh(1)});
    ASSERT_TRUE(server.waitForLog("Joined room 1 Peers in room: 2"));

    // A setup reaches every human, the sender included.
    Bytes named = setup({.slot = 1, .ready = 1, .name = "Bea"});
    b.send(0, named);
    EXPECT_EQ(take(a, 0, 1), std::vector<Bytes>{named});
    EXPECT_EQ(take(b, 0, 1), std::vector<Bytes>{named});

    c.send(0, joinRoomMsg(7));
    EXPECT_EQ(take(c, 1, 1), std::vector<Bytes>{text("Cannot join: room does no longer exist!")});

    b.send(0, words({4, 1}));
    EXPECT_EQ(take(a, 0, 2), (std::vector<Bytes>{fresh(1), slotState(1, 0)}));
    ASSERT_TRUE(server.waitForLog("Left room 1 Peers in room: 1"));
    EXPECT_TRUE(b.quiet(200));

    a.disconnect();
    ASSERT_TRUE(server.waitForLog("Total rooms: 0"));
    EXPECT_NE(server.log().find(": Left room 1 Peers in room: 0\n"), std::string::npos);
    EXPECT_NE(server.log().find(": Empty room \"Room # 1\" with ID 1 deleted. \n: Total rooms: 0\n"),
              std::string::npos)
        << server.log();
    EXPECT_EQ(server.stop(), 0);
}

TEST(LobbyBinary, StartConfirmationsGoAndALostPlayer) {
    ServerProcess server;
    ASSERT_TRUE(server.start());
    TestClient a, b;
    ASSERT_TRUE(a.connect(server.port()));
    ASSERT_TRUE(b.connect(server.port()));
    a.send(0, createRoomMsg("Match"));
    take(a, 0, 13);
    b.send(0, joinRoomMsg(1));
    take(b, 0, 11);
    take(a, 0, 1);

    a.send(0, setup({.slot = 0, .ready = 1, .name = "Ann"}));
    b.send(0, setup({.slot = 1, .ready = 1, .name = "Bea"}));
    take(a, 0, 2);
    take(b, 0, 2);
    b.send(0, startGame());
    // The first start of a fresh server: tags 1 and 3, locations 1 and 3.
    Bytes ann = setup({.slot = 0, .ready = 1, .tag = 1, .location = 1, .name = "Ann"});
    Bytes bea = setup({.slot = 1, .ready = 1, .tag = 3, .location = 3, .name = "Bea"});
    for (TestClient* client : {&a, &b}) EXPECT_EQ(take(*client, 0, 3), (std::vector<Bytes>{ann, bea, startGame()}));

    a.send(0, startGame());
    EXPECT_TRUE(a.quiet(300));
    b.send(0, startGame());
    for (TestClient* client : {&a, &b}) EXPECT_EQ(take(*client, 0, 1), std::vector<Bytes>{startGame()});

    TestClient late;
    ASSERT_TRUE(late.connect(server.port()));
    late.send(0, joinRoomMsg(1));
    EXPECT_EQ(take(late, 1, 1), std::vector<Bytes>{text("Cannot join: game has already started!")});

    // Running: a lost player is reported on the match channel, then by text.
    b.disconnect();
    auto left = a.nextOn(2, 3000);
    ASSERT_TRUE(left);
    EXPECT_EQ(*left, words({3, 1, 1}));
    EXPECT_EQ(take(a, 1, 1), std::vector<Bytes>{text("Bea has been disconnected from server")});
    EXPECT_EQ(take(a, 0, 2), (std::vector<Bytes>{fresh(1), slotState(1, 0)}));
    EXPECT_EQ(server.stop(), 0);
}

