#include <gtest/gtest.h>

#include <filesystem>
#include <functional>
#include <regex>

#include "protocol/messages.h"
#include "support/harness.h"
#include "support/server_process.h"
#include "support/stats_support.h"
#include "support/test_client.h"

namespace {

// The server's clock starts at a local time and ticks from there. libfaketime
// is preloaded directly: the faketime wrapper forks and would not pass the
// test's SIGINT on to the server. Empty when the library is missing.
std::vector<std::string> fakedClock(const std::string& localTime) {
    for (const char* lib : {"/usr/lib/x86_64-linux-gnu/faketime/libfaketime.so.1",
                            "/usr/lib/aarch64-linux-gnu/faketime/libfaketime.so.1"})
        if (std::filesystem::exists(lib))
            return {std::string("LD_PRELOAD=") + lib, "FAKETIME=@" + localTime, "FAKETIME_DONT_FAKE_MONOTONIC=1"};
    return {};
}

Bytes trackEvent(const std::string& player, std::uint32_t eventType) {
    return Writer().u32(1).u32(1).str(player).str("base set").u32(4000000000u).u32(eventType).str("menu").take();
}

// A text and its echo: everything the client sent before has been handled.
void roundTrip(TestClient& client, const std::string& text = "sync") {
    client.send(1, encodeText(text));
    std::optional<Bytes> got;
    while ((got = client.nextOn(1, 3000)) && textOf(*got) != text) {
    }
    ASSERT_TRUE(got) << "no echo";
}

std::size_t findLine(const std::vector<std::string>& lines, const std::string& text, std::size_t from = 0) {
    for (std::size_t i = from; i < lines.size(); ++i)
        if (lines[i] == ": " + text) return i;
    return std::string::npos;
}

// The nine lines of a network report starting at first: {B, R, RP, S, SP}.
std::vector<std::uint64_t> networkReportAt(const std::vector<std::string>& lines, std::size_t first) {
    if (first == std::string::npos || first + 9 > lines.size()) return {};
    std::string text;
    for (std::size_t i = first; i < first + 9; ++i) text += lines[i] + "\n";
    static const std::regex shape(
        ": \n: Bytes received: (\\d+), \\((\\d+) kB, (\\d+) MB\\)\n: \n"
        ": Total received: (\\d+), \\((\\d+) kB, (\\d+) MB\\)\n: In (\\d+) packets\n: \n"
        ": Total send: (\\d+), \\((\\d+) kB, (\\d+) MB\\)\n: In (\\d+) packets\n: \n");
    std::smatch m;
    if (!std::regex_match(text, m, shape)) {
        ADD_FAILURE() << text;
        return {};
    }
    auto n = [&](int i) { return std::stoull(m[i]); };
    for (int i : {1, 4, 8}) {
        EXPECT_EQ(n(i + 1), n(i) >> 10) << text;
        EXPECT_EQ(n(i + 2), n(i) >> 20) << text;
    }
    return {n(1), n(4), n(7), n(8), n(11)};
}

const std::vector<std::string> kEmptyBlockTail = {
    "    Total games: 0, with 0 desyncs", "    Games per dataset:", "    Desyncs per dataset:", "    Gamemodes:",
    "    Players:", "", "    Average players: 0, with max of 0", "    Average game length: 0s, with max of 0s",
    "    Average max order delay: 0, with max of 0"};

// A block's lines after its first, which must read "Stat dump after Ns
// running:" with N at most maxSeconds.
std::vector<std::string> blockTail(const std::string& text, int maxSeconds) {
    auto lines = splitLines(text);
    if (lines.empty()) return {};
    std::smatch m;
    static const std::regex head("Stat dump after (\\d+)s running:");
    EXPECT_TRUE(std::regex_match(lines[0], m, head) && std::stoi(m[1]) <= maxSeconds) << lines[0];
    return {lines.begin() + 1, lines.end()};
}

// Events file lines with each timestamp checked to lie in [low, high] and
// replaced by "*".
std::vector<std::string> eventsWithoutTimes(const std::string& text, std::int64_t low, std::int64_t high) {
    auto lines = splitLines(text);
    for (std::size_t i = 7; i < lines.size(); i += 8) {
        std::int64_t t = std::stoll(lines[i].substr(12));
        EXPECT_EQ(lines[i], "timestamp = " + std::to_string(t));
        EXPECT_TRUE(t >= low && t <= high) << t;
        lines[i] = "timestamp = *";
    }
    return lines;
}

const std::vector<std::string> kStartEvent = {"eventIndex = 0", "type = 2", "playerName = __SERVER__",
                                              "sourceIP = 0", "dataset = ", "datasetChecksum = 0",
                                              "additionalEventData = ", "timestamp = *"};

}  // namespace

TEST(StatsBinary, KeyDDumpsTheStartEventAClientEventAndAnEmptyBlock) {
    // 10:02 is far from minutes 1 and 6: no periodic dump interferes.
    auto clock = fakedClock("2026-03-05 10:02:00");
    if (clock.empty()) GTEST_SKIP() << "libfaketime is not installed";
    const std::int64_t t0 = localUnixTime(2026, 3, 5, 10, 2, 0);
    ServerProcess server(ServerOptions{.environment = clock});
    ASSERT_TRUE(server.start());
    TestClient client;
    ASSERT_TRUE(client.connect(server.port()));
    client.send(5, trackEvent("Ann", 55));
    roundTrip(client);

    server.sendKeys("d");
    const std::string base = "./server_data/stats/keypress_dump";
    ASSERT_TRUE(server.waitForLog(": Dumping stats to keypress_dump\n: Dumped stats to " + base +
                                  ".serverstats\n: Dumped events to " + base + ".events\n"))
        << server.log();
    auto expected = kStartEvent;
    for (const char* line : {"eventIndex = 1", "type = 55", "playerName = Ann", "sourceIP = 16777343",
                             "dataset = base set", "datasetChecksum = 4000000000", "additionalEventData = menu",
                             "timestamp = *"})
        expected.push_back(line);
    EXPECT_EQ(eventsWithoutTimes(server.readFile("server_data/stats/keypress_dump.events"), t0, t0 + 60), expected);
    EXPECT_EQ(blockTail(server.readFile("server_data/stats/keypress_dump.serverstats"), 60), kEmptyBlockTail);

    EXPECT_EQ(server.stop(), 0);
    // Statistics are off: nothing is written at shutdown.
    EXPECT_FALSE(std::filesystem::exists(server.root() + "/close.serverstats"));
}

TEST(StatsBinary, KeysRAndTAndTheReportAtShutdown) {
    ServerProcess server;
    ASSERT_TRUE(server.start());
    TestClient client;
    ASSERT_TRUE(client.connect(server.port()));
    // 3000 bytes of an unknown event tracking type, then a 100-byte text.
    Bytes big = Writer().u32(9).u32(1).take();
    big.resize(3000, 'x');
    client.send(5, big);
    roundTrip(client, std::string(99, 'y'));

    // Uppercase keys print nothing; 't' without rooms prints two empty lines.
    server.sendKeys("RTtrr");
    ASSERT_TRUE(server.waitForLog(": In ", 4));
    auto lines = splitLines(server.log());
    std::size_t first = findLine(lines, "Bytes received: 3100, (3 kB, 0 MB)");
    ASSERT_TRUE(first != std::string::npos && first >= 4) << server.log();
    EXPECT_NE(lines[first - 4], ": ");
    EXPECT_EQ(lines[first - 3], ": ");
    EXPECT_EQ(lines[first - 2], ": ");
    auto one = networkReportAt(lines, first - 1);
    auto two = networkReportAt(lines, first + 8);
    ASSERT_EQ(one.size(), 5u);
    ASSERT_EQ(two.size(), 5u);
    EXPECT_GT(one[1], 3100u);
    EXPECT_GE(one[2], 3u);  // the connect and the two packets at least
    EXPECT_GT(one[3], 0u);
    for (std::size_t i = 0; i < 5; ++i) EXPECT_GE(two[i], one[i]) << i;

    EXPECT_EQ(server.stop(), 0);
    lines = splitLines(server.log());
    std::size_t destroyed = findLine(lines, "Enet server destroyed");
    ASSERT_TRUE(destroyed != std::string::npos && destroyed >= 9);
    auto last = networkReportAt(lines, destroyed - 9);
    ASSERT_EQ(last.size(), 5u);
    EXPECT_EQ(last[0], 3100u);
}

TEST(StatsBinary, PeriodicDumpUnderAFakedClockAndTheCloseDump) {
    auto clock = fakedClock("2026-03-05 10:06:10");
    if (clock.empty()) GTEST_SKIP() << "libfaketime is not installed";
    const std::int64_t t0 = localUnixTime(2026, 3, 5, 10, 6, 10);
    ServerProcess server(ServerOptions{.statistics = true, .environment = clock});
    ASSERT_TRUE(server.start());
    // Minute 6 is 1 mod 5 and the latch starts armed: the first service step
    // dumps the start event under the day's name.
    const std::string base = "./server_data/stats/126_03_05";
    ASSERT_TRUE(server.waitForLog(": Dumping stats to 126_03_05\n: Dumped stats to " + base +
                                  ".serverstats\n: Dumped events to " + base + ".events\n"))
        << server.log();
    EXPECT_EQ(eventsWithoutTimes(server.readFile("server_data/stats/126_03_05.events"), t0, t0 + 5), kStartEvent);
    EXPECT_EQ(blockTail(server.readFile("server_data/stats/126_03_05.serverstats"), 5), kEmptyBlockTail);

    EXPECT_EQ(server.stop(), 0);
    // The close dump goes to the working directory, after the network report.
    auto lines = splitLines(server.log());
    std::size_t closeLine = findLine(lines, "Dumped stats to close.serverstats");
    ASSERT_TRUE(closeLine != std::string::npos && closeLine >= 9) << server.log();
    EXPECT_EQ(networkReportAt(lines, closeLine - 9).size(), 5u);
    EXPECT_EQ(lines[closeLine + 1], ": Enet server destroyed");
    EXPECT_EQ(blockTail(server.readFile("close.serverstats"), 10), kEmptyBlockTail);
    EXPECT_EQ(countOf(server.log(), "Dumping stats to "), 1u);
}

namespace {

std::uint32_t wordAt(const Bytes& bytes, std::size_t offset) {
    return bytes.size() >= offset + 4 ? loadU32(bytes.data() + offset) : 0xFFFFFFFFu;
}

// The next message of a type on a channel that also satisfies a test; other
// messages on that channel are passed over.
std::optional<Bytes> awaitType(TestClient& client, std::uint8_t channel, std::uint32_t type, int timeoutMs = 3000,
                               const std::function<bool(const Bytes&)>& also = nullptr) {
    std::optional<Bytes> got;
    while ((got = client.nextOn(channel, timeoutMs)) && !(messageType(*got) == type && (!also || also(*got)))) {
    }
    return got;
}

}  // namespace

TEST(StatsBinary, FinishedMatchIsFoldedIntoTheStatisticsWhenItsRoomIsDeleted) {
    auto clock = fakedClock("2026-03-05 10:02:00");
    if (clock.empty()) GTEST_SKIP() << "libfaketime is not installed";
    ServerProcess server(ServerOptions{.statistics = true, .environment = clock});
    ASSERT_TRUE(server.start());
    TestClient a, b;
    ASSERT_TRUE(a.connect(server.port()));
    ASSERT_TRUE(b.connect(server.port()));

    a.send(0, Writer().u32(2).u32(1).str("Stats room").str("base").u32(1234).take());
    auto accepted = awaitType(a, 0, 6, 2000);
    ASSERT_TRUE(accepted);
    const std::uint32_t roomId = wordAt(*accepted, 12);
    b.send(0, words({3, 1, roomId}));
    auto bAccepted = awaitType(b, 0, 6);
    ASSERT_TRUE(bAccepted);
    const std::uint32_t bSlot = wordAt(*bAccepted, 8);

    auto setup = [](std::uint32_t slot, const std::string& name) {
        return Writer().u32(5).u32(1).u32(slot).u32(1).u32(0).u32(0).u32(0).u32(0).u32(0).str(name).u32(0).u32(0).take();
    };
    auto readySetupOf = [](std::uint32_t slot) {
        return [slot](const Bytes& m) { return wordAt(m, 8) == slot && wordAt(m, 12) == 1; };
    };
    a.send(0, setup(0, "Ann"));
    ASSERT_TRUE(awaitType(b, 0, 5, 3000, readySetupOf(0)));
    b.send(0, setup(bSlot, "bob"));
    ASSERT_TRUE(awaitType(a, 0, 5, 3000, readySetupOf(bSlot)));

    a.send(0, words({14, 1}));  // the start request
    ASSERT_TRUE(awaitType(a, 0, 14) && awaitType(b, 0, 14));
    a.send(0, words({14, 1}));  // each human confirms
    b.send(0, words({14, 1}));
    ASSERT_TRUE(awaitType(a, 0, 14) && awaitType(b, 0, 14));

    server.sendKeys("t");
    ASSERT_TRUE(server.waitForLog(": Room " + std::to_string(roomId) + " - Net: 0 - CPU: 0\n"));

    // Step 1200 done by both: a match of one minute.
    a.send(3, words({1, 1200, 0}));
    b.send(3, words({1, 1200, bSlot}));
    auto isStep1200 = [](const Bytes& m) { return m.size() == 12 && wordAt(m, 4) == 1200; };
    ASSERT_TRUE(awaitType(a, 3, 1, 3000, isStep1200));

    a.disconnect();
    b.disconnect();
    ASSERT_TRUE(server.waitForLog("Empty room \"Stats room\" with ID " + std::to_string(roomId) + " deleted. "));
    server.sendKeys("d");
    ASSERT_TRUE(server.waitForLog("Dumped events to ./server_data/stats/keypress_dump.events"));
    EXPECT_EQ(blockTail(server.readFile("server_data/stats/keypress_dump.serverstats"), 60),
              (std::vector<std::string>{"    Total games: 1, with 0 desyncs", "    Games per dataset:",
                                        "        base(1234) -> 1", "    Desyncs per dataset:", "    Gamemodes:",
                                        "        0 -> 1", "    Players:", "        Ann -> 1", "        bob -> 1", "",
                                        "    Average players: 2, with max of 2",
                                        "    Average game length: 1m 0s, with max of 1m 0s",
                                        "    Average max order delay: 0, with max of 0"}));
    EXPECT_EQ(server.stop(), 0);
}
