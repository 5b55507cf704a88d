#include <gtest/gtest.h>

#include "lobby/room.h"
#include "log/log.h"
#include "platform/clock.h"
#include "stats/statistics.h"
#include "support/stats_support.h"

namespace {

Room finishedMatch(std::vector<std::string> names, std::string dataset, std::uint32_t checksum,
                   std::uint32_t gameMode, std::uint32_t lastStep, std::uint32_t maxDelay, std::uint32_t desyncs) {
    Room room;
    room.running = true;
    room.matchPlayerNames = std::move(names);
    room.dataset = std::move(dataset);
    room.datasetChecksum = checksum;
    room.settings.gameMode = gameMode;
    room.lastCompletedStep = lastStep;
    room.maxOrderDelay = maxDelay;
    room.desyncCount = desyncs;
    return room;
}

}  // namespace

TEST(Duration, UnitsAppearFromTheLargestNonZeroOne) {
    const std::pair<std::uint32_t, const char*> cases[] = {
        {0, "0s"},          {59, "59s"},           {60, "1m 0s"},         {3599, "59m 59s"},
        {3600, "1h 0m 0s"}, {3661, "1h 1m 1s"},    {86399, "23h 59m 59s"}, {86400, "1d 0h 0m 0s"},
        {90061, "1d 1h 1m 1s"}, {4294967295u, "49710d 6h 28m 15s"},
    };
    for (const auto& [seconds, text] : cases) EXPECT_EQ(formatDuration(seconds), text) << seconds;
}

TEST(Statistics, EmptyPeriodBlock) {
    ServerStatistics s;
    s.periodStart = 100;
    EXPECT_EQ(formatStatistics(s, 3761),
              "Stat dump after 1h 1m 1s running:\n"
              "    Total games: 0, with 0 desyncs\n"
              "    Games per dataset:\n"
              "    Desyncs per dataset:\n"
              "    Gamemodes:\n"
              "    Players:\n"
              "\n"
              "    Average players: 0, with max of 0\n"
              "    Average game length: 0s, with max of 0s\n"
              "    Average max order delay: 0, with max of 0\n");
    // A clock set back reads as no time at all.
    EXPECT_EQ(formatStatistics(s, 50).rfind("Stat dump after 0s running:\n", 0), 0u);
}

TEST(Statistics, TwoMatchesOfTwoAndThreePlayers) {
    ServerStatistics s;
    recordFinishedGame(s, finishedMatch({"a", "b"}, "d", 1, 0, 1200, 0, 0));
    recordFinishedGame(s, finishedMatch({"a", "c", "e"}, "d", 1, 0, 1210, 0, 1));
    EXPECT_EQ(s.averagePlayers, 2.5f);
    EXPECT_EQ(s.maxPlayers, 3u);
    EXPECT_EQ(s.averageGameLength, 1205.0f);
    EXPECT_EQ(s.maxGameLength, 1210u);
    EXPECT_EQ(s.totalGames, 2u);
    EXPECT_EQ(s.desyncGames, 1u);
    EXPECT_NE(formatStatistics(s, 0).find("    Average players: 2.5, with max of 3\n"), std::string::npos);
}

TEST(Statistics, ThreeMatchesOrderingAndFloatAverages) {
    ServerStatistics s;
    s.periodStart = 1000;
    // Checksum 7 named "alpha" comes after checksum 5 named "zeta"; names
    // order byte by byte as unsigned values, a prefix first.
    recordFinishedGame(s, finishedMatch({"bob", "Alice"}, "alpha", 7, 2, 1200, 0, 0));
    recordFinishedGame(s, finishedMatch({"bo", "\xc3\x89mile", "bob"}, "zeta", 5, 0, 2400, 5, 2));
    recordFinishedGame(s, finishedMatch({"Zed", "bob"}, "alpha", 7, 2, 599, 3, 1));
    EXPECT_EQ(formatStatistics(s, 1000 + 86400 + 5),
              "Stat dump after 1d 0h 0m 5s running:\n"
              "    Total games: 3, with 2 desyncs\n"
              "    Games per dataset:\n"
              "        zeta(5) -> 1\n"
              "        alpha(7) -> 2\n"
              "    Desyncs per dataset:\n"
              "        zeta(5) -> 1\n"
              "        alpha(7) -> 1\n"
              "    Gamemodes:\n"
              "        0 -> 1\n"
              "        2 -> 2\n"
              "    Players:\n"
              "        Alice -> 1\n"
              "        Zed -> 1\n"
              "        bo -> 1\n"
              "        bob -> 3\n"
              "        \xc3\x89mile -> 1\n"
              "\n"
              "    Average players: 2.33333, with max of 3\n"
              // (1200 + 2400 + 599) / 3 = 1399.67 steps: 69 s after truncation
              "    Average game length: 1m 9s, with max of 2m 0s\n"
              "    Average max order delay: 2.66667, with max of 5\n");

    // The folding is done in 32-bit floats, step by step.
    float players = (2.0f + 0.0f * 0.0f) / 1.0f;
    players = (3.0f + 1.0f * players) / 2.0f;
    players = (2.0f + 2.0f * players) / 3.0f;
    EXPECT_EQ(s.averagePlayers, players);

    // A name that occurs twice in one match counts twice.
    recordFinishedGame(s, finishedMatch({"x", "x"}, "alpha", 7, 2, 0, 0, 0));
    EXPECT_EQ(s.players["x"], 2u);
}

TEST(Statistics, DumpAppendsBlocksLogsAndResets) {
    ScratchDataRoot root;
    ServerStatistics s;
    setClockForTests(2000);
    resetStatistics(s);
    recordFinishedGame(s, finishedMatch({"a"}, "d", 1, 0, 20, 2, 0));
    setClockForTests(2030);
    takeQueuedLogTexts();
    const std::string path = root.prefix() + "server_data/stats/keypress_dump";
    dumpStatistics(s, path);
    EXPECT_EQ(s.totalGames, 0u);
    EXPECT_TRUE(s.players.empty());
    EXPECT_EQ(s.averagePlayers, 0.0f);
    EXPECT_EQ(s.periodStart, 2030);
    setClockForTests(2033);
    dumpStatistics(s, path);
    EXPECT_EQ(takeQueuedLogTexts(), (std::vector<std::string>{"Dumped stats to " + path + ".serverstats",
                                                              "Dumped stats to " + path + ".serverstats"}));
    auto lines = splitLines(root.read("server_data/stats/keypress_dump.serverstats"));
    ASSERT_EQ(lines.size(), 23u);
    EXPECT_EQ(lines[0], "Stat dump after 30s running:");
    EXPECT_EQ(lines[3], "        d(1) -> 1");
    EXPECT_EQ(lines[10], "    Average players: 1, with max of 1");
    EXPECT_EQ(lines[11], "    Average game length: 1s, with max of 1s");
    EXPECT_EQ(lines[12], "    Average max order delay: 2, with max of 2");
    EXPECT_EQ(lines[13], "Stat dump after 3s running:");
    EXPECT_EQ(lines[14], "    Total games: 0, with 0 desyncs");

    // Nowhere to write: the figures are lost all the same.
    recordFinishedGame(s, finishedMatch({"a"}, "d", 1, 0, 20, 2, 0));
    setClockForTests(2040);
    const std::string nowhere = root.prefix() + "server_data/stats/keypress_dump.serverstats/x";
    dumpStatistics(s, nowhere);
    EXPECT_EQ(takeQueuedLogTexts(), (std::vector<std::string>{"Failed to dump stats to " + nowhere + ".serverstats"}));
    EXPECT_EQ(s.totalGames, 0u);
    EXPECT_EQ(s.periodStart, 2040);
}
