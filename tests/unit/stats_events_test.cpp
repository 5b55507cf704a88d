#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <filesystem>

#include "core/dispatch.h"
#include "log/log.h"
#include "platform/clock.h"
#include "stats/events.h"
#include "stats/statistics.h"
#include "support/harness.h"
#include "support/stats_support.h"

namespace {

long countOf(const std::vector<std::string>& texts, const std::string& text) {
    return std::count(texts.begin(), texts.end(), text);
}

constexpr std::uint8_t kEvents = 5;

Bytes trackEvent(const std::string& player, const std::string& dataset, std::uint32_t checksum,
                 std::uint32_t eventType, const std::string& extra) {
    return Writer().u32(1).u32(77).str(player).str(dataset).u32(checksum).u32(eventType).str(extra).take();
}

void placeAt(ENetPeer* peer, std::uint8_t a, std::uint8_t b, std::uint8_t c, std::uint8_t d) {
    std::uint8_t ip[4] = {a, b, c, d};
    std::memcpy(&peer->address.host, ip, 4);
}

std::string eventLines(std::size_t index, std::uint32_t type, const std::string& player, std::uint32_t ip,
                       const std::string& dataset, std::uint32_t checksum, const std::string& extra,
                       std::uint32_t timestamp) {
    return "eventIndex = " + std::to_string(index) + "\ntype = " + std::to_string(type) + "\nplayerName = " +
           player + "\nsourceIP = " + std::to_string(ip) + "\ndataset = " + dataset + "\ndatasetChecksum = " +
           std::to_string(checksum) + "\nadditionalEventData = " + extra + "\ntimestamp = " +
           std::to_string(timestamp) + "\n";
}

const std::string kEmptyBlockAfter0s =
    "Stat dump after 0s running:\n"
    "    Total games: 0, with 0 desyncs\n"
    "    Games per dataset:\n"
    "    Desyncs per dataset:\n"
    "    Gamemodes:\n"
    "    Players:\n"
    "\n"
    "    Average players: 0, with max of 0\n"
    "    Average game length: 0s, with max of 0s\n"
    "    Average max order delay: 0, with max of 0\n";

}  // namespace

TEST(TrackEvents, ClientEventFrom127001IsStoredAndDumpedAfterTheStartEvent) {
    ScratchDataRoot root;
    Harness h;
    const std::int64_t start = localUnixTime(2026, 3, 5, 10, 2, 0);
    setClockForTests(start);
    resetStatistics(h.server.statistics);
    recordEvent(h.server, 2, "__SERVER__", 0, "", 0, "", static_cast<std::uint32_t>(unixNow()));

    placeAt(h.peer(0), 127, 0, 0, 1);
    h.connect(0);
    h.takeLogs();
    setClockForTests(start + 5);
    // Bytes after the last string are ignored; strings are kept byte for byte.
    Bytes message = trackEvent("Ann \xe9", "base set", 4000000000u, 42, "menu = open");
    message.push_back(0xAB);
    h.receive(0, kEvents, message);
    EXPECT_TRUE(h.takeLogs().empty());
    EXPECT_TRUE(h.takeSent().empty());
    ASSERT_EQ(h.server.events.size(), 2u);
    EXPECT_EQ(h.server.events[1].sourceIP, 16777343u);

    dumpEvents(h.server, "keypress_dump");
    EXPECT_TRUE(h.server.events.empty());
    const std::string base = root.prefix() + "server_data/stats/keypress_dump";
    EXPECT_EQ(h.takeLogs(), (std::vector<std::string>{"Dumping stats to keypress_dump",
                                                      "Dumped stats to " + base + ".serverstats",
                                                      "Dumped events to " + base + ".events"}));
    const std::uint32_t t0 = static_cast<std::uint32_t>(start);
    EXPECT_EQ(root.read("server_data/stats/keypress_dump.events"),
              eventLines(0, 2, "__SERVER__", 0, "", 0, "", t0) +
                  eventLines(1, 42, "Ann \xe9", 16777343u, "base set", 4000000000u, "menu = open", t0 + 5));
    EXPECT_EQ(root.read("server_data/stats/keypress_dump.serverstats"),
              "Stat dump after 5s running:" + kEmptyBlockAfter0s.substr(kEmptyBlockAfter0s.find('\n')));
}

TEST(TrackEvents, TruncatedEventsAreDroppedWithOneLineEach) {
    ScratchDataRoot root;
    Harness h;
    h.connect(0);
    h.takeLogs();
    const Bytes full = trackEvent("p", "d", 9, 101, "x");
    // Every cut inside the message: inside a word, inside a string, or before
    // a string's NUL.
    for (std::size_t n = 4; n < full.size(); ++n) {
        h.receive(0, kEvents, Bytes(full.begin(), full.begin() + static_cast<std::ptrdiff_t>(n)));
        EXPECT_EQ(h.takeLogs(), (std::vector<std::string>{"#### ERROR \n|||| Malformed TrackEvent on channel 5, " +
                                                          std::to_string(n) + " bytes. Dropped\n####"}))
            << n;
    }
    EXPECT_TRUE(h.server.events.empty());
    EXPECT_TRUE(h.takeSent().empty());

    h.receive(0, kEvents, Writer().u32(2).u32(1).str("p").take());
    EXPECT_EQ(h.takeLogs(),
              (std::vector<std::string>{"#### ERROR \n|||| Unknown event tracking type 2. Nothing to do with it\n####"}));
    EXPECT_TRUE(h.server.events.empty());
}

TEST(TrackEvents, Type101IsStoredThenAnsweredToTheSenderOnly) {
    ScratchDataRoot root;
    Harness h;
    setClockForTests(1772705170);
    h.connect(0);
    h.connect(1);
    h.takeLogs();
    h.receive(1, kEvents, trackEvent("Bo", "ds", 3, 100, ""));
    EXPECT_TRUE(h.takeSent().empty());
    h.receive(1, kEvents, trackEvent("Bo", "ds", 3, 101, "v2"));
    ASSERT_EQ(h.server.events.size(), 2u);
    EXPECT_EQ(formatEvents({h.server.events[1]}),
              eventLines(0, 101, "Bo", 33554442u /* 10.0.0.2 */, "ds", 3, "v2", 1772705170u));
    // The manifest version notice (type 1) comes before the announcements
    // (type 2), both on the event tracking channel and only to the sender.
    auto sent = h.takeSent();
    std::vector<std::uint32_t> types;
    for (const auto& s : sent) {
        EXPECT_EQ(s.peer, h.peer(1));
        EXPECT_EQ(s.channel, kEvents);
        std::uint32_t type = 0;
        readMessageType(ByteView(s.data), type);
        types.push_back(type);
    }
    if (!sent.empty()) {
        EXPECT_EQ(types, (std::vector<std::uint32_t>{1, 2}));
    }
}

TEST(EventDump, SecondDumpAppendsAndCountsFromZeroAgain) {
    ScratchDataRoot root;
    Server server;
    setClockForTests(1000);
    resetStatistics(server.statistics);
    recordEvent(server, 7, "a", 1, "d", 2, "x", 10);
    recordEvent(server, 8, "b", 3, "e", 4, "y", 11);
    dumpEvents(server, "n");
    recordEvent(server, 9, "c", 5, "f", 6, "z", 12);
    dumpEvents(server, "n");
    EXPECT_EQ(root.read("server_data/stats/n.events"),
              eventLines(0, 7, "a", 1, "d", 2, "x", 10) + eventLines(1, 8, "b", 3, "e", 4, "y", 11) +
                  eventLines(0, 9, "c", 5, "f", 6, "z", 12));
    EXPECT_EQ(root.read("server_data/stats/n.serverstats"), kEmptyBlockAfter0s + kEmptyBlockAfter0s);

    // No events: the statistics block still goes out and the events file is
    // opened but gets nothing.
    takeQueuedLogTexts();
    dumpEvents(server, "n");
    EXPECT_EQ(root.read("server_data/stats/n.serverstats"),
              kEmptyBlockAfter0s + kEmptyBlockAfter0s + kEmptyBlockAfter0s);
    EXPECT_EQ(splitLines(root.read("server_data/stats/n.events")).size(), 24u);
    auto logs = takeQueuedLogTexts();
    ASSERT_EQ(logs.size(), 3u);
    EXPECT_EQ(logs[2], "Dumped events to " + root.prefix() + "server_data/stats/n.events");
}

TEST(EventDump, UnopenableFilesKeepTheEventsButNotTheStatistics) {
    ScratchDataRoot root;
    Server server;
    setClockForTests(500);
    resetStatistics(server.statistics);
    server.statistics.totalGames = 4;
    recordEvent(server, 7, "a", 1, "d", 2, "x", 10);

    // The events file alone cannot be opened: a directory stands in its place.
    std::filesystem::create_directories(root.prefix() + "server_data/stats/busy.events");
    takeQueuedLogTexts();
    dumpEvents(server, "busy");
    const std::string base = root.prefix() + "server_data/stats/busy";
    EXPECT_EQ(takeQueuedLogTexts(),
              (std::vector<std::string>{"Dumping stats to busy", "Dumped stats to " + base + ".serverstats",
                                        "Failed to dump events to " + base + ".events"}));
    EXPECT_EQ(server.events.size(), 1u);
    EXPECT_EQ(server.statistics.totalGames, 0u);

    // Neither file: the stats directory cannot be made under a plain file.
    ScratchDataRoot blocked;
    {
        std::FILE* f = std::fopen((blocked.prefix() + "server_data").c_str(), "w");
        ASSERT_NE(f, nullptr);
        std::fclose(f);
    }
    setClockForTests(800);
    server.statistics.totalGames = 2;
    dumpEvents(server, "126_03_05");
    const std::string other = blocked.prefix() + "server_data/stats/126_03_05";
    EXPECT_EQ(takeQueuedLogTexts(),
              (std::vector<std::string>{"Dumping stats to 126_03_05", "Failed to dump stats to " + other + ".serverstats",
                                        "Failed to dump events to " + other + ".events"}));
    EXPECT_EQ(server.events.size(), 1u);
    EXPECT_EQ(server.statistics.totalGames, 0u);
    EXPECT_EQ(server.statistics.periodStart, 800);
}

TEST(EventDump, PeriodicLatchDumpsUnderTheDateNameAtMinutes1And6Only) {
    ScratchDataRoot root;
    Server server;
    const std::int64_t t = localUnixTime(2026, 3, 5, 23, 1, 30);
    setClockForTests(t);
    resetStatistics(server.statistics);
    recordEvent(server, 2, "__SERVER__", 0, "", 0, "", 1);
    takeQueuedLogTexts();

    checkPeriodicDump(server, localNow());  // minute 1: dumps
    EXPECT_TRUE(server.events.empty());
    EXPECT_FALSE(server.eventDumpArmed);
    const std::string events = "server_data/stats/126_03_05.events";
    EXPECT_EQ(root.read(events), eventLines(0, 2, "__SERVER__", 0, "", 0, "", 1));

    recordEvent(server, 3, "__SERVER__", 0, "", 0, "", 2);
    setClockForTests(t + 30);  // still minute 1
    checkPeriodicDump(server, localNow());
    setClockForTests(t + 60);  // minute 2
    checkPeriodicDump(server, localNow());
    EXPECT_EQ(server.events.size(), 1u);
    setClockForTests(t + 120);  // minute 3 arms
    checkPeriodicDump(server, localNow());
    EXPECT_TRUE(server.eventDumpArmed);
    EXPECT_EQ(server.events.size(), 1u);
    setClockForTests(t + 300);  // minute 6
    checkPeriodicDump(server, localNow());
    EXPECT_TRUE(server.events.empty());
    EXPECT_EQ(root.read(events), eventLines(0, 2, "__SERVER__", 0, "", 0, "", 1) +
                                     eventLines(0, 3, "__SERVER__", 0, "", 0, "", 2));
    EXPECT_EQ(splitLines(root.read("server_data/stats/126_03_05.serverstats")).size(), 20u);

    EXPECT_EQ(countOf(takeQueuedLogTexts(), "Dumping stats to 126_03_05"), 2);
}
