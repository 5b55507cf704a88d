// Tracked events, statistics and the operator's reports through the binary:
// the dump files, the network and load reports, keys and signals.

#include "support/e2e_support.h"

using e2e::words;

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

std::size_t findLine(const std::vector<std::string>& lines, const std::string& text) {
    for (std::size_t i = 0; i < lines.size(); ++i)
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
}  // namespace

TEST(StatsBinary, PeriodicAndKeyDumpsOfAFinishedMatchUnderAFakedClockAndTheCloseDump) {
    auto clock = fakedClock("2026-03-05 10:06:10");
    if (clock.empty()) GTEST_SKIP() << "libfaketime is not installed";
    std::tm local{.tm_sec = 10, .tm_min = 6, .tm_hour = 10, .tm_mday = 5, .tm_mon = 2, .tm_year = 126, .tm_isdst = -1};
    const std::int64_t t0 = std::mktime(&local);
    ServerProcess server(ServerOptions{.statistics = true, .environment = clock});
    ASSERT_TRUE(server.start());
    // Minute 6 is 1 mod 5 and the latch starts armed: the first service step
    // dumps the start event under the day's name.
    const std::string day = "server_data/stats/126_03_05";
    ASSERT_TRUE(server.waitForLog(": Dumping stats to 126_03_05\n: Dumped stats to ./" + day + ".serverstats\n"
                                  ": Dumped events to ./" + day + ".events\n"))
        << server.log();
    EXPECT_EQ(eventsWithoutTimes(server.readFile(day + ".events"), t0, t0 + 5),
              (std::vector<std::string>{"eventIndex = 0", "type = 2", "playerName = __SERVER__", "sourceIP = 0",
                                        "dataset = ", "datasetChecksum = 0", "additionalEventData = ",
                                        "timestamp = *"}));
    EXPECT_EQ(blockTail(server.readFile(day + ".serverstats"), 5), kEmptyBlockTail);

    // Ann reports an event and plays one minute (step 1200) with bob.
    TestClient a, b;
    const std::uint32_t room =
        e2e::startMatch(server.port(), {&a, &b}, {"Ann", "bob"}, e2e::createRoom("Stats room", "base", 1234));
    ASSERT_NE(room, 0u);
    a.send(5, Writer().u32(1).u32(1).str("Ann").str("base set").u32(4000000000u).u32(55).str("menu").take());
    server.sendKeys("t");
    ASSERT_TRUE(server.waitForLog(": Room " + std::to_string(room) + " - Net: 0 - CPU: 0\n"));
    a.send(3, words({1, 1200, 0}));
    b.send(3, words({1, 1200, 1}));
    ASSERT_TRUE(e2e::awaitOn(a, 3, [](const Bytes& m) { return m == words({1, 1200, 1}); }));
    a.disconnect();
    b.disconnect();
    ASSERT_TRUE(server.waitForLog("Empty room \"Stats room\" with ID " + std::to_string(room) + " deleted. "));

    // The room's deletion folded the match into the statistics.
    server.sendKeys("d");
    ASSERT_TRUE(server.waitForLog("Dumped events to ./server_data/stats/keypress_dump.events"));
    EXPECT_EQ(eventsWithoutTimes(server.readFile("server_data/stats/keypress_dump.events"), t0, t0 + 60),
              (std::vector<std::string>{"eventIndex = 0", "type = 55", "playerName = Ann", "sourceIP = 16777343",
                                        "dataset = base set", "datasetChecksum = 4000000000",
                                        "additionalEventData = menu", "timestamp = *"}));
    EXPECT_EQ(blockTail(server.readFile("server_data/stats/keypress_dump.serverstats"), 60),
              (std::vector<std::string>{"    Total games: 1, with 0 desyncs", "    Games per dataset:",
                                        "        base(1234) -> 1", "    Desyncs per dataset:", "    Gamemodes:",
                                        "        0 -> 1", "    Players:", "        Ann -> 1", "        bob -> 1", "",
                                        "    Average players: 2, with max of 2",
                                        "    Average game length: 1m 0s, with max of 1m 0s",
                                        "    Average max order delay: 0, with max of 0"}));

    // The close dump goes to the working directory, after the network report.
    EXPECT_EQ(server.stop(), 0);
    auto lines = splitLines(server.log());
    std::size_t closeLine = findLine(lines, "Dumped stats to close.serverstats");
    ASSERT_TRUE(closeLine != std::string::npos && closeLine >= 9) << server.log();
    EXPECT_EQ(networkReportAt(lines, closeLine - 9).size(), 5u);
    EXPECT_EQ(lines[closeLine + 1], ": Enet server destroyed");
    EXPECT_EQ(blockTail(server.readFile("close.serverstats"), 60), kEmptyBlockTail);
    EXPECT_EQ(countOf(server.log(), "Dumping stats to "), 2u);
}

TEST(StatsBinary, KeysThroughAPipeThatEndsSignalsAndTheNetworkReportAtShutdown) {
    ServerProcess server;
    ASSERT_TRUE(server.start());
    TestClient client;
    ASSERT_TRUE(client.connect(server.port()));
    // 3000 bytes of an unknown event tracking type, then a 100-byte text,
    // whose echo says that both have been handled.
    Bytes big = words({9, 1});
    big.resize(3000, 'x');
    client.send(5, big);
    client.send(1, e2e::text(std::string(99, 'y')));
    ASSERT_TRUE(client.nextOn(1, 3000));

    // Other and uppercase keys do nothing, 't' without rooms prints two empty
    // lines, and the end of the input is no reason to stop.
    server.sendKeys("xRTDtrr");
    server.closeInput();
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

    // SIGUSR2 is 'r' then 't', SIGUSR1 is 'd'.
    kill(server.pid(), SIGUSR2);
    ASSERT_TRUE(server.waitForLog(": In ", 6));
    lines = splitLines(server.log());
    ASSERT_GE(lines.size(), first + 28);
    EXPECT_EQ(networkReportAt(lines, first + 17).size(), 5u) << server.log();
    EXPECT_EQ(std::vector<std::string>(lines.begin() + first + 26, lines.begin() + first + 28),
              (std::vector<std::string>{": ", ": "}));
    kill(server.pid(), SIGUSR1);
    ASSERT_TRUE(server.waitForLog(": Dumping stats to keypress_dump\n: Dumped stats to "
                                  "./server_data/stats/keypress_dump.serverstats\n: Dumped events to "
                                  "./server_data/stats/keypress_dump.events\n"));
    EXPECT_EQ(countOf(server.log(), "Dumping stats to keypress_dump"), 1u);

    EXPECT_EQ(server.stop(), 0);
    lines = splitLines(server.log());
    std::size_t destroyed = findLine(lines, "Enet server destroyed");
    ASSERT_TRUE(destroyed != std::string::npos && destroyed >= 9);
    auto last = networkReportAt(lines, destroyed - 9);
    ASSERT_EQ(last.size(), 5u);
    EXPECT_EQ(last[0], 3100u);
}
