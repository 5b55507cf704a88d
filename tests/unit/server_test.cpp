// The dispatch table's refusals, the text relay, and the pure parts of the
// services: configuration, pacing, health, the periodic dump, statistics, report
// names, update file names and the manifest version.

#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>

#include "admission/limits.h"
#include "app/pacing.h"
#include "app/peers.h"
#include "app/service.h"
#include "lobby/lobby.h"
#include "log/metrics.h"
#include "platform/clock.h"
#include "platform/files.h"
#include "reports/reports.h"
#include "stats/statistics.h"
#include "support/harness.h"
#include "update/update.h"

namespace {
std::string error(const std::string& text) { return "#### ERROR \n" + text + "\n####"; }
}  // namespace

TEST(Dispatch, EveryRefusalIsOneLineAndNothingIsSent) {
    Harness h;
    h.server.limits.malformedLinesPerPeer = 0;  // all of them, from one peer
    h.connect(0);
    h.takeLogs();
    const struct {
        std::uint8_t channel;
        Bytes packet;
        std::string line;
    } cases[] = {
        {0, {1, 2, 3}, "|||| Malformed packet on channel 0, 3 bytes. Dropped"},
        {6, {}, "|||| Malformed packet on channel 6, 0 bytes. Dropped"},
        {1, {'a', 'b'}, "|||| Malformed text on channel 1, 2 bytes. Dropped"},
        {1, {}, "|||| Malformed text on channel 1, 0 bytes. Dropped"},
        {0, words({2, 1}), "|||| Malformed CreateRoom on channel 0, 8 bytes. Dropped"},
        {0, words({7, 1, 8, 0}), "|||| Malformed SlotState on channel 0, 16 bytes. Dropped"},
        {0, words({14}), "|||| Malformed StartGame on channel 0, 4 bytes. Dropped"},
        {4, words({1, 1}), "|||| Malformed feedback report on channel 4, 8 bytes. Dropped"},
        {4, words({3, 1}), "|||| Malformed determinism test report on channel 4, 8 bytes. Dropped"},
        {5, words({1, 1}), "|||| Malformed TrackEvent on channel 5, 8 bytes. Dropped"},
        {6, words({2, 1}), "|||| Malformed file request on channel 6, 8 bytes. Dropped"},
        {0, words({6}), "|||| Unknown lobby message 6. Nothing to do with it"},
        {2, words({0xFFFFFFFFu}), "|||| Unknown ingame message 4294967295. Nothing to do with it"},
        {4, words({2}), "|||| Unknown feedback message 2. Nothing to do with it"},
        {5, words({2}), "|||| Unknown event tracking type 2. Nothing to do with it"},
        {6, words({4}), "|||| Unknown file update message 4. Nothing to do with it"},
        {6, words({3}), "???? server should not be receiving file responses"},
        {7, words({1}), "|||| Channel 7. Nothing to do with it"},
    };
    for (const auto& c : cases) {
        h.receive(0, c.channel, c.packet);
        EXPECT_EQ(h.takeLogs(), std::vector<std::string>{error(c.line)});
    }
    h.receive(1, 0, words({10, 1, 0}));
    EXPECT_EQ(h.takeLogs(), std::vector<std::string>{error("|||| Packet from unknown peer 10.0.0.2:5001! Ignoring!")});
    EXPECT_TRUE(h.takeSent().empty());
}

TEST(Dispatch, TextGoesToTheSendersRoomOrToEveryoneInNoRoom) {
    Harness h;
    h.roomOfReady(2);
    h.connect(2);
    h.connect(3);
    h.takeSent();
    // The registry's order is the peers' own; only who gets what matters here.
    auto sorted = [](std::vector<Sent> v) {
        std::sort(v.begin(), v.end(), [](const Sent& a, const Sent& b) { return a.peer < b.peer; });
        return v;
    };
    h.receive(1, kTextChannel, Bytes{'g', 'g', 0, 'x', 0});  // cut at the first NUL
    EXPECT_EQ(sorted(h.takeSent()), toEach({0, 1}, kTextChannel, encode(Text{"gg"})));
    h.receive(3, kTextChannel, encode(Text{"hi"}));
    EXPECT_EQ(sorted(h.takeSent()), toEach({2, 3}, kTextChannel, encode(Text{"hi"})));
}

TEST(Dispatch, BudgetsDropTheExcessWithALineAMinuteAndCutOffAPeerThatStaysOver) {
    Harness h;
    h.server.limits.messages[0] = {1, 2};  // lobby: one a second, two at once
    h.server.limits.overbudgetDisconnectSeconds = 3;
    h.server.limits.malformedLinesPerPeer = 1;
    auto& m = metrics();
    const std::uint64_t drops = m.budgetDrops[0].load(), unknown = m.unknownDropped.load(),
                        cutOffs = m.limitsFired[static_cast<std::size_t>(LimitFired::overbudgetDisconnect)].load();
    std::uint64_t now = 1'000'000;
    setSteadyClockForTests(now);
    h.connect(0);
    h.connect(1);
    h.takeLogs();
    const Bytes list = words({10, 1, 0});
    for (int i = 0; i < 4; ++i) h.receive(0, 0, list);
    EXPECT_EQ(h.takeSent().size(), 2u);
    EXPECT_EQ(h.takeLogs(), std::vector<std::string>{error("|||| Peer 10.0.0.1:5000 over budget, dropped: lobby 1")});
    // One message a second comes back; flooding on for over three seconds
    // ends in a disconnect, while the other peer is served throughout.
    for (int half = 1; half <= 6; ++half) {
        setSteadyClockForTests(now + half * 500'000);
        h.receive(0, 0, list);
        h.receive(0, 0, list);
    }
    EXPECT_EQ(h.takeSent().size(), 3u);
    EXPECT_TRUE(h.takeLogs().empty());
    setSteadyClockForTests(now + 3'900'000);
    h.receive(0, 0, list);
    EXPECT_EQ(h.takeLogs(), (std::vector<std::string>{
                                error("|||| Peer 10.0.0.1:5000 stayed over budget for more than 3 s. Disconnecting it"),
                                "Disconnected 10.0.0.1:5000", "1 peers now"}));
    EXPECT_EQ(h.takeSent(), (std::vector<Sent>{{0, kDisconnectedMark, {}}}));
    h.receive(1, 0, list);
    EXPECT_EQ(h.takeSent().size(), 1u);

    // Refusals: the first in full, then only a count once a minute.
    for (int i = 0; i < 3; ++i) h.receive(1, 1, {'a', 'b'});
    EXPECT_EQ(h.takeLogs(), std::vector<std::string>{error("|||| Malformed text on channel 1, 2 bytes. Dropped")});
    setSteadyClockForTests(now + 70'000'000);
    h.receive(1, 6, words({9}));
    EXPECT_EQ(h.takeLogs(), std::vector<std::string>{error(
                                "|||| Peer 10.0.0.2:5001: 3 more malformed or unknown messages, not logged one by one")});
    EXPECT_EQ(m.budgetDrops[0].load() - drops, 12u);
    EXPECT_EQ(m.unknownDropped.load() - unknown, 1u);
    EXPECT_EQ(m.limitsFired[static_cast<std::size_t>(LimitFired::overbudgetDisconnect)].load() - cutOffs, 1u);
    const std::string rendered = renderMetrics(0, 0);
    EXPECT_NE(rendered.find("\nlockstep_budget_dropped_total{group=\"update\"} "), std::string::npos);
    EXPECT_NE(rendered.find("\nlockstep_limit_fired_total{limit=\"resync_bytes_per_room\"} "), std::string::npos);
}

// A histogram's last bucket takes what is beyond every bound and equals its
// count, as scrapers expect; the process's own figures are there too.
TEST(Metrics, HistogramsEndInTheInfiniteBucketAndTheProcessFiguresAreThere) {
    auto value = [](const std::string& text, const std::string& key) {
        const std::size_t at = text.find("\n" + key + " ");
        return at == std::string::npos ? -1.0 : std::stod(text.substr(at + key.size() + 2));
    };
    const std::string inf = "lockstep_step_completion_seconds_bucket{le=\"+Inf\"}";
    const std::string count = "lockstep_step_completion_seconds_count";
    const std::string before = renderMetrics(0, 0);
    observeStepCompletion(1e6);
    const std::string after = renderMetrics(0, 0);
    EXPECT_EQ(value(after, inf) - value(before, inf), 1.0);
    EXPECT_EQ(value(after, count), value(after, inf));
    for (const char* name : {"process_open_fds", "process_max_fds", "process_resident_memory_bytes"})
        EXPECT_GT(value(after, name), 0.0) << name;
}

TEST(Dispatch, PartialMessagesOverTheTotalCutOffThePeerHoldingMost) {
    Harness h;
    h.server.limits.maxWaitingBytesTotal = 400;
    for (std::size_t i = 0; i < 3; ++i) h.connect(i);
    h.peer(0)->totalWaitingData = 150;
    h.peer(1)->totalWaitingData = 200;
    h.peer(2)->totalWaitingData = 100;
    h.takeLogs();
    cutOffOverWaitingTotal(h.server);
    EXPECT_EQ(h.takeSent(), (std::vector<Sent>{{1, kDisconnectedMark, {}}}));
    EXPECT_EQ(h.takeLogs().front(), error("|||| Peers hold 450 bytes of unfinished messages, over the limit of 400; "
                                          "10.0.0.2:5001 holds the most (200). Disconnecting it"));
    cutOffOverWaitingTotal(h.server);
    EXPECT_TRUE(h.takeSent().empty());
}

TEST(Reports, OverAQuotaTheyAreAnsweredAsUnwrittenAndNothingIsWritten) {
    TempDataRoot root;
    setClockForTests(1764000000);
    Harness h;
    setSteadyClockForTests(1'000'000);
    h.server.limits.reportsPerPeerPerHour = 2;
    h.connect(0);
    h.connect(1);
    const Bytes report = encode(FeedbackReport{1, "p", "c", "d", "t"});
    const Bytes written = encode(ReportReply{1, "Feedback received succesfully! Thank you!"});
    const Bytes unwritten = encode(ReportReply{1, "Failed to write feedback texts"});
    h.takeLogs();
    for (int i = 0; i < 3; ++i) h.receive(0, kReportsChannel, report);
    EXPECT_EQ(h.takeSent(), toEach({0, 0}, kReportsChannel, written) + toEach({0}, kReportsChannel, unwritten));
    EXPECT_EQ(h.takeLogs(), std::vector<std::string>{
                                error("|||| Report from 10.0.0.1:5000 not written: over reports_per_peer_per_hour")});
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(root / "server_data/feedback"), {}), 2);
    h.receive(0, kReportsChannel, report);  // refused again, within the minute: counted, not logged
    EXPECT_TRUE(h.takeLogs().empty());
    h.takeSent();
    // The day's bytes are shared by every peer, and a new day starts afresh.
    h.server.limits.reportsBytesPerDay = 2 * report.size();
    h.receive(1, kReportsChannel, encode(DeterminismTestReport{1, "p", "c", "d", "t"}));
    EXPECT_EQ(h.takeSent(), toEach({1}, kReportsChannel, encode(ReportReply{1, "Failed to write test texts"})));
    EXPECT_EQ(h.takeLogs(), std::vector<std::string>{
                                error("|||| Report from 10.0.0.2:5001 not written: over reports_bytes_per_day")});
    setClockForTests(1764000000 + 86400);
    h.receive(1, kReportsChannel, report);
    EXPECT_EQ(h.takeSent(), toEach({1}, kReportsChannel, written));
    setSteadyClockForTests(62'000'000);
    h.receive(0, kReportsChannel, report);
    EXPECT_EQ(h.takeLogs(), std::vector<std::string>{error("|||| Report from 10.0.0.1:5000 not written: over "
                                                           "reports_per_peer_per_hour (and 1 more since the last line)")});
}

// The shipped example shows every limit with its default, commented out:
// with the "# " taken away it parses to exactly the defaults.
TEST(Config, TheExampleLimitsFileShowsEveryDefault) {
    const std::string example =
        readWholeFile(std::filesystem::path(LOCKSTEP_SOURCE_DIR) / "packaging/example/settings/limits.conf");
    std::vector<std::string> problems;
    EXPECT_EQ(parseLimits(example, "example", problems), Limits{});
    EXPECT_TRUE(problems.empty());
    std::string uncommented;
    std::size_t shown = 0;
    for (const std::string& line : splitLines(example)) {
        const bool setting = line.rfind("# ", 0) == 0 && line.find(" = ") != std::string::npos;
        uncommented += (setting ? line.substr(2) : line) + "\n";
        shown += setting;
    }
    EXPECT_EQ(parseLimits(uncommented, "example", problems), Limits{});
    EXPECT_EQ(problems, std::vector<std::string>{});
    EXPECT_EQ(shown, limitNames().size());
}

TEST(Config, EveryLimitHasItsOwnNameUnitsAndIsDocumented) {
    const std::string docs = readWholeFile(std::filesystem::path(LOCKSTEP_SOURCE_DIR) / "docs/operations.md");
    std::vector<std::string> problems;
    std::vector<Limits> seen;
    for (const std::string& name : limitNames()) {
        Limits l = parseLimits(name + " = 3 KiB", "f", problems);
        EXPECT_NE(l, Limits{}) << name;
        for (const Limits& other : seen) EXPECT_NE(l, other) << name;
        seen.push_back(l);
        EXPECT_NE(docs.find("`" + name + "`"), std::string::npos) << name;
    }
    EXPECT_EQ(seen.size(), 58u);
    EXPECT_EQ(parseLimits("max_peers_per_address = 2 GiB", "f", problems).maxPeersPerAddress, 2048 * kMiB);
    parseLimits("a = 1\nmax_peers_per_address = 18446744073709551616\nmax_peers_per_address 5\n", "f", problems);
    EXPECT_EQ(problems, (std::vector<std::string>{
                            "f line 1: unknown limit \"a\"; line ignored",
                            "f line 2: bad value \"18446744073709551616\" for max_peers_per_address; line ignored",
                            "f line 3: not \"name = value\"; line ignored"}));
}

TEST(Config, LinesPortDescriptionAndStatistics) {
    const struct {
        const char* text;
        unsigned port;
        const char* description;
        bool statistics;
        bool warned = false;  // a port above 65535
    } cases[] = {
        {"2000 and more words\r\nMy server\r\n1\r\n", 2000, "My server", true},
        {"", 0, "", false},
        {"abc\n\nyes\n", 0, "", false},
        {"70000\nd\n 7\nignored\n", 70000 & 0xFFFF, "d", true, true},
        {"-1\n", 65535, "", false, true},
    };
    for (const auto& c : cases) {
        ServerConfig config = parseServerConfig(c.text);
        EXPECT_EQ(config.port, c.port) << c.text;
        EXPECT_EQ(config.description, c.description) << c.text;
        EXPECT_EQ(config.statisticsEnabled, c.statistics) << c.text;
        EXPECT_EQ(config.warnings.size(), c.warned ? 1u : 0u) << c.text;
    }
    EXPECT_EQ(parseServerConfig("70000\n").warnings[0],
              "settings/server.config: port 70000 is above 65535; listening on 4464 (its low 16 bits)");
    TempDataRoot root;
    EXPECT_EQ(readServerConfig().warnings, std::vector<std::string>{"no settings/server.config in the data root " +
                                                                    dataRootPrefix() + "; using port 1984, an empty "
                                                                    "description and no statistics"});
}

TEST(Pacing, ClimbsOneMillisecondPer200IdleIterationsAndLogsMultiplesOf40) {
    Pacing p;
    std::vector<std::uint32_t> logged;
    std::uint64_t iterations = 0;
    while (p.pollInterval < kMaxInterval) {
        if (auto v = advancePacing(p, false)) logged.push_back(v);
        ++iterations;
    }
    EXPECT_EQ(iterations, 87600u);
    EXPECT_EQ(logged, (std::vector<std::uint32_t>{40, 80, 120, 160, 200, 240, 280, 320, 360, 400}));
    for (int i = 0; i < 400; ++i) EXPECT_EQ(advancePacing(p, false), 0u);
    EXPECT_EQ(p.pollInterval, kMaxInterval);
    advancePacing(p, true);
    EXPECT_EQ(p.pollInterval, 2u);
    EXPECT_EQ(p.idleCount, 0u);
}

TEST(Pacing, AStretchOfIdleIterationsCountsAndLogsAsOneAtATime) {
    // The quiet loop waits through many idle iterations at once and may be
    // woken anywhere in the stretch; what it counts and logs must be what
    // turning for each one would have counted and logged.
    Pacing one, many;
    std::vector<std::uint32_t> loggedOne, loggedMany;
    std::uint64_t seed = 12345;
    auto next = [&seed](std::uint64_t bound) {
        seed = seed * 6364136223846793005ull + 1442695040888963407ull;
        return bound == 0 ? 0 : (seed >> 33) % bound;
    };
    for (int round = 0; round < 20000 && one.pollInterval < kMaxInterval; ++round) {
        const IdleStretch stretch = planIdleStretch(many, next(4) == 0 ? 0 : next(3000));
        std::uint64_t sum = 0;
        Pacing walk = many;
        for (std::uint32_t i = 0; i < stretch.iterations; ++i) {
            sum += walk.pollInterval;
            if (i + 1 < stretch.iterations) {
                EXPECT_EQ(advancePacing(walk, false), 0u);
            }
        }
        EXPECT_EQ(stretch.millis, sum);
        const std::uint64_t elapsed = next(5) == 0 ? stretch.millis : next(stretch.millis + 1);
        const std::uint32_t counted = countIdleIterations(many, stretch, elapsed);
        ASSERT_LT(counted, stretch.iterations);
        // The turn that ends the wait, idle or (now and then) active.
        const bool active = next(50) == 0;
        if (auto v = advancePacing(many, active)) loggedMany.push_back(v);
        for (std::uint32_t i = 0; i < counted; ++i)
            if (auto v = advancePacing(one, false)) loggedOne.push_back(v);
        if (auto v = advancePacing(one, active)) loggedOne.push_back(v);
        ASSERT_EQ(one.pollInterval, many.pollInterval);
        ASSERT_EQ(one.idleCount, many.idleCount);
    }
    EXPECT_EQ(loggedMany, loggedOne);
    EXPECT_FALSE(loggedOne.empty());
    // A whole stretch spans its iterations; a budget of 0 is one interval.
    Pacing p;
    EXPECT_EQ(planIdleStretch(p, 0).iterations, 1u);
    EXPECT_EQ(planIdleStretch(p, 0).millis, 2u);
    // 200 iterations of 2 ms, then 200 of 3 ms: the interval rises, unlogged.
    EXPECT_EQ(planIdleStretch(p, 1000).iterations, 400u);
    EXPECT_EQ(planIdleStretch(p, 1000).millis, 1000u);
    p.idleCount = 199;
    p.pollInterval = 39;
    // The next iteration logs 40: the loop turns for it.
    EXPECT_EQ(planIdleStretch(p, 1000).iterations, 1u);
}

TEST(Health, TheLoopIsHealthyForTwoSecondsAfterATurnAndReadyOnceTheHostListens) {
    auto& m = metrics();
    EXPECT_EQ(loopHealth(5'000'000).status, 503);  // not turned yet
    EXPECT_EQ(readiness().status, 503);
    m.lastTurnMicros.store(10'000'000);
    m.listening.store(true);
    EXPECT_EQ(loopHealth(12'000'000).status, 200);
    EXPECT_EQ(readiness().status, 200);
    HealthAnswer stalled = loopHealth(12'500'000);
    EXPECT_EQ(stalled.status, 503);
    EXPECT_EQ(stalled.body, "the main loop last turned 2.5 s ago\n");
    // A turn that began after the prober read its clock is fresh, not an
    // age that wrapped round.
    EXPECT_EQ(loopHealth(9'999'000).status, 200);
    m.lastTurnMicros.store(0);
    m.listening.store(false);
}

TEST(PeriodicDump, DateNameAndALatchArmedAtMinute3ThatFiresAtMinute1) {
    TempDataRoot root;
    Harness h;
    std::tm t{};
    t.tm_year = 126, t.tm_mon = 2, t.tm_mday = 5;
    EXPECT_EQ(periodicDumpName(t), "126_03_05");
    recordEvent(h.server.events, 7, "p", 1, "d", 2, "x", 3);
    t.tm_min = 6;
    checkPeriodicDump(h.server, t);
    EXPECT_TRUE(h.server.events.empty());
    EXPECT_FALSE(h.server.eventDumpArmed);
    EXPECT_EQ(readWholeFile(root / "server_data/stats/126_03_05.events"),
              "eventIndex = 0\ntype = 7\nplayerName = p\nsourceIP = 1\ndataset = d\ndatasetChecksum = 2\n"
              "additionalEventData = x\ntimestamp = 3\n");
    t.tm_min = 8;
    checkPeriodicDump(h.server, t);
    EXPECT_TRUE(h.server.eventDumpArmed);
    t.tm_min = 11;  // armed again, but nothing to dump: the latch still closes
    checkPeriodicDump(h.server, t);
    EXPECT_FALSE(h.server.eventDumpArmed);
}

TEST(Events, AFloodGoesToTheDumpFileOfTheDayInsteadOfMemory) {
    TempDataRoot root;
    setClockForTests(1764000000);
    Harness h;
    h.server.limits.messages[static_cast<std::size_t>(Group::events)] = {};  // a flood at once, unbudgeted
    h.connect(0);
    for (std::size_t i = 0; i <= kSpillEvents; ++i) h.receive(0, kEventTrackingChannel, encode(TrackEvent{1, "p"}));
    EXPECT_EQ(h.server.events.size(), 1u);
    const std::string dump = readWholeFile(root / ("server_data/stats/" + periodicDumpName(localNow()) + ".events"));
    EXPECT_EQ(std::count(dump.begin(), dump.end(), '\n'), 8 * static_cast<long>(kSpillEvents));
}

TEST(Events, AManifestRequestsRecordPassesTheSameBoundAsAClientsEvent) {
    TempDataRoot root;
    Harness h;
    h.connect(0);
    h.server.events.resize(2 * kSpillEvents);  // full, and the disk behind
    h.server.eventSpill.spilling = true;
    h.receive(0, kFileUpdateChannel, encode(ManifestRequest{}));
    EXPECT_EQ(h.server.events.size(), 2 * kSpillEvents);
    EXPECT_EQ(h.server.eventSpill.dropped, 1u);
}

TEST(Statistics, OrderingFloatAveragesAndDurations) {
    auto finished = [](std::vector<std::string> names, std::string dataset, std::uint32_t sum, std::uint32_t mode,
                       std::uint32_t length, std::uint32_t delay, std::uint32_t desyncs) {
        Room room;
        room.matchPlayerNames = std::move(names);
        room.dataset = std::move(dataset);
        room.datasetChecksum = sum;
        room.settings.gameMode = mode;
        room.match.lastCompletedStep = length;
        room.match.maxOrderDelay = delay;
        room.match.desyncCount = desyncs;
        return room;
    };
    ServerStatistics s;
    s.periodStart = 1000;
    // Checksum 7 named "alpha" comes after checksum 5 named "zeta"; names
    // order byte by byte as unsigned values.
    recordFinishedGame(s, finished({"bob", "Alice"}, "alpha", 7, 2, 1200, 0, 0));
    recordFinishedGame(s, finished({"bo", "\xc3\x89mile", "bob"}, "zeta", 5, 0, 2400, 5, 2));
    recordFinishedGame(s, finished({"Zed", "bob"}, "alpha", 7, 2, 599, 3, 1));
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
    EXPECT_EQ(formatStatistics(s, 50).rfind("Stat dump after 0s running:\n", 0), 0u);
    const std::pair<std::uint32_t, const char*> durations[] = {
        {59, "59s"}, {60, "1m 0s"}, {3600, "1h 0m 0s"}, {86399, "23h 59m 59s"}, {4294967295u, "49710d 6h 28m 15s"}};
    for (const auto& [seconds, text] : durations) EXPECT_EQ(formatDuration(seconds), text) << seconds;
}

TEST(Files, WholeFilesOnlyAndSameSecondReportsGetSuffixes) {
    TempDataRoot root;
    const std::string path = (root / "a/b/file").string();
    FileWriter first;
    ASSERT_TRUE(first.open(path));
    first.write("one");
    EXPECT_FALSE(std::filesystem::exists(path));  // nobody sees half a file
    ASSERT_TRUE(first.commit());
    ASSERT_TRUE(appendToFile(path, "two"));
    EXPECT_EQ(readWholeFile(path), "onetwo");
    std::filesystem::create_directories(path + ".dir");
    EXPECT_FALSE(FileWriter().open(path + ".dir"));
    EXPECT_FALSE(appendToFile(path + ".dir", "x"));
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(root / "a/b"), {}), 2);

    const std::string stem = (root / "r/123").string();
    EXPECT_EQ(chooseReportBase(stem, {".txt", ".jpg"}), stem);
    std::filesystem::create_directories(root / "r");
    std::ofstream(stem + ".jpg") << "x";
    std::ofstream(stem + "_1.txt") << "x";
    std::filesystem::create_directories(stem + "_2.txt");  // a directory does not take the name
    EXPECT_EQ(chooseReportBase(stem, {".txt", ".jpg"}), stem + "_2");

    // Every piece of a snapshot bundle keeps its base: a leftover .world
    // alone moves the whole report on, and is not overwritten.
    const std::string other = (root / "r/456").string();
    std::ofstream(other + ".world") << "old";
    const Bytes bundle = encodeSnapshotBundle(Bytes{1}, Bytes{2}, Bytes{}, Bytes{});
    FeedbackReport report;
    report.snapshot = ByteView(bundle);
    EXPECT_EQ(writeFeedbackReport(other, report), "Feedback received succesfully! Thank you!");
    EXPECT_EQ(readWholeFile(other + ".world"), "old");
    EXPECT_EQ(readWholeFile(other + "_1.world"), "\x02");
    EXPECT_FALSE(std::filesystem::exists(other + ".txt"));
}

TEST(Update, FileNamesThatCouldLeaveTheDirectoryAndTheManifestVersion) {
    for (const char* bad : {"", "/etc/passwd", "..", "a/../../b", "a\\b", "C:x", "Z:x", "z:y", "./", ".//."})
        EXPECT_FALSE(isAcceptableUpdateFileName(bad)) << bad;
    EXPECT_FALSE(isAcceptableUpdateFileName(std::string_view("a\0b", 3)));
    for (const char* good : {"f", "dir/file.bin", "./f", "a..b", "..a/b"}) EXPECT_TRUE(isAcceptableUpdateFileName(good));

    TempDataRoot root;
    EXPECT_EQ(readManifestVersion(), 13);
    std::filesystem::create_directories(root / "server_data/update_data");
    const auto manifest = root / "server_data/update_data/manifest.manifest";
    std::ofstream(manifest, std::ios::binary) << std::string("\x01\x02\x03\x04\x2A\x01\x00", 7);
    EXPECT_EQ(readManifestVersion(), 0x12A);  // a short word reads as zeros above
    std::ofstream(manifest, std::ios::binary) << std::string("\0\0\0\0\xFF\xFF\xFF\xFF", 8);
    EXPECT_EQ(readManifestVersion(), 13);
    EXPECT_EQ(textModeContent("a\r\nb\r\rc\r"), "a\nb\r\rc\r");
}
