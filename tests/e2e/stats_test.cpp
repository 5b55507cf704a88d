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

// Every network report in the log, in order, with the figures of its
// received bytes, total received bytes and packets, and total sent bytes and
// packets, and where it starts and ends; the kB and MB figures are checked.
struct NetworkReport {
    std::vector<std::uint64_t> figures;
    std::size_t begin, end;
};
std::vector<NetworkReport> networkReports(const std::string& log) {
    static const std::regex shape(
        ": \n: Bytes received: (\\d+), \\((\\d+) kB, (\\d+) MB\\)\n: \n"
        ": Total received: (\\d+), \\((\\d+) kB, (\\d+) MB\\)\n: In (\\d+) packets\n: \n"
        ": Total send: (\\d+), \\((\\d+) kB, (\\d+) MB\\)\n: In (\\d+) packets\n: \n");
    std::vector<NetworkReport> out;
    for (std::sregex_iterator it(log.begin(), log.end(), shape), end; it != end; ++it) {
        auto n = [&](int i) { return std::stoull((*it)[i]); };
        for (int i : {1, 4, 8}) EXPECT_TRUE(n(i + 1) == n(i) >> 10 && n(i + 2) == n(i) >> 20) << it->str();
        const auto at = static_cast<std::size_t>(it->position());
        out.push_back({{n(1), n(4), n(7), n(8), n(11)}, at, at + it->str().size()});
    }
    return out;
}

const std::vector<std::string> kEmptyBlock = {
    "Stat dump after *s running:", "    Total games: 0, with 0 desyncs", "    Games per dataset:",
    "    Desyncs per dataset:", "    Gamemodes:", "    Players:", "", "    Average players: 0, with max of 0",
    "    Average game length: 0s, with max of 0s", "    Average max order delay: 0, with max of 0"};

// The lines of a dump file, with each time stamp and the uptime in a
// statistics head checked to lie within maxSeconds of t0 and of 0, and
// replaced by "*".
std::vector<std::string> masked(const std::string& text, std::int64_t t0, std::int64_t maxSeconds) {
    static const std::regex number("^(timestamp = |Stat dump after )(\\d+)");
    auto lines = splitLines(text);
    for (auto& line : lines) {
        std::smatch m;
        if (!std::regex_search(line, m, number)) continue;
        const std::int64_t n = std::stoll(m[2]) - (m[1] == "timestamp = " ? t0 : 0);
        EXPECT_TRUE(n >= 0 && n <= maxSeconds) << line;
        line = m[1].str() + "*" + m.suffix().str();
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
    EXPECT_EQ(masked(server.readFile(day + ".events"), t0, 5),
              (std::vector<std::string>{"eventIndex = 0", "type = 2", "playerName = __SERVER__", "sourceIP = 0",
                                        "dataset = ", "datasetChecksum = 0", "additionalEventData = ",
                                        "timestamp = *"}));
    EXPECT_EQ(masked(server.readFile(day + ".serverstats"), t0, 5), kEmptyBlock);

    // Ann reports two events and plays one minute (step 1200) with bob.
    TestClient a, b;
    const std::uint32_t room =
        e2e::startMatch(server.port(), {&a, &b}, {"Ann", "bob"}, e2e::createRoom("Stats room", "base", 1234));
    ASSERT_NE(room, 0u);
    for (std::uint32_t type : {55u, 56u})
        a.send(5, Writer().u32(1).u32(1).str("Ann").str("base set").u32(4000000000u).u32(type).str("menu").take());
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
    EXPECT_EQ(masked(server.readFile("server_data/stats/keypress_dump.events"), t0, 60),
              (std::vector<std::string>{"eventIndex = 0", "type = 55", "playerName = Ann", "sourceIP = 16777343",
                                        "dataset = base set", "datasetChecksum = 4000000000",
                                        "additionalEventData = menu", "timestamp = *", "eventIndex = 1", "type = 56",
                                        "playerName = Ann", "sourceIP = 16777343", "dataset = base set",
                                        "datasetChecksum = 4000000000", "additionalEventData = menu", "timestamp = *"}));
    EXPECT_EQ(masked(server.readFile("server_data/stats/keypress_dump.serverstats"), t0, 60),
              (std::vector<std::string>{"Stat dump after *s running:", "    Total games: 1, with 0 desyncs",
                                        "    Games per dataset:", "        base(1234) -> 1", "    Desyncs per dataset:",
                                        "    Gamemodes:", "        0 -> 1", "    Players:", "        Ann -> 1",
                                        "        bob -> 1", "", "    Average players: 2, with max of 2",
                                        "    Average game length: 1m 0s, with max of 1m 0s",
                                        "    Average max order delay: 0, with max of 0"}));

    // The close dump goes to the working directory, after the network report.
    EXPECT_EQ(server.stop(), 0);
    const std::string log = server.log();
    auto reports = networkReports(log);
    ASSERT_EQ(reports.size(), 1u) << log;
    EXPECT_TRUE(log.substr(reports[0].end).starts_with(": Dumped stats to close.serverstats\n: Enet server destroyed\n"))
        << log;
    EXPECT_EQ(masked(server.readFile("close.serverstats"), t0, 60), kEmptyBlock);
    EXPECT_EQ(countOf(log, "Dumping stats to "), 2u);
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
    // lines, SIGUSR2 is 'r' then 't', SIGUSR1 is 'd', and the end of the
    // input is no reason to stop.
    server.sendKeys("xRTDtrr");
    server.closeInput();
    ASSERT_TRUE(server.waitForLog(": In ", 4));
    kill(server.pid(), SIGUSR2);
    ASSERT_TRUE(server.waitForLog(": In ", 6));
    kill(server.pid(), SIGUSR1);
    ASSERT_TRUE(server.waitForLog(": Dumping stats to keypress_dump\n: Dumped stats to "
                                  "./server_data/stats/keypress_dump.serverstats\n: Dumped events to "
                                  "./server_data/stats/keypress_dump.events\n"));
    EXPECT_EQ(server.stop(), 0);
    const std::string log = server.log();
    EXPECT_EQ(countOf(log, "Dumping stats to keypress_dump"), 1u);
    auto reports = networkReports(log);
    ASSERT_EQ(reports.size(), 4u) << log;
    const std::string beforeKeys = log.substr(0, reports[0].begin);
    EXPECT_TRUE(beforeKeys.ends_with("\n: \n: \n") && !beforeKeys.ends_with("\n: \n: \n: \n")) << log;
    EXPECT_EQ(reports[1].begin, reports[0].end);
    EXPECT_TRUE(log.substr(reports[2].end).starts_with(": \n: \n")) << log;
    EXPECT_TRUE(log.substr(reports[3].end).starts_with(": Enet server destroyed\n")) << log;
    // The reports count and never reset.
    EXPECT_GT(reports[0].figures[1], 3100u);
    EXPECT_GE(reports[0].figures[2], 3u);  // the connect and the two packets at least
    EXPECT_GT(reports[0].figures[3], 0u);
    for (std::size_t r = 0; r < 4; ++r) {
        EXPECT_EQ(reports[r].figures[0], 3100u);
        for (std::size_t i = 0; r > 0 && i < 5; ++i) EXPECT_GE(reports[r].figures[i], reports[r - 1].figures[i]);
    }
}
