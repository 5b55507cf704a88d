#include <gtest/gtest.h>

#include <filesystem>

#include "support/harness.h"
#include "support/reports_files.h"
#include "support/server_process.h"
#include "support/test_client.h"
#include "update/update.h"

namespace fs = std::filesystem;

namespace {

Bytes fileRequest(const std::string& name) {
    FileRequest r;
    r.name = name;
    return r.encode();
}

// FileData exactly as the server must build it.
Bytes fileData(const std::string& name, const std::string& content) {
    return Writer().u32(3).u32(1).str(name).blob(asBytes(content)).take();
}

Bytes trackEvent101() {
    return Writer().u32(1).u32(1).str("Player").str("Base").u32(7).u32(101).str("").take();
}

struct Running {
    explicit Running(ServerOptions options = {}) : server(std::move(options)) {}
    bool start() { return server.start() && client.connect(server.port()); }
    void write(const std::string& relative, const std::string& content) { server.writeFile(relative, content); }
    ServerProcess server;
    TestClient client;
};


// Lines of the console that are quoted paths, in order.
std::vector<std::string> quotedLines(const std::string& console) {
    std::vector<std::string> out;
    std::size_t pos = 0;
    while (pos < console.size()) {
        std::size_t end = console.find('\n', pos);
        if (end == std::string::npos) end = console.size();
        if (console[pos] == '"') out.push_back(console.substr(pos, end - pos));
        pos = end + 1;
    }
    return out;
}

}  // namespace

TEST(UpdateBinary, ManifestAndFileRequestsAreAnsweredWithWholeFilesReadEachTime) {
    Running r;
    ASSERT_TRUE(r.start());

    r.client.send(6, words({1, 1}));
    EXPECT_EQ(r.client.nextOn(6), fileData("manifest.manifest", ""));

    std::string manifestBytes("\1\0\0\0\5\0\0\0rest of it", 18);
    r.write("server_data/update_data/manifest.manifest", manifestBytes);
    r.client.send(6, words({1}));
    EXPECT_EQ(r.client.nextOn(6), fileData("manifest.manifest", manifestBytes));

    std::string content("payload\0\r\n\xFF", 11);
    r.write("server_data/update_data/dir/file.bin", content);
    r.client.send(6, fileRequest("dir/file.bin"));
    auto reply = r.client.nextOn(6);
    ASSERT_TRUE(reply);
    EXPECT_EQ(*reply, fileData("dir/file.bin", content));
    EXPECT_EQ(reply->size(), 13u + 12u + 11u);

    r.write("server_data/update_data/dir/file.bin", "replaced");
    r.client.send(6, fileRequest("dir/file.bin"));
    EXPECT_EQ(r.client.nextOn(6), fileData("dir/file.bin", "replaced"));

    r.client.send(6, fileRequest("missing.bin"));
    EXPECT_EQ(r.client.nextOn(6), fileData("missing.bin", ""));

    EXPECT_TRUE(r.client.quiet(200));
    EXPECT_EQ(r.server.stop(), 0);
    EXPECT_EQ(r.server.log().find("####"), std::string::npos) << r.server.log();
}

TEST(UpdateBinary, NamesLeadingOutOfTheUpdateDirectoryAreRefused) {
    Running r;
    r.write("server_data/update_data/a\\b", "backslash");
    r.write("server_data/x", "outside");
    ASSERT_TRUE(r.start());
    const std::string from = "\" from 127.0.0.1:" + std::to_string(r.client.localPort()) + "\n####\n";
    const char* names[] = {"../settings/server.config", "/etc/passwd", "a/../../x", "C:x", "a\\b", "", ".."};
    for (const char* name : names) {
        r.client.send(6, fileRequest(name));
        EXPECT_EQ(r.client.nextOn(6), fileData(name, "")) << name;
    }
    EXPECT_TRUE(r.server.waitForLog("|||| Refused file request ", std::size(names)));
    EXPECT_TRUE(r.client.quiet(100));
    std::string log = r.server.log();
    EXPECT_EQ(countOf(log, "|||| Refused file request "), std::size(names));
    for (const char* name : names)
        EXPECT_NE(log.find(": #### ERROR \n|||| Refused file request \"" + std::string(name) + from), std::string::npos)
            << name;
    EXPECT_EQ(r.server.stop(), 0);
}

TEST(UpdateBinary, ForeignMalformedAndBlockedRequestsLeaveItServing) {
    Running r;
    r.write("server_data/update_data", "a plain file where the directory should be");
    ASSERT_TRUE(r.start());
    r.client.send(6, words({3, 1, 0}));
    r.client.send(6, words({7, 1}));
    r.client.send(6, Bytes{2, 0, 0, 0, 1, 0, 0, 0, 'n', 'o', '-', 'n', 'u', 'l'});
    r.client.send(6, words({1, 1}));
    EXPECT_EQ(r.client.nextOn(6), fileData("manifest.manifest", ""));
    EXPECT_TRUE(r.client.quiet(200));
    EXPECT_TRUE(r.server.waitForLog("|||| Malformed file request"));
    std::string log = r.server.log();
    EXPECT_NE(log.find(": #### ERROR \n???? server should not be receiving file responses\n####\n"), std::string::npos);
    EXPECT_NE(log.find("|||| Unknown file update message 7. Nothing to do with it"), std::string::npos);
    EXPECT_NE(log.find("|||| Malformed file request on channel 6, 14 bytes. Dropped"), std::string::npos);
    EXPECT_EQ(r.server.stop(), 0);
}

// Event type 101 is answered by the event tracking handler with the notice and
// then the announcements.
TEST(UpdateBinary, EventTypeOneHundredOneGetsTheManifestVersion) {
    Running r;
    ASSERT_TRUE(r.start());
    r.client.send(5, trackEvent101());
    auto first = r.client.nextOn(5, 1500);
    ASSERT_TRUE(first);
    EXPECT_EQ(ManifestVersionNotice::decode(*first).value_or(ManifestVersionNotice{}).version, "13");
    EXPECT_EQ(r.client.nextOn(5), words({2, 0, 0}));  // no announcements directory
    EXPECT_TRUE(fs::is_directory(fs::path(r.server.root()) / "server_data/update_data"));

    struct Case {
        std::string manifest;
        const char* version;
    } cases[] = {
        {std::string("\0\0\0\0\5\0\0\0", 8), "5"},
        {std::string("\0\0\0\0\xFF\xFF\xFF\xFF", 8), "13"},
        {std::string("\0\0\0\0\2\1", 6), "258"},
        {std::string("\0\0\0\0", 4), "0"},
    };
    for (const auto& c : cases) {
        r.write("server_data/update_data/manifest.manifest", c.manifest);
        r.client.send(5, trackEvent101());
        auto notice = r.client.nextOn(5);
        ASSERT_TRUE(notice);
        Bytes expected = Writer().u32(1).u32(1).str("").str("").u32(0).u32(1).str(c.version).take();
        EXPECT_EQ(*notice, expected) << c.version;
        EXPECT_EQ(r.client.nextOn(5), words({2, 0, 0}));
    }
    EXPECT_EQ(r.server.stop(), 0);
}

TEST(UpdateBinary, AnnouncementsInListingOrderWithLfLineEndsAndTheirPathsOnTheConsole) {
    Running r;
    r.write("server_data/announcements/first", "a");
    r.write("server_data/announcements/second", "bc");
    ASSERT_TRUE(r.start());
    const fs::path dir = fs::path(r.server.root()) / "server_data/announcements";

    r.client.send(5, trackEvent101());
    auto notice = r.client.nextOn(5, 1500);
    ASSERT_TRUE(notice);
    EXPECT_TRUE(ManifestVersionNotice::decode(*notice));

    std::vector<std::string> order;
    for (const auto& e : fs::directory_iterator(dir)) order.push_back(e.path().filename().string());
    Bytes expected = words({2, 0, 2});
    std::vector<std::string> paths;
    for (const auto& name : order) {
        std::string text = name == "first" ? "a" : "bc";
        expected.insert(expected.end(), text.begin(), text.end());
        expected.push_back(0);
        paths.push_back("\"./server_data/announcements/" + name + "\"");
    }
    auto message = r.client.nextOn(5);
    ASSERT_TRUE(message);
    EXPECT_EQ(*message, expected);
    EXPECT_EQ(message->size(), 17u);

    // Read afresh: the CR LF file and a subdirectory show up at the next event.
    fs::remove(dir / "second");
    r.write("server_data/announcements/second", "line 1\r\nline 2\r\n");
    fs::create_directories(dir / "sub");
    r.client.send(5, trackEvent101());
    ASSERT_TRUE(r.client.nextOn(5));
    auto again = Announcements::decode(r.client.nextOn(5).value_or(Bytes{}));
    ASSERT_TRUE(again);
    std::multiset<std::string> texts(again->texts.begin(), again->texts.end());
    EXPECT_EQ(texts, (std::multiset<std::string>{"a", "line 1\nline 2\n", ""}));

    EXPECT_EQ(r.server.stop(), 0);
    auto printed = quotedLines(r.server.consoleOutput());
    ASSERT_GE(printed.size(), 2u);
    EXPECT_EQ(std::vector<std::string>(printed.begin(), printed.begin() + 2), paths);
    EXPECT_EQ(printed.size(), 5u);
}
