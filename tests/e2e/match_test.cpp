// The road of a match through the binary, byte for byte: the status and the
// room list, a room's creation, joins and their refusals, setups, leaving,
// the start with its confirmations, the relay of orders, step completion,
// the order delay, a desync with its resync and evidence files, players who
// leave or vanish, and the room's end.

#include "support/e2e_support.h"

using namespace e2e;

namespace {
constexpr std::uint8_t kLobby = 0, kText = 1, kControl = 2, kOrders = 3;

// The next match control message that is not one of the delay notices the
// controller may send at any time.
std::optional<Bytes> nextControl(TestClient& c) {
    return awaitOn(c, kControl, [](const Bytes& b) { return b != words({1, 1}) && b != words({2, 1}); });
}
}  // namespace

TEST(MatchBinary, LobbyStartRelayStepsDelayDesyncResyncAndTheRoomsEnd) {
    ServerProcess server(ServerOptions{.description = "Lobby server"});
    ASSERT_TRUE(server.start());
    TestClient a, b, c;
    for (TestClient* client : {&a, &b, &c}) ASSERT_TRUE(client->connect(server.port()));
    auto status = [](std::uint32_t inOtherRooms, std::uint32_t inNoRoom) {
        return Writer().u32(1).u32(1).str("Lobby server").u32(0).u32(0).u32(inOtherRooms).u32(inNoRoom).u32(4).take();
    };
    const Bytes settings = Writer().u32(13).u32(1).u32(0).str("").u32(8).u32(0).u32(0).take();

    a.send(kLobby, words({10, 1, 0}));
    EXPECT_EQ(take(a, kLobby, 1), std::vector<Bytes>{status(0, 3)});
    EXPECT_TRUE(a.quiet(300));

    // A room without a name is called after its ID.
    a.send(kLobby, createRoom("", "base", 1234));
    std::vector<Bytes> created = {words({6, 1, 0, 1}), setup(0, 0)};
    for (std::uint32_t i = 1; i < 8; ++i) created.push_back(words({7, 1, i, 0}));
    created.insert(created.end(), {setup(0, 0), words({8, 1, 0}), words({8, 1, 1}), setup(0, 0)});
    EXPECT_EQ(take(a, kLobby, 13), created);
    ASSERT_TRUE(server.waitForLog("Room \"Room # 1\", ID 1, data \"base\", checksum 1234. Total rooms: 1"));
    EXPECT_NE(withoutTimedDumps(server.log()).find(": Joined room 1 Peers in room: 1\n: Room \"Room # 1\""),
              std::string::npos);

    b.send(kLobby, words({10, 1, 1}));
    EXPECT_EQ(take(b, kLobby, 4),
              (std::vector<Bytes>{status(1, 2),
                                  Writer().u32(11).u32(1).u32(1).str("Room # 1").str("base").u32(1234).u32(1).u32(8)
                                      .u32(1).take(),
                                  settings, Writer().u32(12).u32(1).u32(1).str("").take()}));

    b.send(kLobby, words({3, 1, 1}));
    std::vector<Bytes> joined = {words({6, 1, 1, 1}), setup(0, 0), setup(1, 0)};
    for (std::uint32_t i = 2; i < 8; ++i) joined.push_back(words({7, 1, i, 0}));
    joined.insert(joined.end(), {setup(1, 0), settings});
    EXPECT_EQ(take(b, kLobby, 11), joined);
    EXPECT_EQ(take(a, kLobby, 1), std::vector<Bytes>{setup(1, 0)});
    ASSERT_TRUE(server.waitForLog("Joined room 1 Peers in room: 2"));

    // A setup reaches every human, the sender included.
    b.send(kLobby, setup(1, 1, "Bea"));
    EXPECT_EQ(take(a, kLobby, 1), std::vector<Bytes>{setup(1, 1, "Bea")});
    EXPECT_EQ(take(b, kLobby, 1), std::vector<Bytes>{setup(1, 1, "Bea")});

    c.send(kLobby, words({3, 1, 7}));
    EXPECT_EQ(c.nextOn(kText), text("Cannot join: room does no longer exist!"));

    b.send(kLobby, words({4, 1}));
    EXPECT_EQ(take(a, kLobby, 2), (std::vector<Bytes>{setup(1, 0), words({7, 1, 1, 0})}));
    ASSERT_TRUE(server.waitForLog("Left room 1 Peers in room: 1"));
    EXPECT_TRUE(b.quiet(200));

    // Back in the room, both get ready.
    b.send(kLobby, words({3, 1, 1}));
    take(b, kLobby, 11);
    take(a, kLobby, 1);
    a.send(kLobby, setup(0, 1, "Ann"));
    b.send(kLobby, setup(1, 1, "Bea"));
    take(a, kLobby, 2);
    take(b, kLobby, 2);

    // Any human may ask for the start. The first start of a fresh server
    // gives tags 1 and 3 and locations 1 and 3; the go notice waits for
    // every confirmation.
    b.send(kLobby, words({14, 1}));
    for (TestClient* p : {&a, &b})
        EXPECT_EQ(take(*p, kLobby, 3),
                  (std::vector<Bytes>{setup(0, 1, "Ann", 1, 1), setup(1, 1, "Bea", 3, 3), words({14, 1})}));
    a.send(kLobby, words({14, 1}));
    EXPECT_TRUE(a.quiet(300));
    b.send(kLobby, words({14, 1}));
    for (TestClient* p : {&a, &b}) EXPECT_EQ(take(*p, kLobby, 1), std::vector<Bytes>{words({14, 1})});
    c.send(kLobby, words({3, 1, 1}));
    EXPECT_EQ(c.nextOn(kText), text("Cannot join: game has already started!"));

    // The controller's first decision comes some 616 service steps in, a few
    // seconds of an idle loop; on loopback it shortens the delay.
    TestClient* players[] = {&a, &b};
    std::optional<Bytes> first[2];
    for (auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
         !(first[0] && first[1]) && std::chrono::steady_clock::now() < end;)
        for (int i = 0; i < 2; ++i) {
            if (first[i]) players[i]->quiet(20);  // kept serviced
            else first[i] = players[i]->nextOn(kControl, 50);
        }
    EXPECT_EQ(first[0], words({2, 1}));
    EXPECT_EQ(first[1], words({2, 1}));

    // Step 5 is completed; the three-player test shows the waiting.
    a.send(kOrders, words({1, 5, 0}));
    b.send(kOrders, words({1, 5, 1}));
    EXPECT_EQ(a.nextOn(kOrders), words({1, 5, 1}));
    EXPECT_EQ(b.nextOn(kOrders), words({1, 5, 1}));

    // Different checksums for step 40: the desync, its texts and the resync
    // order for the step after the last completed one.
    a.send(kOrders, order(40, 111, 901, ""));
    b.send(kOrders, order(40, 222, 901, ""));
    EXPECT_TRUE(server.waitForLog("|||| Checksums failed at step 40 in room 1\n"));
    Bytes resync = words({1, 6, 0xFFFFFFFFu, 0, 902, 0, 0xFFFFFFFFu, 0xFFFFFFFFu, 0, 0, 0});
    resync.resize(46, 0);
    for (TestClient* p : {&a, &b}) {
        EXPECT_EQ(p->nextOn(kText), text("Desync detected... attempting resync..."));
        EXPECT_EQ(p->nextOn(kOrders), resync);
    }

    // Until the resync completes, orders beyond step 6 go nowhere.
    const Bytes step7 = order(7, 0, 5, "late"), step6 = order(6, 0, 5, "in time");
    a.send(kOrders, step7);
    a.send(kOrders, step6);
    EXPECT_EQ(b.nextOn(kOrders), step6);

    // The report is filed as evidence and reaches both players unchanged;
    // then every step is accepted again.
    const std::string world("state\0\x01\xfe", 8);
    const Bytes report = Writer().u32(8).u32(1).blob(bytesOf(world)).blob(bytesOf("step log")).take();
    b.send(kControl, report);
    EXPECT_EQ(nextControl(a), report);
    EXPECT_EQ(nextControl(b), report);
    EXPECT_EQ(server.readFile("server_data/resyncs/room1_desync1_peer1.world"), world);
    EXPECT_EQ(server.readFile("server_data/resyncs/room1_desync1_peer1.log"), "step log");
    a.send(kOrders, step7);
    EXPECT_EQ(b.nextOn(kOrders), step7);

    // The room goes when its last human does.
    a.disconnect();
    b.disconnect();
    ASSERT_TRUE(server.waitForLog("Total rooms: 0"));
    EXPECT_NE(server.log().find(": Left room 1 Peers in room: 0\n"), std::string::npos);
    EXPECT_NE(withoutTimedDumps(server.log()).find(": Empty room \"Room # 1\" with ID 1 deleted. \n: Total rooms: 0\n"),
              std::string::npos)
        << server.log();
    EXPECT_EQ(server.stop(), 0);
}

TEST(MatchBinary, ThreePlayersStepsWaitForAllAndLeaversReleaseThem) {
    ServerProcess server;
    ASSERT_TRUE(server.start());
    TestClient a, b, c;
    ASSERT_NE(startMatch(server.port(), {&a, &b, &c}, {"Ann", "Bob", "Cid"}), 0u);

    // An ordinary order reaches the others byte for byte, bytes after its
    // text included, and not the sender.
    Bytes ordinary = order(2, 17, 321, "go north", {4, 5}, {1, 2, 3});
    ordinary.push_back(0x99);
    b.send(kOrders, ordinary);
    EXPECT_EQ(a.nextOn(kOrders), ordinary);
    EXPECT_EQ(c.nextOn(kOrders), ordinary);
    EXPECT_FALSE(b.nextOn(kOrders, 300));

    // A step completes only when everyone has reported it.
    a.send(kOrders, words({1, 9, 0}));
    b.send(kOrders, words({1, 9, 1}));
    EXPECT_FALSE(c.nextOn(kOrders, 300));
    c.send(kOrders, words({1, 9, 2}));
    for (TestClient* p : {&a, &b, &c}) EXPECT_EQ(p->nextOn(kOrders), words({1, 9, 2}));

    // Cid leaves the match with step 10 pending: the step is released as his,
    // and his slot is freed in the lobby.
    a.send(kOrders, words({1, 10, 0}));
    b.send(kOrders, words({1, 10, 1}));
    EXPECT_FALSE(a.nextOn(kOrders, 300));
    c.send(kControl, words({3, 1}));
    for (TestClient* p : {&a, &b}) {
        EXPECT_EQ(p->nextOn(kOrders), words({1, 10, 2}));
        EXPECT_EQ(nextControl(*p), words({3, 1, 2}));
        EXPECT_EQ(p->nextOn(kText), text("Cid has left the game"));
        EXPECT_EQ(take(*p, kLobby, 2), (std::vector<Bytes>{setup(2, 0), words({7, 1, 2, 0})}));
    }

    // From now on two reports make a step.
    a.send(kOrders, words({1, 11, 0}));
    b.send(kOrders, words({1, 11, 1}));
    EXPECT_EQ(a.nextOn(kOrders), words({1, 11, 1}));
    EXPECT_EQ(b.nextOn(kOrders), words({1, 11, 1}));

    // Bob vanishes after Ann has reported step 12: Ann is not kept waiting.
    a.send(kOrders, words({1, 12, 0}));
    EXPECT_FALSE(a.nextOn(kOrders, 300));
    b.disconnect();
    EXPECT_EQ(a.nextOn(kOrders), words({1, 12, 1}));
    EXPECT_EQ(nextControl(a), words({3, 1, 1}));
    EXPECT_EQ(a.nextOn(kText), text("Bob has been disconnected from server"));
    EXPECT_EQ(take(a, kLobby, 2), (std::vector<Bytes>{setup(1, 0), words({7, 1, 1, 0})}));

    // Alone, Ann completes her steps herself.
    a.send(kOrders, words({1, 13, 0}));
    EXPECT_EQ(a.nextOn(kOrders), words({1, 13, 0}));
}
