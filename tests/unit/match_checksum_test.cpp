#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "protocol/messages.h"
#include "protocol/paths.h"
#include "protocol/send.h"
#include "support/match_rooms.h"

namespace fs = std::filesystem;

namespace {
const std::string kDesyncText = "Desync detected... attempting resync...";

std::string errorLine(const std::string& text) { return "#### ERROR \n" + text + "\n####"; }

// Slot i is peer i.
void report(Harness& h, std::uint32_t step, std::initializer_list<std::pair<std::size_t, std::uint32_t>> sums) {
    for (auto [slot, sum] : sums) h.receive(slot, kOrderChannel, checksumOrder(step, sum));
}

// A data root of its own for the evidence files.
class DataRoot {
public:
    DataRoot() : saved_(dataRootPrefix()) {
        char tmpl[] = "/tmp/match-test-XXXXXX";
        dir_ = mkdtemp(tmpl);
        setDataRootPrefix(dir_ + "/");
    }
    ~DataRoot() {
        setDataRootPrefix(saved_);
        std::error_code ec;
        fs::remove_all(dir_, ec);
    }
    std::string path(const std::string& rel) const { return dir_ + "/server_data/resyncs/" + rel; }
    std::optional<std::string> read(const std::string& rel) const {
        std::ifstream in(path(rel), std::ios::binary);
        if (!in) return std::nullopt;
        std::ostringstream s;
        s << in.rdbuf();
        return s.str();
    }

private:
    std::string saved_, dir_;
};
}  // namespace

TEST(MatchChecksum, RecordsCompleteOnlyWithEveryOccupiedSlotAndLeaveWhenCompared) {
    Harness h;
    Room& room = addMatchRoom(h, 1, {0, 1});
    report(h, 40, {{0, 77}});
    report(h, 41, {{0, 5}, {1, 0}});  // a zero is a missing checksum
    report(h, 40, {{1, 77}});         // agrees: gone without a word
    ASSERT_EQ(room.checksumRecords.size(), 1u);
    EXPECT_EQ(room.checksumRecords[0].step, 41u);
    // The second player leaves: the record waits for another checksum of its step.
    room.slots[1].peer = nullptr;
    EXPECT_EQ(room.checksumRecords.size(), 1u);
    report(h, 41, {{0, 6}});
    EXPECT_TRUE(room.checksumRecords.empty());
    // Alone, a first checksum of a step makes a record that is never evaluated.
    report(h, 50, {{0, 1}});
    report(h, 51, {{0, 2}});
    EXPECT_EQ(room.checksumRecords.size(), 2u);
    EXPECT_TRUE(h.takeSent().empty());
    EXPECT_TRUE(h.takeLogs().empty());
    EXPECT_EQ(room.desyncCount, 0u);
}

TEST(MatchChecksum, MismatchDeclaresDesyncWithTextsAndResyncOrders) {
    Harness h;
    Room& room = addMatchRoom(h, 12, {0, 1, 3});
    room.slots[2].info = std::make_unique<PlayerSetup>();  // no peer: neither counts nor receives
    room.slots[3].info.reset();                            // no setup: counts, gets no resync order
    room.lastCompletedStep = 38;
    room.stepReports[39][0] = true;
    report(h, 40, {{0, 1000}, {1, 1000}});
    EXPECT_TRUE(h.takeSent().empty());
    report(h, 40, {{3, 1001}});

    EXPECT_EQ(h.takeLogs(), (std::vector<std::string>{errorLine("|||| Checksums failed at step 40 in room 12")}));
    auto sent = h.takeSent();
    ASSERT_EQ(sent.size(), 5u);
    ENetPeer* to[] = {h.peer(0), h.peer(1), h.peer(3), h.peer(0), h.peer(1)};
    for (std::size_t i = 0; i < 5; ++i) {
        EXPECT_EQ(sent[i].peer, to[i]);
        EXPECT_EQ(sent[i].channel, i < 3 ? kTextChannel : kOrderChannel);
        EXPECT_EQ(sent[i].data, i < 3 ? encodeText(kDesyncText) : resyncOrder(39));
    }
    EXPECT_EQ(room.desyncCount, 1u);
    EXPECT_EQ(room.resyncStep, 39u);
    EXPECT_TRUE(room.checksumRecords.empty());
    EXPECT_EQ(room.stepReports.size(), 1u);  // left as it was
}

TEST(MatchChecksum, FourthDesyncCountsAloud) {
    Harness h;
    Room& room = addMatchRoom(h, 3, {0, 1});
    for (std::uint32_t n = 1; n <= 5; ++n) {
        // At the resync step itself: later steps are dropped until a report completes it.
        std::uint32_t step = n == 1 ? 50 : room.resyncStep;
        room.lastCompletedStep = step;
        report(h, step, {{0, 1}, {1, 2}});
        std::vector<std::string> texts;
        for (const auto& s : h.takeSentTo(0))
            if (s.channel == kTextChannel) texts.push_back(*decodeText(s.data));
        h.takeSent();
        std::vector<std::string> expected{kDesyncText};
        if (n >= 4)
            expected.push_back("This is desync number " + std::to_string(n) +
                               ". Consider quitting match if this happens too often");
        EXPECT_EQ(texts, expected) << n;
        EXPECT_EQ(room.resyncStep, step + 1);
    }
}

TEST(MatchChecksum, ResyncReportWritesEvidenceCompletesAndRelaysTheBytes) {
    DataRoot root;
    Harness h;
    Room& room = addMatchRoom(h, 12, {0, 1, 2});
    room.slots[4].info = std::make_unique<PlayerSetup>();
    h.receive(1, kMatchControlChannel, resyncReport("early", "e"));
    EXPECT_EQ(root.read("room12_desync0_peer1.world"), "early");
    report(h, 40, {{0, 1}, {1, 2}, {2, 2}});
    h.takeSent();
    h.takeLogs();
    room.orderDelay = 9;

    std::string world("W\0r\xff", 4);
    Bytes packet = resyncReport(world, "log!", 0x77);
    packet.push_back(0x5A);  // trailing bytes travel along
    h.receive(1, kMatchControlChannel, packet);
    EXPECT_EQ(root.read("room12_desync1_peer1.world"), world);
    EXPECT_EQ(root.read("room12_desync1_peer1.log"), "log!");
    EXPECT_EQ(room.resyncStep, 0xFFFFFFFFu);
    EXPECT_EQ(room.orderDelay, 2u);
    EXPECT_EQ(room.delayHold, 24);
    auto sent = h.takeSent();
    ASSERT_EQ(sent.size(), 3u);
    for (std::size_t i = 0; i < 3; ++i) {
        EXPECT_EQ(sent[i].peer, h.peer(i));
        EXPECT_EQ(sent[i].channel, kMatchControlChannel);
        EXPECT_EQ(sent[i].data, packet);
    }
    // Written again: replaced; empty sizes make empty files.
    h.receive(1, kMatchControlChannel, resyncReport("", ""));
    EXPECT_EQ(root.read("room12_desync1_peer1.world"), "");
    EXPECT_EQ(root.read("room12_desync1_peer1.log"), "");
    EXPECT_EQ(h.takeSent().size(), 3u);
    EXPECT_TRUE(h.takeLogs().empty());
}

TEST(MatchChecksum, MalformedReportsUnopenableFilesAndStrangers) {
    DataRoot root;
    Harness h;
    Room& room = addMatchRoom(h, 2, {0, 1});
    room.resyncStep = 4;
    Bytes good = resyncReport("abc", "de");
    Bytes logPast = good;
    logPast[15] = 3;  // three log bytes announced, two there
    for (const Bytes& bad : {logPast, Bytes(good.begin(), good.begin() + 13), words({8, 1, 0xFFFFFFFFu})}) {
        h.receive(0, kMatchControlChannel, bad);
        EXPECT_EQ(h.takeLogs(), (std::vector<std::string>{errorLine("|||| Malformed resync report on channel 2, " +
                                                                    std::to_string(bad.size()) + " bytes. Dropped")}));
    }
    h.connect(5);
    h.takeLogs();
    h.receive(5, kMatchControlChannel, good);  // in no room: nothing at all
    EXPECT_TRUE(h.takeLogs().empty());
    EXPECT_TRUE(h.takeSent().empty());
    EXPECT_EQ(room.resyncStep, 4u);
    EXPECT_FALSE(fs::exists(root.path("")));

    // A file that cannot be opened is skipped; the rest goes on.
    fs::create_directories(root.path("room2_desync0_peer0.world"));
    h.receive(0, kMatchControlChannel, good);
    EXPECT_EQ(root.read("room2_desync0_peer0.log"), "de");
    EXPECT_TRUE(h.takeLogs().empty());
    EXPECT_EQ(h.takeSent().size(), 2u);
    EXPECT_EQ(room.resyncStep, 0xFFFFFFFFu);
}
