// The update service through the binary: the manifest version notice and the
// announcements after event 101, the manifest and files on request, refused
// names, and requests it must not act on.

#include "support/e2e_support.h"

namespace fs = std::filesystem;
using namespace e2e;

namespace {
Bytes fileRequest(const std::string& name) { return Writer().u32(2).u32(1).str(name).take(); }
Bytes fileData(const std::string& name, const std::string& content) {
    return Writer().u32(3).u32(1).str(name).blob(bytesOf(content)).take();
}
Bytes versionNotice(const std::string& version) {
    return Writer().u32(1).u32(1).str("").str("").u32(0).u32(1).str(version).take();
}
}  // namespace

TEST(UpdateBinary, VersionFilesRefusalsStrangeRequestsAndAnnouncements) {
    ServerProcess server;
    ASSERT_TRUE(server.start());
    TestClient client;
    ASSERT_TRUE(client.connect(server.port()));
    const fs::path data = fs::path(server.root()) / "server_data";
    const Bytes event101 = Writer().u32(1).u32(1).str("Player").str("Base").u32(7).u32(101).str("").take();

    // The version is the manifest's bytes 4 to 7, 13 without them; the
    // announcements follow, none without their directory.
    for (const auto& [manifest, version] : std::vector<std::pair<std::string, std::string>>{
             {"", "13"},
             {std::string("\0\0\0\0\5\0\0\0", 8), "5"},
             {std::string("\0\0\0\0\xFF\xFF\xFF\xFF", 8), "13"},
             {std::string("\0\0\0\0\2\1", 6), "258"},
             {std::string("\0\0\0\0", 4), "0"}}) {
        if (!manifest.empty()) server.writeFile("server_data/update_data/manifest.manifest", manifest);
        client.send(5, event101);
        EXPECT_EQ(take(client, 5, 2), (std::vector<Bytes>{versionNotice(version), words({2, 0, 0})})) << version;
        EXPECT_TRUE(fs::is_directory(data / "update_data"));
    }

    // The manifest and files are read afresh for every request and sent whole.
    const std::string manifest("\1\0\0\0\5\0\0\0rest of it", 18), content("payload\0\r\n\xFF", 11);
    server.writeFile("server_data/update_data/manifest.manifest", manifest);
    client.send(6, words({1}));
    EXPECT_EQ(client.nextOn(6), fileData("manifest.manifest", manifest));
    server.writeFile("server_data/update_data/dir/file.bin", content);
    client.send(6, fileRequest("dir/file.bin"));
    EXPECT_EQ(client.nextOn(6), fileData("dir/file.bin", content));
    server.writeFile("server_data/update_data/dir/file.bin", "replaced");
    client.send(6, fileRequest("dir/file.bin"));
    EXPECT_EQ(client.nextOn(6), fileData("dir/file.bin", "replaced"));
    client.send(6, fileRequest("missing.bin"));
    EXPECT_EQ(client.nextOn(6), fileData("missing.bin", ""));

    // Names that could lead out of the update directory get an empty file
    // and an error line, even when the file is there.
    server.writeFile("server_data/update_data/a\\b", "backslash");
    server.writeFile("server_data/x", "outside");
    const std::string names[] = {"../settings/server.config", "/etc/passwd", "a/../../x", "C:x", "a\\b", "", "..", "../\n: x\x1b[2J"};
    for (const std::string& name : names) {
        client.send(6, fileRequest(name));
        EXPECT_EQ(client.nextOn(6), fileData(name, "")) << name;
    }
    ASSERT_TRUE(server.waitForLog("|||| Refused file request ", std::size(names)));
    for (const std::string& name : names)
        EXPECT_NE(server.log().find(": #### ERROR \n|||| Refused file request \"" +
                                    (name == names[7] ? "../\\x0a: x\\x1b[2J" : name) + "\" from 127.0.0.1:" +
                                    std::to_string(client.localPort()) + "\n####\n"),
                  std::string::npos)
            << name;

    // File data from a client, an unknown type and a name without its NUL
    // are logged and dropped; a plain file in the place of the update
    // directory leaves the manifest empty.
    client.send(6, words({3, 1, 0}));
    client.send(6, words({7, 1}));
    client.send(6, Bytes{2, 0, 0, 0, 1, 0, 0, 0, 'n', 'o', '-', 'n', 'u', 'l'});
    fs::remove_all(data / "update_data");
    server.writeFile("server_data/update_data", "a plain file");
    client.send(6, words({1, 1}));
    EXPECT_EQ(client.nextOn(6), fileData("manifest.manifest", ""));
    EXPECT_TRUE(client.quiet(200));
    const std::string log = server.log();
    EXPECT_NE(log.find(": #### ERROR \n???? server should not be receiving file responses\n####\n"), std::string::npos);
    EXPECT_NE(log.find("|||| Unknown file update message 7. Nothing to do with it"), std::string::npos);
    EXPECT_NE(log.find("|||| Malformed file request on channel 6, 14 bytes. Dropped"), std::string::npos);
    EXPECT_EQ(countOf(log, "#### ERROR"), std::size(names) + 3) << log;

    // Announcements: each file of the directory in listing order, its path
    // printed on the console; read afresh, with CR LF turned into LF.
    std::vector<std::string> paths;
    auto announced = [&](const std::map<std::string, std::string>& texts) {
        Writer w;
        w.u32(2).u32(0).u32(static_cast<std::uint32_t>(texts.size()));
        for (const auto& entry : fs::directory_iterator(data / "announcements")) {
            w.str(texts.at(entry.path().filename()));
            paths.push_back("\"./server_data/announcements/" + entry.path().filename().string() + "\"");
        }
        client.send(5, event101);
        EXPECT_EQ(take(client, 5, 2), (std::vector<Bytes>{versionNotice("13"), w.take()}));
    };
    server.writeFile("server_data/announcements/first", "a");
    server.writeFile("server_data/announcements/second", "bc");
    announced({{"first", "a"}, {"second", "bc"}});
    fs::remove(data / "announcements/second");
    server.writeFile("server_data/announcements/second", "line 1\r\nline 2\r\n");
    fs::create_directories(data / "announcements/sub");
    announced({{"first", "a"}, {"second", "line 1\nline 2\n"}, {"sub", ""}});

    EXPECT_EQ(server.stop(), 0);
    std::vector<std::string> printed;
    for (const auto& line : splitLines(server.consoleOutput()))
        if (line.starts_with('"')) printed.push_back(line);
    EXPECT_EQ(printed, paths);
}
