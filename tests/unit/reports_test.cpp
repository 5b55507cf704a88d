#include <gtest/gtest.h>

#include <filesystem>

#include "protocol/send.h"
#include "reports/reports.h"
#include "support/harness.h"
#include "support/reports_files.h"

namespace fs = std::filesystem;

namespace {
FeedbackReport feedback(const std::string& name, Bytes snapshot = {}) {
    FeedbackReport r;
    r.playerName = name;
    r.snapshot = std::move(snapshot);
    return r;
}
}  // namespace

TEST(ReportRecords, FeedbackDecodeFollowsStringsAndLengthsByteForByte) {
    Bytes packet = words({1, 77});
    for (std::string s : {"A", "", "ds", "l1\nl2"}) packet.insert(packet.end(), s.c_str(), s.c_str() + s.size() + 1);
    for (Bytes tail : {words({3}), Bytes{'x', 'y', 'z'}, words({2}), Bytes{0xFF, 0xD8}})
        packet.insert(packet.end(), tail.begin(), tail.end());
    auto r = FeedbackReport::decode(packet);
    ASSERT_TRUE(r);
    EXPECT_EQ(r->secondWord, 77u);
    EXPECT_EQ(r->playerName + "|" + r->contactInfo + "|" + r->dataset + "|" + r->description, "A||ds|l1\nl2");
    EXPECT_EQ(r->snapshot, (Bytes{'x', 'y', 'z'}));
    EXPECT_EQ(r->screenshot, (Bytes{0xFF, 0xD8}));
    EXPECT_EQ(r->encode(), packet);
    // saveLength right after "COMBOSAVE" and its NUL.
    EXPECT_EQ(loadU32(encodeSnapshotBundle(asBytes("SAVE"), {}, {}, {}).data() + 10), 4u);
}

TEST(Reports, SameSecondReportsGetSuffixesInsteadOfReplacingFiles) {
    TempDataRoot root;
    Harness h;
    h.connect(0);
    setClockForTests(1700000000);
    const fs::path dir = root / "server_data/feedback";
    writeFeedbackReport(h.server, h.peer(0), feedback("One", asBytes("world one")));
    writeFeedbackReport(h.server, h.peer(0), feedback("Two", asBytes("world two")));
    writeFeedbackReport(h.server, h.peer(0), feedback("Three"));
    EXPECT_EQ(entryNames(dir), (std::set<std::string>{"1700000000.txt", "1700000000.world", "1700000000_1.txt",
                                                      "1700000000_1.world", "1700000000_2.txt"}));
    EXPECT_EQ(readWholeFile(dir / "1700000000.world"), "world one");
    EXPECT_EQ(readWholeFile(dir / "1700000000_1.world"), "world two");
    EXPECT_NE(readWholeFile(dir / "1700000000_2.txt").find("\nThree\n"), std::string::npos);

    DeterminismTestReport test;
    test.snapshot = asBytes("1");
    writeDeterminismTestReport(h.server, h.peer(0), test);
    test.snapshot = asBytes("2");
    writeDeterminismTestReport(h.server, h.peer(0), test);
    EXPECT_EQ(readWholeFile(root / "server_data/test_determinism/1700000000.save"), "1");
    EXPECT_EQ(readWholeFile(root / "server_data/test_determinism/1700000000_1.save"), "2");
    EXPECT_EQ(h.takeSent().size(), 5u);

    // Every file the report would write is checked; a directory in the way
    // is not a report's file and is left to fail the opening.
    const std::string stem = (dir / "42").string();
    writeWholeFile(stem + ".jpg", "stray");
    EXPECT_EQ(chooseReportBase(stem, {".txt"}), stem);
    EXPECT_EQ(chooseReportBase(stem, {".txt", ".jpg"}), stem + "_1");
    fs::create_directories(stem + ".world");
    EXPECT_EQ(chooseReportBase(stem, {".txt", ".world"}), stem);
}

// Every cut of a valid report, and lengths that claim more than the packet
// holds, is one Malformed line: no reply, no file, no directory.
TEST(Reports, ReportsRunningPastThePacketAreDroppedWithOneLine) {
    TempDataRoot root;
    Harness h;
    h.connect(0);
    h.takeLogs();
    DeterminismTestReport test;
    test.snapshot = asBytes("snap");
    const Bytes full = feedback("A", encodeSnapshotBundle(asBytes("S"), asBytes("W"), {}, {})).encode();
    for (const auto& [packet, what] : {std::pair{full, "feedback report"}, {test.encode(), "determinism test report"}}) {
        for (std::size_t n = 4; n < packet.size(); ++n) {
            h.receive(0, kReportsChannel, Bytes(packet.begin(), packet.begin() + n));
            EXPECT_EQ(h.takeLogs(), std::vector<std::string>{"#### ERROR \n|||| Malformed " + std::string(what) +
                                                             " on channel 4, " + std::to_string(n) +
                                                             " bytes. Dropped\n####"});
        }
    }
    h.receive(0, kReportsChannel, Writer().u32(1).u32(1).str("a").str("b").str("c").str("d").u32(~0u).u32(0).take());
    Bytes badBundle = asBytes(std::string("COMBOSAVE\0", 10));
    for (std::uint8_t b : words({1, 'S', 0x7FFFFFFF})) badBundle.push_back(b);  // world runs past the end
    h.receive(0, kReportsChannel, feedback("A", badBundle).encode());
    h.receive(0, kReportsChannel, feedback("A", asBytes("COMBOSAVE-no-nul")).encode());
    auto logs = h.takeLogs();
    ASSERT_EQ(logs.size(), 3u);
    for (const auto& line : logs) EXPECT_EQ(line.rfind("#### ERROR \n|||| Malformed feedback report on channel 4", 0), 0u);
    EXPECT_TRUE(h.takeSent().empty());
    EXPECT_FALSE(fs::exists(root / "server_data"));
}
