// The lobby through the binary, byte for byte: the status and the room list,
// a room's creation, a join, a refused one, a setup, leaving and the room's
// deletion.

#include "support/e2e_support.h"

using namespace e2e;

TEST(LobbyBinary, StatusListCreationJoinSetupRefusalLeavingAndDeletion) {
    ServerProcess server(ServerOptions{.description = "Lobby server"});
    ASSERT_TRUE(server.start());
    TestClient a, b, c;
    for (TestClient* client : {&a, &b, &c}) ASSERT_TRUE(client->connect(server.port()));
    auto status = [](std::uint32_t inOtherRooms, std::uint32_t inNoRoom) {
        return Writer().u32(1).u32(1).str("Lobby server").u32(0).u32(0).u32(inOtherRooms).u32(inNoRoom).u32(4).take();
    };
    const Bytes settings = Writer().u32(13).u32(1).u32(0).str("").u32(8).u32(0).u32(0).take();

    a.send(0, words({10, 1, 0}));
    EXPECT_EQ(take(a, 0, 1), std::vector<Bytes>{status(0, 3)});
    EXPECT_TRUE(a.quiet(300));

    // A room without a name is called after its ID.
    a.send(0, createRoom("", "base", 1234));
    std::vector<Bytes> created = {words({6, 1, 0, 1}), setup(0, 0)};
    for (std::uint32_t i = 1; i < 8; ++i) created.push_back(words({7, 1, i, 0}));
    created.insert(created.end(), {setup(0, 0), words({8, 1, 0}), words({8, 1, 1}), setup(0, 0)});
    EXPECT_EQ(take(a, 0, 13), created);
    ASSERT_TRUE(server.waitForLog("Room \"Room # 1\", ID 1, data \"base\", checksum 1234. Total rooms: 1"));
    EXPECT_NE(server.log().find(": Joined room 1 Peers in room: 1\n: Room \"Room # 1\""), std::string::npos);

    b.send(0, words({10, 1, 1}));
    EXPECT_EQ(take(b, 0, 4),
              (std::vector<Bytes>{status(1, 2),
                                  Writer().u32(11).u32(1).u32(1).str("Room # 1").str("base").u32(1234).u32(1).u32(8)
                                      .u32(1).take(),
                                  settings, Writer().u32(12).u32(1).u32(1).str("").take()}));

    b.send(0, words({3, 1, 1}));
    std::vector<Bytes> joined = {words({6, 1, 1, 1}), setup(0, 0), setup(1, 0)};
    for (std::uint32_t i = 2; i < 8; ++i) joined.push_back(words({7, 1, i, 0}));
    joined.insert(joined.end(), {setup(1, 0), settings});
    EXPECT_EQ(take(b, 0, 11), joined);
    EXPECT_EQ(take(a, 0, 1), std::vector<Bytes>{setup(1, 0)});
    ASSERT_TRUE(server.waitForLog("Joined room 1 Peers in room: 2"));

    // A setup reaches every human, the sender included.
    b.send(0, setup(1, 1, "Bea"));
    EXPECT_EQ(take(a, 0, 1), std::vector<Bytes>{setup(1, 1, "Bea")});
    EXPECT_EQ(take(b, 0, 1), std::vector<Bytes>{setup(1, 1, "Bea")});

    c.send(0, words({3, 1, 7}));
    EXPECT_EQ(c.nextOn(1), text("Cannot join: room does no longer exist!"));

    b.send(0, words({4, 1}));
    EXPECT_EQ(take(a, 0, 2), (std::vector<Bytes>{setup(1, 0), words({7, 1, 1, 0})}));
    ASSERT_TRUE(server.waitForLog("Left room 1 Peers in room: 1"));
    EXPECT_TRUE(b.quiet(200));

    a.disconnect();
    ASSERT_TRUE(server.waitForLog("Total rooms: 0"));
    EXPECT_NE(server.log().find(": Left room 1 Peers in room: 0\n"), std::string::npos);
    EXPECT_NE(server.log().find(": Empty room \"Room # 1\" with ID 1 deleted. \n: Total rooms: 0\n"), std::string::npos)
        << server.log();
    EXPECT_EQ(server.stop(), 0);
}
