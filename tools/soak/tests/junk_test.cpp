// Every junk packet the soak sends must be refused by the server, with a log
// line and without a change: otherwise the soak would be measuring its own
// side effects. The packets go through the real dispatcher, from a player of
// a running match, so the order and resync decoders are reached too.

#include <gtest/gtest.h>

#include <set>

#include "junk.h"
#include "protocol.h"
#include "soak.h"
#include "support/harness.h"

namespace {

bool anyContains(const std::vector<std::string>& logs, const std::string& text) {
    for (const auto& line : logs)
        if (line.find(text) != std::string::npos) return true;
    return false;
}

// Peers 0 and 1 in a running match of room 1; nothing left to take.
void startMatch(Harness& h) {
    h.connect(0);
    h.connect(1);
    h.receive(0, 0, loadbot::createRoomMessage("r", "d", 1));
    h.receive(1, 0, loadbot::joinRoomMessage(1));
    h.receive(0, 0, loadbot::playerSetupMessage(0, true, "a"));
    h.receive(1, 0, loadbot::playerSetupMessage(1, true, "b"));
    h.receive(0, 0, loadbot::startGameMessage());
    h.step();
    h.receive(0, 0, loadbot::startGameMessage());
    h.receive(1, 0, loadbot::startGameMessage());
    h.step();
    h.takeSent();
    h.takeLogs();
}

TEST(SoakJunk, EveryPacketIsRefusedWithALogLineAndChangesNothing) {
    Harness h;
    startMatch(h);
    ASSERT_EQ(h.server.rooms.size(), 1u);
    ASSERT_TRUE(h.server.rooms.begin()->second->running);

    std::set<std::string> kinds;
    for (const soak::JunkPacket& junk : soak::junkCatalogue()) {
        SCOPED_TRACE(junk.kind);
        EXPECT_TRUE(kinds.insert(junk.kind).second) << "kind named twice";
        h.receive(0, junk.channel, junk.bytes);
        h.step();
        auto logs = h.takeLogs();
        bool refused = anyContains(logs, "|||| Malformed ") || anyContains(logs, "|||| Unknown ") ||
                       anyContains(logs, "|||| Refused file request") ||
                       anyContains(logs, "???? server should not be receiving file responses");
        EXPECT_TRUE(refused);
        // Nothing reaches the other player; a refused file name is answered
        // to the sender alone.
        EXPECT_TRUE(h.takeSentTo(1).empty());
        h.takeSent();
        const Room& room = *h.server.rooms.begin()->second;
        EXPECT_TRUE(room.running);
        EXPECT_EQ(humanCount(room), 2u);
        EXPECT_EQ(h.server.rooms.size(), 1u);
    }
    // Every channel and every family is covered.
    for (const char* kind : {"short-ch0-0", "short-ch6-3", "text-without-nul", "order-short-11",
                             "player-setup-slot-8", "order-first-count-past-end", "resync-world-past-end",
                             "feedback-snapshot-past-end", "track-event-truncated", "file-request-truncated",
                             "file-request-name:../x"})
        EXPECT_EQ(kinds.count(kind), 1u) << kind;
}

TEST(SoakParts, FlatMeansWithinSixteenDescriptorsAndTenPercentMemory) {
    soak::Sample warm{120, 10, 100000};
    EXPECT_EQ(soak::flatness(warm, soak::Sample{600, 26, 110000}), "flat");
    EXPECT_EQ(soak::flatness(warm, soak::Sample{600, 27, 100000}), "growing");
    EXPECT_EQ(soak::flatness(warm, soak::Sample{600, 10, 110001}), "growing");
    EXPECT_EQ(soak::flatness(warm, std::nullopt), "skipped");
    EXPECT_EQ(soak::flatness(warm, warm), "skipped");  // the same sample twice says nothing
    // Short runs judge only the descriptors.
    EXPECT_EQ(soak::flatness(warm, soak::Sample{600, 26, 900000}, false), "flat");
    EXPECT_EQ(soak::flatness(warm, soak::Sample{600, 27, 100000}, false), "growing");
}

}  // namespace
