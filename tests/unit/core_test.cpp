#include <gtest/gtest.h>

#include <random>
#include <set>

#include "core/dispatch.h"
#include "core/pacing.h"
#include "core/peers.h"
#include "core/server.h"
#include "lobby/mtrand.h"
#include "platform/console.h"
#include "protocol/messages.h"
#include "support/harness.h"

TEST(Config, LinesPortDescriptionAndStatistics) {
    struct Case {
        const char* text;
        unsigned port;
        const char* description;
        bool statistics;
    } cases[] = {
        {"2000", 2000, "", false},
        {"2000 and more words\r\nMy server\r\n1\r\n", 2000, "My server", true},
        {"", 0, "", false},
        {"  3000\nx\n0\n", 3000, "x", false},
        {"abc\n\nyes\n", 0, "", false},
        {"1\n\ntrue\n", 1, "", false},
        {"70000\nd\n 7\nignored\n", 70000 & 0xFFFF, "d", true},
        {"-1\n", 65535, "", false},
        {"5\ndescription only", 5, "description only", false},
    };
    for (const auto& c : cases) {
        ServerConfig config = parseServerConfig(c.text);
        EXPECT_EQ(config.port, c.port) << c.text;
        EXPECT_EQ(config.description, c.description) << c.text;
        EXPECT_EQ(config.statisticsEnabled, c.statistics) << c.text;
    }
    ServerConfig defaults;
    EXPECT_EQ(defaults.port, 1984);
    EXPECT_EQ(defaults.description, "");
    EXPECT_FALSE(defaults.statisticsEnabled);
}

TEST(Pacing, ClimbsOneMillisecondPer200IdleIterationsAndLogsMultiplesOf40) {
    Pacing p;
    for (int i = 0; i < 199; ++i) EXPECT_EQ(advancePacing(p, false), 0u);
    EXPECT_EQ(p.pollInterval, 2u);
    EXPECT_EQ(advancePacing(p, false), 0u);
    EXPECT_EQ(p.pollInterval, 3u);
    EXPECT_EQ(p.idleCount, 0u);

    std::vector<std::uint32_t> logged;
    std::uint64_t iterations = 200;
    while (p.pollInterval < 440) {
        if (auto v = advancePacing(p, false)) logged.push_back(v);
        ++iterations;
    }
    EXPECT_EQ(iterations, 87600u);
    EXPECT_EQ(logged, (std::vector<std::uint32_t>{40, 80, 120, 160, 200, 240, 280, 320, 360, 400}));
    for (int i = 0; i < 1000; ++i) EXPECT_EQ(advancePacing(p, false), 0u);
    EXPECT_EQ(p.pollInterval, 440u);

    p.idleCount = 150;
    advancePacing(p, true);
    EXPECT_EQ(p.pollInterval, 2u);
    EXPECT_EQ(p.idleCount, 0u);
}

TEST(Generator, SeededWithZero) {
    MTRand_int32 g(0);
    EXPECT_EQ(g.rand_int32(), 2357136044u);
    std::mt19937 reference(0);
    reference();
    for (int i = 0; i < 2000; ++i) ASSERT_EQ(g.rand_int32(), reference()) << i;  // across several twists
    MTRand h(0);
    EXPECT_DOUBLE_EQ(h(), 2357136044.0 / 4294967296.0);
}

TEST(PeriodicDump, NameAndLatchAcrossMinutes) {
    std::tm t{};
    t.tm_year = 126;
    t.tm_mon = 2;
    t.tm_mday = 5;
    EXPECT_EQ(periodicDumpName(t), "126_03_05");
    t.tm_year = 125;
    t.tm_mon = 8;
    t.tm_mday = 1;
    EXPECT_EQ(periodicDumpName(t), "125_09_01");

    Server server;  // no events: the latch is cleared without a dump
    t.tm_min = 1;
    checkPeriodicDump(server, t);
    EXPECT_FALSE(server.eventDumpArmed);
    t.tm_min = 2;
    checkPeriodicDump(server, t);
    EXPECT_FALSE(server.eventDumpArmed);
    t.tm_min = 8;  // 3 mod 5
    checkPeriodicDump(server, t);
    EXPECT_TRUE(server.eventDumpArmed);
    t.tm_min = 56;  // 1 mod 5
    checkPeriodicDump(server, t);
    EXPECT_FALSE(server.eventDumpArmed);
}

TEST(Console, ErrorAttributeIsBrightRed) {
    EXPECT_EQ(ansiColourStart(12), "\x1b[91m");
    EXPECT_EQ(ansiColourStart(7), "\x1b[37m");
    EXPECT_EQ(ansiColourEnd(), "\x1b[0m");
}

TEST(Peers, AddressTextAndRegistryLines) {
    Harness h;
    EXPECT_EQ(peerAddressText(PeerInfo{{192, 168, 1, 20}, 777}), "192.168.1.20:777");
    h.connect(0);
    h.connect(1);
    h.connect(1);
    EXPECT_EQ(h.takeLogs(), (std::vector<std::string>{
                                "A new client connected from 10.0.0.1:5000", "1 peers now",
                                "A new client connected from 10.0.0.2:5001", "2 peers now",
                                "#### ERROR \n|||| Peer 10.0.0.2:5001 is already connected!\n####"}));
    h.disconnect(0);
    h.disconnect(0);
    EXPECT_EQ(h.takeLogs(), (std::vector<std::string>{
                                "Disconnected 10.0.0.1:5000", "1 peers now",
                                // 10.0.0.1 as ENet's 32-bit word: bytes 10, 0, 0, 1 little-endian
                                "#### ERROR \n|||| Peer not connected 16777226:5000!\n####"}));
    EXPECT_EQ(h.server.peers.size(), 1u);
}

TEST(Dispatch, UnknownSendersTypesAndChannelsAreLoggedAndDropped) {
    Harness h;
    h.receive(0, 0, words({10, 1, 0}));
    h.connect(0);
    h.takeLogs();
    h.receive(0, 0, words({6, 1}));
    h.receive(0, 0, words({11}));
    h.receive(0, 2, words({6, 1}));
    h.receive(0, 4, words({2, 1}));
    h.receive(0, 5, words({0, 1}));
    h.receive(0, 6, words({3, 1}));
    h.receive(0, 6, words({9, 1}));
    h.receive(0, 7, words({1, 1}));
    h.receive(0, 200, words({1, 1}));
    auto logs = h.takeLogs();
    std::vector<std::string> expected = {
        "|||| Unknown lobby message 6. Nothing to do with it",
        "|||| Unknown lobby message 11. Nothing to do with it",
        "|||| Unknown ingame message 6. Nothing to do with it",
        "|||| Unknown feedback message 2. Nothing to do with it",
        "|||| Unknown event tracking type 0. Nothing to do with it",
        "???? server should not be receiving file responses",
        "|||| Unknown file update message 9. Nothing to do with it",
        "|||| Channel 7. Nothing to do with it",
        "|||| Channel 200. Nothing to do with it",
    };
    ASSERT_EQ(logs.size(), expected.size());
    for (std::size_t i = 0; i < logs.size(); ++i) EXPECT_EQ(logs[i], "#### ERROR \n" + expected[i] + "\n####");
    EXPECT_TRUE(h.takeSent().empty());
}

TEST(Dispatch, UnknownPeerLine) {
    Harness h;
    h.receive(3, 0, words({10, 1, 0}));
    EXPECT_EQ(h.takeLogs(),
              (std::vector<std::string>{"#### ERROR \n|||| Packet from unknown peer 10.0.0.4:5003! Ignoring!\n####"}));
    EXPECT_EQ(h.server.bytesReceived, 12u);
}

TEST(Dispatch, MalformedPacketsOnEveryChannelAreDroppedWithOneLine) {
    Harness h;
    h.connect(0);
    h.takeLogs();
    for (std::uint8_t channel : {0, 2, 4, 5, 6}) {
        h.receive(0, channel, Bytes{1, 2, 3});
        auto logs = h.takeLogs();
        ASSERT_EQ(logs.size(), 1u);
        EXPECT_EQ(logs[0].rfind("#### ERROR \n|||| Malformed ", 0), 0u) << logs[0];
        EXPECT_NE(logs[0].find("channel " + std::to_string(channel)), std::string::npos);
        EXPECT_NE(logs[0].find("3 bytes"), std::string::npos);
    }
    h.receive(0, 1, Bytes{'n', 'o', 'n', 'u', 'l'});
    auto logs = h.takeLogs();
    ASSERT_EQ(logs.size(), 1u);
    EXPECT_EQ(logs[0], "#### ERROR \n|||| Malformed text on channel 1, 5 bytes. Dropped\n####");
    h.receive(0, 0, Bytes{});
    EXPECT_EQ(h.takeLogs().size(), 1u);
    EXPECT_TRUE(h.takeSent().empty());
}

namespace {
Room& addRoom(Server& server, std::uint32_t id, std::initializer_list<std::pair<std::size_t, ENetPeer*>> members) {
    auto room = std::make_unique<Room>();
    room->id = id;
    for (auto [slot, peer] : members) room->slots[slot].peer = peer;
    Room& ref = *room;
    server.rooms.emplace(id, std::move(room));
    return ref;
}
}  // namespace

TEST(Text, RelayedToTheSendersGroupOnlyAndCutAtTheFirstNul) {
    Harness h;
    for (std::size_t i = 0; i < 5; ++i) h.connect(i);
    addRoom(h.server, 1, {{0, h.peer(0)}, {3, h.peer(1)}});
    addRoom(h.server, 2, {{0, h.peer(2)}});
    h.takeSent();

    h.receive(1, 1, Bytes{'g', 'g', 0, 'x', 'y', 0});
    auto sent = h.takeSent();
    std::set<ENetPeer*> got;
    for (auto& s : sent) {
        EXPECT_EQ(s.channel, 1);
        EXPECT_EQ(s.data, (Bytes{'g', 'g', 0}));
        got.insert(s.peer);
    }
    EXPECT_EQ(sent.size(), 2u);
    EXPECT_EQ(got, (std::set<ENetPeer*>{h.peer(0), h.peer(1)}));

    // Nobody in a room: the text reaches the others in no room, sender included.
    h.receive(3, 1, Bytes{'h', 'i', 0});
    got.clear();
    for (auto& s : h.takeSent()) got.insert(s.peer);
    EXPECT_EQ(got, (std::set<ENetPeer*>{h.peer(3), h.peer(4)}));
}

TEST(Text, SendTextToRoomReachesEachOccupiedSlotInOrder) {
    Harness h;
    Room& room = addRoom(h.server, 1, {{6, h.peer(0)}, {1, h.peer(1)}, {4, h.peer(2)}});
    room.slots[2].info = std::make_unique<PlayerSetup>();
    sendTextToRoom(room, "go");
    auto sent = h.takeSent();
    ASSERT_EQ(sent.size(), 3u);
    EXPECT_EQ(sent[0].peer, h.peer(1));
    EXPECT_EQ(sent[1].peer, h.peer(2));
    EXPECT_EQ(sent[2].peer, h.peer(0));
    EXPECT_EQ(sent[0].data, (Bytes{'g', 'o', 0}));
}

TEST(ServerStatusCounts, RunningOtherAndNoRoom) {
    Harness h;
    h.server.serverDescription = "Test";
    for (std::size_t i = 0; i < 5; ++i) h.connect(i);
    Room& running = addRoom(h.server, 1, {{0, h.peer(0)}, {1, h.peer(1)}});
    running.running = true;
    addRoom(h.server, 2, {{0, h.peer(2)}});
    h.takeSent();
    sendServerStatus(h.server, h.peer(4));
    auto sent = h.takeSent();
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(sent[0].channel, 0);
    Bytes expected = Writer().u32(1).u32(1).str("Test").u32(1).u32(2).u32(1).u32(2).u32(4).take();
    EXPECT_EQ(sent[0].data, expected);
}
