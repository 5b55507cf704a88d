// Client reports through the binary: every shape of feedback and test report
// filed byte for byte and thanked, every failure answered with its text, and
// report directories that cannot be made.

#include <sys/resource.h>

#include "support/e2e_support.h"

namespace fs = std::filesystem;
using e2e::bytesOf;

namespace {

using Files = std::map<std::string, std::string>;  // suffix -> content

Bytes feedback(const Bytes& snapshot = {}, const Bytes& screenshot = {}) {
    return Writer().u32(1).u32(1).str("Player One").str("p1@example.org").str("Base 1.2").str("Line one\nline two")
        .blob(snapshot).blob(screenshot).take();
}
Bytes testReport(const Bytes& snapshot = {}) {
    return Writer().u32(3).u32(1).str("Tester").str("").str("Base 1.2").str("seed 42").blob(snapshot).take();
}
Bytes bundle(std::string_view save, std::string_view world, std::string_view log, std::string_view scriptLog) {
    return Writer().str("COMBOSAVE").blob(bytesOf(save)).blob(bytesOf(world)).blob(bytesOf(log))
        .blob(bytesOf(scriptLog)).take();
}
Bytes reply(const std::string& text) { return Writer().u32(2).u32(1).str(text).take(); }

// Sends the report; its one reply, and the files it left in dir, all under
// one base name made of the current second and maybe "_k". The directory is
// emptied afterwards.
std::pair<Bytes, Files> file(TestClient& client, const Bytes& report, const fs::path& dir) {
    client.send(4, report);
    std::pair<Bytes, Files> out{client.nextOn(4, 3000).value_or(Bytes{}), {}};
    EXPECT_TRUE(client.quiet(100)) << "exactly one reply";
    std::string first;
    std::error_code ec;
    for (fs::directory_iterator it(dir, ec), end; !ec && it != end; it.increment(ec)) {
        if (it->is_directory()) continue;
        std::string name = it->path().filename().string(), base = name.substr(0, name.find('.'));
        EXPECT_TRUE(std::regex_match(base, std::regex("[0-9]+(_[0-9]+)?"))) << name;
        EXPECT_LE(std::abs(std::stoll(base) - std::time(nullptr)), 5) << name;
        EXPECT_EQ(base, first.empty() ? (first = base) : first) << "one report, one base name";
        out.second[name.substr(base.size())] = readWholeFile(it->path());
    }
    fs::remove_all(dir, ec);
    return out;
}

}  // namespace

TEST(ReportsBinary, EveryShapeFiledByteForByteEveryFailureAnsweredAndNothingLogged) {
    ServerProcess server;
    // Plain files where the report directories should be: nothing can be
    // filed, and the server runs on.
    server.writeFile("server_data/feedback", "plain file");
    server.writeFile("server_data/test_determinism", "plain file");
    ASSERT_TRUE(server.start());
    TestClient client;
    ASSERT_TRUE(client.connect(server.port()));
    const fs::path data = fs::path(server.root()) / "server_data";
    EXPECT_EQ(file(client, feedback(bytesOf("w"), bytesOf("j")), data / "feedback"),
              std::pair(reply("Failed to write feedback texts"), Files{}));
    EXPECT_EQ(file(client, testReport(bytesOf("s")), data / "test_determinism"),
              std::pair(reply("Failed to write test texts"), Files{}));

    const std::string texts = "==== Player name ====\nPlayer One\n==== Contact info ====\np1@example.org\n"
                              "==== Dataset ====\nBase 1.2\n==== Description ====\nLine one\nline two\n";
    const std::string testTexts = "==== Player name ====\nTester\n==== Contact info ====\n\n==== Dataset ====\n"
                                  "Base 1.2\n==== Description ====\nseed 42\n";
    const std::string thanks = "Feedback received succesfully! Thank you!";
    const Bytes full = bundle(std::string_view("save\0bytes", 10), "world", "game log\r\n", "script log");
    const Bytes small = bundle("S", "W", "L", "SL");
    struct Case {
        Bytes report;
        std::string dir;
        std::string blocked;  // a directory in the place of the file with this suffix
        std::string reply;
        Files files;
    };
    for (const auto& c : std::vector<Case>{
             {feedback(), "feedback", "", thanks, {{".txt", texts}}},
             {feedback(bytesOf("plain world"), bytesOf("\xFF\xD8jpeg")), "feedback", "", thanks,
              {{".txt", texts}, {".world", "plain world"}, {".jpg", "\xFF\xD8jpeg"}}},
             {feedback(full, bytesOf("img")), "feedback", "", thanks,
              {{".txt", texts}, {".save", std::string("save\0bytes", 10)}, {".world", "world"},
               {".log", "game log\r\n"}, {".script.log", "script log"}, {".jpg", "img"}}},
             {feedback(bundle("", "W", "", "")), "feedback", "", thanks, {{".txt", texts}, {".save", ""}, {".world", "W"}}},
             // Test reports file the snapshot whole, bundle or not.
             {testReport(full), "test_determinism", "", "Test results received succesfully! Thank you!",
              {{".txt", testTexts}, {".save", std::string(full.begin(), full.end())}}},
             {testReport(), "test_determinism", "", "Test results received succesfully! Thank you!",
              {{".txt", testTexts}}},
             // The first file that cannot be opened stops the filing; the
             // files before it stay.
             {feedback(small), "feedback", ".txt", "Failed to write feedback texts", {}},
             {feedback(small), "feedback", ".save", "Failed to write snapshot .save", {{".txt", texts}}},
             {feedback(small, bytesOf("J")), "feedback", ".world", "Failed to write snapshot .world",
              {{".txt", texts}, {".save", "S"}}},
             {feedback(small), "feedback", ".log", "Failed to write .log", {{".txt", texts}, {".save", "S"}, {".world", "W"}}},
             {feedback(small), "feedback", ".script.log", "Failed to write script .log",
              {{".txt", texts}, {".save", "S"}, {".world", "W"}, {".log", "L"}}},
             {feedback(bytesOf("plain"), bytesOf("J")), "feedback", ".world", "Failed to write snapshot", {{".txt", texts}}},
             {feedback({}, bytesOf("J")), "feedback", ".jpg", "Failed to write screenshot", {{".txt", texts}}},
             {testReport(bytesOf("s")), "test_determinism", ".txt", "Failed to write test texts", {}},
             {testReport(bytesOf("s")), "test_determinism", ".save", "Failed to write test snapshot",
              {{".txt", testTexts}}}}) {
        // Blocked for every second the report could arrive in.
        for (auto t = std::time(nullptr) - 1; !c.blocked.empty() && t < std::time(nullptr) + 60; ++t)
            fs::create_directories(data / c.dir / (std::to_string(t) + c.blocked));
        EXPECT_EQ(file(client, c.report, data / c.dir), std::pair(reply(c.reply), c.files)) << c.reply << c.blocked;
    }
    // A disk that takes 300 KB more: a 1 MiB snapshot fails and leaves nothing half written.
    const rlimit nearlyFull{300000, 300000};
    ASSERT_EQ(prlimit(server.pid(), RLIMIT_FSIZE, &nearlyFull, nullptr), 0);
    EXPECT_EQ(file(client, feedback(Bytes(1 << 20, 7)), data / "feedback"),
              std::pair(reply("Failed to write snapshot"), Files{{".txt", texts}}));
    EXPECT_EQ(server.stop(), 0);
    EXPECT_EQ(server.log().find("####"), std::string::npos) << "reports are not logged";
}
