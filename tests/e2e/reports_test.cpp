#include <gtest/gtest.h>

#include <filesystem>
#include <regex>

#include "reports/reports.h"
#include "support/reports_files.h"
#include "support/server_process.h"
#include "support/test_client.h"

namespace fs = std::filesystem;

namespace {

const std::string kThanks = "Feedback received succesfully! Thank you!";
const std::string kTestThanks = "Test results received succesfully! Thank you!";

FeedbackReport feedback(Bytes snapshot = {}, Bytes screenshot = {}) {
    FeedbackReport r;
    r.playerName = "Player One";
    r.contactInfo = "p1@example.org";
    r.dataset = "Base 1.2";
    r.description = "Line one\nline two";
    r.snapshot = std::move(snapshot);
    r.screenshot = std::move(screenshot);
    return r;
}

DeterminismTestReport testReport(Bytes snapshot = {}) {
    DeterminismTestReport r;
    r.playerName = "Tester";
    r.contactInfo = "";
    r.dataset = "Base 1.2";
    r.description = "seed 42";
    r.snapshot = std::move(snapshot);
    return r;
}

const std::string kPlayerOneTexts =
    "==== Player name ====\nPlayer One\n==== Contact info ====\np1@example.org\n==== Dataset ====\nBase 1.2\n"
    "==== Description ====\nLine one\nline two\n";

// The next reply on the reports channel, checked for its framing.
std::string replyText(TestClient& client) {
    auto bytes = client.nextOn(4, 3000);
    if (!bytes) return "<no reply>";
    auto reply = ReportReply::decode(*bytes);
    if (!reply || reply->secondWord != 1 || bytes->size() != reply->text.size() + 9) return "<bad reply>";
    return reply->text;
}

// Files that appeared in dir since the last call, as suffix -> content; all of
// them must share one base name made of the Unix time and maybe "_k".
std::map<std::string, std::string> newReportFiles(const fs::path& dir, std::set<std::string>& seen) {
    std::map<std::string, std::string> out;
    std::string base;
    for (const auto& name : entryNames(dir)) {
        if (!seen.insert(name).second) continue;
        std::size_t dot = name.find('.');
        std::string b = name.substr(0, dot);
        EXPECT_TRUE(std::regex_match(b, std::regex("[0-9]+(_[0-9]+)?"))) << name;
        if (base.empty()) base = b;
        EXPECT_EQ(b, base) << "one report, one base name";
        out[name.substr(dot)] = fs::is_directory(dir / name) ? "<dir>" : readWholeFile(dir / name);
    }
    return out;
}

struct Running {
    explicit Running(ServerOptions options = {}) : server(std::move(options)) {}
    bool start() { return server.start() && client.connect(server.port()); }
    fs::path dir(const char* relative) const { return fs::path(server.root()) / relative; }
    ServerProcess server;
    TestClient client;
};

// Directories named like the files of reports arriving in the next two
// minutes, so that the server meets one wherever the second falls.
void blockComingSeconds(const fs::path& dir, const std::string& suffix) {
    std::int64_t now = static_cast<std::int64_t>(std::time(nullptr));
    for (std::int64_t t = now - 2; t < now + 120; ++t) fs::create_directories(dir / (std::to_string(t) + suffix));
}

}  // namespace

TEST(ReportsBinary, FeedbackShapesAreFiledByteForByteAndThanked) {
    Running r;
    ASSERT_TRUE(r.start());
    const fs::path dir = r.dir("server_data/feedback");
    std::set<std::string> seen;

    r.client.send(4, feedback().encode());
    EXPECT_EQ(replyText(r.client), kThanks);
    EXPECT_EQ(newReportFiles(dir, seen), (std::map<std::string, std::string>{{".txt", kPlayerOneTexts}}));

    std::string plain = "plain world snapshot";
    r.client.send(4, feedback(asBytes(plain), asBytes("\xFF\xD8jpeg")).encode());
    EXPECT_EQ(replyText(r.client), kThanks);
    EXPECT_EQ(newReportFiles(dir, seen),
              (std::map<std::string, std::string>{{".txt", kPlayerOneTexts}, {".world", plain}, {".jpg", "\xFF\xD8jpeg"}}));

    Bytes bundle = encodeSnapshotBundle(asBytes(std::string("save\0bytes", 10)), asBytes("world"), asBytes("game log\r\n"),
                                        asBytes("script log"));
    r.client.send(4, feedback(bundle, asBytes("img")).encode());
    EXPECT_EQ(replyText(r.client), kThanks);
    EXPECT_EQ(newReportFiles(dir, seen), (std::map<std::string, std::string>{{".txt", kPlayerOneTexts},
                                                                             {".save", std::string("save\0bytes", 10)},
                                                                             {".world", "world"},
                                                                             {".log", "game log\r\n"},
                                                                             {".script.log", "script log"},
                                                                             {".jpg", "img"}}));

    r.client.send(4, feedback(encodeSnapshotBundle({}, asBytes("W"), {}, {})).encode());
    EXPECT_EQ(replyText(r.client), kThanks);
    EXPECT_EQ(newReportFiles(dir, seen), (std::map<std::string, std::string>{
                                             {".txt", kPlayerOneTexts}, {".save", ""}, {".world", "W"}}));

    // Determinism reports: their own directory, the snapshot whole as ".save".
    const fs::path testDir = r.dir("server_data/test_determinism");
    std::set<std::string> testSeen;
    const std::string testTexts =
        "==== Player name ====\nTester\n==== Contact info ====\n\n==== Dataset ====\nBase 1.2\n"
        "==== Description ====\nseed 42\n";
    r.client.send(4, testReport(bundle).encode());
    EXPECT_EQ(replyText(r.client), kTestThanks);
    EXPECT_EQ(newReportFiles(testDir, testSeen),
              (std::map<std::string, std::string>{{".txt", testTexts}, {".save", asString(bundle)}}));
    r.client.send(4, testReport().encode());
    EXPECT_EQ(replyText(r.client), kTestThanks);
    EXPECT_EQ(newReportFiles(testDir, testSeen), (std::map<std::string, std::string>{{".txt", testTexts}}));

    EXPECT_TRUE(r.client.quiet(200));
    EXPECT_EQ(r.server.stop(), 0);
    EXPECT_EQ(r.server.log().find("####"), std::string::npos) << "reports are not logged";
}

// Every failure text, each from a server meeting a directory where one file
// of the report should go.
struct FailureCase {
    const char* name;
    const char* directory;
    const char* blocked;
    Bytes packet;
    const char* text;
    std::set<std::string> left;
};

void PrintTo(const FailureCase& c, std::ostream* os) { *os << c.name; }

class ReportFailure : public ::testing::TestWithParam<FailureCase> {};

TEST_P(ReportFailure, AnsweredWithItsTextAndTheFilesBeforeTheStopKept) {
    const FailureCase& c = GetParam();
    Running r;
    const fs::path dir = r.dir(c.directory);
    blockComingSeconds(dir, c.blocked);
    std::set<std::string> seen = entryNames(dir);
    ASSERT_TRUE(r.start());
    r.client.send(4, c.packet);
    EXPECT_EQ(replyText(r.client), c.text);
    EXPECT_TRUE(r.client.quiet(200)) << "exactly one reply";
    std::set<std::string> written;
    for (const auto& [suffix, content] : newReportFiles(dir, seen)) written.insert(suffix);
    EXPECT_EQ(written, c.left);
}

namespace {
const Bytes kBundle = encodeSnapshotBundle(asBytes("S"), asBytes("W"), asBytes("L"), asBytes("SL"));
}

INSTANTIATE_TEST_SUITE_P(
    ReportsBinary, ReportFailure,
    ::testing::Values(
        FailureCase{"Texts", "server_data/feedback", ".txt", feedback(kBundle).encode(),
                    "Failed to write feedback texts", {}},
        FailureCase{"BundleSave", "server_data/feedback", ".save", feedback(kBundle).encode(),
                    "Failed to write snapshot .save", {".txt"}},
        FailureCase{"BundleWorld", "server_data/feedback", ".world", feedback(kBundle, asBytes("J")).encode(),
                    "Failed to write snapshot .world", {".txt", ".save"}},
        FailureCase{"BundleLog", "server_data/feedback", ".log", feedback(kBundle).encode(), "Failed to write .log",
                    {".txt", ".save", ".world"}},
        FailureCase{"BundleScriptLog", "server_data/feedback", ".script.log", feedback(kBundle).encode(),
                    "Failed to write script .log", {".txt", ".save", ".world", ".log"}},
        FailureCase{"PlainWorld", "server_data/feedback", ".world", feedback(asBytes("plain"), asBytes("J")).encode(),
                    "Failed to write snapshot", {".txt"}},
        FailureCase{"Screenshot", "server_data/feedback", ".jpg", feedback({}, asBytes("J")).encode(),
                    "Failed to write screenshot", {".txt"}},
        FailureCase{"TestTexts", "server_data/test_determinism", ".txt", testReport(asBytes("s")).encode(),
                    "Failed to write test texts", {}},
        FailureCase{"TestSnapshot", "server_data/test_determinism", ".save", testReport(asBytes("s")).encode(),
                    "Failed to write test snapshot", {".txt"}}),
    [](const ::testing::TestParamInfo<FailureCase>& info) { return std::string(info.param.name); });

TEST(ReportsBinary, ReportDirectoriesThatCannotBeCreatedLeaveTheServerRunning) {
    Running r;
    r.server.writeFile("server_data/feedback", "plain file");
    r.server.writeFile("server_data/test_determinism", "plain file");
    ASSERT_TRUE(r.start());
    r.client.send(4, feedback(asBytes("w"), asBytes("j")).encode());
    EXPECT_EQ(replyText(r.client), "Failed to write feedback texts");
    r.client.send(4, testReport(asBytes("s")).encode());
    EXPECT_EQ(replyText(r.client), "Failed to write test texts");
    // Still serving.
    fs::remove(r.dir("server_data/feedback"));
    r.client.send(4, feedback().encode());
    EXPECT_EQ(replyText(r.client), kThanks);
    EXPECT_EQ(r.server.stop(), 0);
}

