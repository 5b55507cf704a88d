// Matches through the real binary: the lobby brings the players into a
// running room, then orders, step completion, leaving, checksums and resync
// go over the wire.

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <set>

#include "support/match_rooms.h"
#include "support/server_process.h"
#include "support/test_client.h"

namespace {
constexpr std::uint8_t kLobby = 0, kText = 1, kControl = 2, kOrders = 3;

std::uint32_t wordAt(const Bytes& b, std::size_t index) {
    return b.size() >= 4 * (index + 1) ? loadU32(b.data() + 4 * index) : 0xFFFFFFFFu;
}

Bytes createRoomMessage(const std::string& name, const std::string& dataset, std::uint32_t checksum) {
    return Writer().u32(2).u32(1).str(name).str(dataset).u32(checksum).take();
}

Bytes readySetup(std::uint32_t slot, const std::string& name) {
    Writer w;
    w.u32(5).u32(1).u32(slot).u32(1);  // ready
    w.u32(0).u32(0);                   // tag and start location left to the start
    w.u32(0).u32(0).u32(0).str(name).u32(0).u32(0);
    return w.take();
}

// Waits for a message on channel that satisfies match, dropping the others
// on that channel.
std::optional<Bytes> awaitOn(TestClient& c, std::uint8_t channel, const std::function<bool(const Bytes&)>& match,
                             int timeoutMs = 3000) {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    while (std::chrono::steady_clock::now() < deadline) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        auto m = c.nextOn(channel, static_cast<int>(std::max<long>(left.count(), 1)));
        if (!m) return std::nullopt;
        if (match(*m)) return m;
    }
    return std::nullopt;
}

auto ofType(std::uint32_t type) {
    return [type](const Bytes& b) { return wordAt(b, 0) == type; };
}

// The order-delay controller may send DelayDecrease or DelayIncrease at any
// time once a match runs (loopback round trips are short).
bool isDelayNotice(const Bytes& b) { return b == words({1, 1}) || b == words({2, 1}); }

class MatchOverTheWire : public ::testing::Test {
protected:
    struct Player {
        std::unique_ptr<TestClient> client = std::make_unique<TestClient>();
        std::string name;
        std::uint32_t slot = 0;
    };

    void SetUp() override { ASSERT_TRUE(server.start()); }

    TestClient& c(std::size_t i) { return *players[i].client; }

    // The first player creates the room. False when no JoinAccepted comes
    // back: this build has no lobby to bring players into a match.
    bool createRoom() {
        players.emplace_back();
        players[0].name = "Ann";
        if (!c(0).connect(server.port())) return false;
        c(0).send(kLobby, createRoomMessage("duel", "core-data", 0xC0FFEE));
        auto accepted = awaitOn(c(0), kLobby, ofType(6), 2000);
        if (!accepted) return false;
        players[0].slot = wordAt(*accepted, 2);
        roomId = wordAt(*accepted, 3);
        return true;
    }

    // The others join; everyone sets up ready; the room starts and runs.
    void joinAndStart(std::size_t count) {
        const char* names[] = {"Ann", "Bob", "Cid"};
        for (std::size_t i = 1; i < count; ++i) {
            players.emplace_back();
            players[i].name = names[i];
            ASSERT_TRUE(c(i).connect(server.port()));
            c(i).send(kLobby, words({3, 1, roomId}));
            auto accepted = awaitOn(c(i), kLobby, ofType(6));
            ASSERT_TRUE(accepted) << "join " << i;
            players[i].slot = wordAt(*accepted, 2);
            ASSERT_EQ(players[i].slot, i);
        }
        for (std::size_t i = 0; i < count; ++i) c(i).send(kLobby, readySetup(players[i].slot, players[i].name));
        // Every setup has reached everyone before the start is asked for.
        for (std::size_t i = 0; i < count; ++i) {
            std::set<std::uint32_t> readySlots;
            while (readySlots.size() < count) {
                auto setup = awaitOn(c(i), kLobby, [](const Bytes& b) { return wordAt(b, 0) == 5 && wordAt(b, 3) == 1; });
                ASSERT_TRUE(setup) << "ready setups at " << i;
                readySlots.insert(wordAt(*setup, 2));
            }
        }
        c(0).send(kLobby, words({14, 1}));
        for (std::size_t i = 0; i < count; ++i) {
            ASSERT_TRUE(awaitOn(c(i), kLobby, ofType(14))) << "start notice at " << i;
            c(i).send(kLobby, words({14, 1}));
        }
        for (std::size_t i = 0; i < count; ++i) ASSERT_TRUE(awaitOn(c(i), kLobby, ofType(14))) << "go notice at " << i;
        for (std::size_t i = 0; i < count; ++i) c(i).quiet(100);
    }

    // Nothing arrives on the channel for a while.
    bool silentOn(std::size_t i, std::uint8_t channel, int ms = 300) { return !c(i).nextOn(channel, ms); }
    // The next match control message that is not a delay notice.
    std::optional<Bytes> nextControl(std::size_t i, int ms = 3000) {
        return awaitOn(c(i), kControl, [](const Bytes& b) { return !isDelayNotice(b); }, ms);
    }

    ServerProcess server;
    std::vector<Player> players;
    std::uint32_t roomId = 0;
};

#define START_MATCH(n)                                                               \
    ASSERT_TRUE(createRoom());                                                       \
    joinAndStart(n);                                                                 \
    if (HasFatalFailure()) return

TEST_F(MatchOverTheWire, TwoPlayersRelayStepsDesyncAndResync) {
    START_MATCH(2);

    // An ordinary order reaches the other player byte for byte, not the sender.
    Bytes order = fullOrder(3, 17, {4, 5}, 321, {6}, "go north", 0xABCD);
    order.push_back(0x99);
    c(0).send(kOrders, order);
    EXPECT_EQ(c(1).nextOn(kOrders), order);
    EXPECT_TRUE(silentOn(0, kOrders));

    // A step completes only when both have reported it.
    c(0).send(kOrders, stepDone(5, 0));
    EXPECT_TRUE(silentOn(1, kOrders));
    c(1).send(kOrders, stepDone(5, 1));
    EXPECT_EQ(c(0).nextOn(kOrders), words({1, 5, 1}));
    EXPECT_EQ(c(1).nextOn(kOrders), words({1, 5, 1}));

    // Different checksums for step 40: the desync, its texts and the resync order for step 6.
    c(0).send(kOrders, checksumOrder(40, 111));
    c(1).send(kOrders, checksumOrder(40, 222));
    EXPECT_TRUE(server.waitForLog("|||| Checksums failed at step 40 in room " + std::to_string(roomId) + "\n"));
    for (std::size_t i = 0; i < 2; ++i) {
        auto text = c(i).nextOn(kText);
        ASSERT_TRUE(text);
        EXPECT_EQ(textOf(*text), "Desync detected... attempting resync...");
        EXPECT_EQ(c(i).nextOn(kOrders), resyncOrder(6)) << i;
    }

    // Until the resync completes, orders beyond step 6 go nowhere.
    Bytes step7 = fullOrder(7, 0, {}, 5, {}, "late");
    Bytes step6 = fullOrder(6, 0, {}, 5, {}, "in time");
    c(0).send(kOrders, step7);
    c(0).send(kOrders, step6);
    EXPECT_EQ(c(1).nextOn(kOrders), step6);

    // The report is filed and reaches both players unchanged.
    std::string world("state\0\x01\xfe", 8);
    Bytes report = resyncReport(world, "step log");
    c(1).send(kControl, report);
    EXPECT_EQ(nextControl(0), report);
    EXPECT_EQ(nextControl(1), report);
    std::string base = "server_data/resyncs/room" + std::to_string(roomId) + "_desync1_peer1";
    EXPECT_EQ(server.readFile(base + ".world"), world);
    EXPECT_EQ(server.readFile(base + ".log"), "step log");

    // Every step is accepted again.
    c(0).send(kOrders, step7);
    EXPECT_EQ(c(1).nextOn(kOrders), step7);
}

TEST_F(MatchOverTheWire, ThreePlayersStepsWaitForAllAndLeaversReleaseThem) {
    START_MATCH(3);

    Bytes order = fullOrder(2, 1, {}, 77, {1, 2, 3}, "");
    c(1).send(kOrders, order);
    EXPECT_EQ(c(0).nextOn(kOrders), order);
    EXPECT_EQ(c(2).nextOn(kOrders), order);
    EXPECT_TRUE(silentOn(1, kOrders));

    c(0).send(kOrders, stepDone(9, 0));
    c(1).send(kOrders, stepDone(9, 1));
    EXPECT_TRUE(silentOn(2, kOrders));
    c(2).send(kOrders, stepDone(9, 2));
    for (std::size_t i = 0; i < 3; ++i) EXPECT_EQ(c(i).nextOn(kOrders), words({1, 9, 2})) << i;

    // Cid leaves the match with step 10 pending: the step is released as his.
    c(0).send(kOrders, stepDone(10, 0));
    c(1).send(kOrders, stepDone(10, 1));
    EXPECT_TRUE(silentOn(0, kOrders));
    c(2).send(kControl, words({3, 1}));
    for (std::size_t i = 0; i < 2; ++i) {
        EXPECT_EQ(c(i).nextOn(kOrders), words({1, 10, 2})) << i;
        EXPECT_EQ(nextControl(i), words({3, 1, 2})) << i;
        auto text = c(i).nextOn(kText);
        ASSERT_TRUE(text);
        EXPECT_EQ(textOf(*text), "Cid has left the game");
    }

    // From now on two reports make a step.
    c(0).send(kOrders, stepDone(11, 0));
    c(1).send(kOrders, stepDone(11, 1));
    EXPECT_EQ(c(0).nextOn(kOrders), words({1, 11, 1}));
    EXPECT_EQ(c(1).nextOn(kOrders), words({1, 11, 1}));

    // Bob disconnects after Ann has reported step 12: Ann is not kept waiting.
    c(0).send(kOrders, stepDone(12, 0));
    EXPECT_TRUE(silentOn(0, kOrders));
    c(1).disconnect();
    EXPECT_EQ(c(0).nextOn(kOrders), words({1, 12, 1}));
    EXPECT_EQ(nextControl(0), words({3, 1, 1}));
    auto text = c(0).nextOn(kText);
    ASSERT_TRUE(text);
    EXPECT_EQ(textOf(*text), "Bob has been disconnected from server");

    // Alone, Ann completes her steps herself.
    c(0).send(kOrders, stepDone(13, 0));
    EXPECT_EQ(c(0).nextOn(kOrders), words({1, 13, 0}));
}

TEST_F(MatchOverTheWire, ControllerShortensTheDelayOnLoopback) {
    START_MATCH(2);
    // The first decision comes 616 service steps after the start, a few
    // seconds of an idle main loop; both clients are kept serviced meanwhile.
    bool got[2] = {false, false};
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (!(got[0] && got[1]) && std::chrono::steady_clock::now() < deadline) {
        for (std::size_t i = 0; i < 2; ++i) {
            if (got[i]) {
                c(i).quiet(20);
                continue;
            }
            if (auto m = c(i).nextOn(kControl, 50)) {
                EXPECT_EQ(*m, words({2, 1})) << i;
                got[i] = true;
            }
        }
    }
    EXPECT_TRUE(got[0]);
    EXPECT_TRUE(got[1]);
}

}  // namespace
