// The extensions through the real binary: the handshake, a private room
// played through with --record and the metrics on, and the password found
// nowhere afterwards: not in the log, the console, the metrics or the
// recording.

#include "support/e2e_support.h"

#include <fstream>
#include <httplib.h>

using namespace e2e;

namespace {

constexpr std::uint8_t kLobby = 0, kOrders = 3;

Bytes hello(std::initializer_list<std::string_view> features) {
    Writer w;
    w.u32(100).u32(1).u32(1).u32(static_cast<std::uint32_t>(features.size()));
    for (std::string_view f : features) w.str(f);
    return w.take();
}

auto ofType(std::uint32_t type) {
    return [type](const Bytes& m) { return wordAt(m, 0) == type; };
}

bool waitFor(const std::function<bool()>& done, int timeoutMs = 5000) {
    for (auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs); !done();) {
        if (std::chrono::steady_clock::now() >= end) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return true;
}

std::string readAll(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

}  // namespace

TEST(ExtensionsBinary, APrivateRoomPlayedAndRecordedLeavesItsPasswordNowhere) {
    const std::string password = "Zebra-Quartz-9173";
    const std::uint16_t httpPort = freePort(true);
    ServerProcess server(ServerOptions{.arguments = {"--private-rooms", "--record", "rec", "--metrics",
                                                     "127.0.0.1:" + std::to_string(httpPort)}});
    ASSERT_TRUE(server.start());
    TestClient a, b, legacy("127.0.0.2");
    ASSERT_TRUE(a.connect(server.port()));
    ASSERT_TRUE(b.connect(server.port()));
    ASSERT_TRUE(legacy.connect(server.port()));
    for (TestClient* c : {&a, &b}) {
        c->send(kLobby, hello({"private-rooms", "no-such-feature"}));
        EXPECT_EQ(awaitOn(*c, kLobby, ofType(100)), Writer().u32(100).u32(1).u32(1).u32(1).str("private-rooms").take());
    }
    a.send(kLobby, Writer().u32(101).u32(1).str("den").str("data").u32(77).str(password).u32(0).take());
    auto accepted = awaitOn(a, kLobby, ofType(6));
    ASSERT_TRUE(accepted);
    const std::uint32_t room = wordAt(*accepted, 3);

    // The legacy client sees the room full and is refused as from a full room.
    legacy.send(kLobby, words({10, 1, 0}));
    auto entry = awaitOn(legacy, kLobby, ofType(11));
    ASSERT_TRUE(entry);
    EXPECT_EQ(wordAt(*entry, entry->size() / 4 - 3), wordAt(*entry, entry->size() / 4 - 2));  // humans = capacity
    legacy.send(kLobby, words({3, 1, room}));
    EXPECT_EQ(legacy.nextOn(1), text("Cannot join: room is already full!"));

    b.send(kLobby, Writer().u32(102).u32(1).u32(room).str("zebra").take());
    EXPECT_EQ(awaitOn(b, kLobby, ofType(105)),
              Writer().u32(105).u32(1).u32(room).u32(2).str("Cannot join: wrong password!").take());
    b.send(kLobby, Writer().u32(102).u32(1).u32(room).str(password).take());
    ASSERT_TRUE(awaitOn(b, kLobby, ofType(6)));

    // Ready, start, confirm, a few steps, and both leave.
    a.send(kLobby, setup(0, 1, "Ann"));
    b.send(kLobby, setup(1, 1, "Bob"));
    for (TestClient* c : {&a, &b})
        for (int n = 0; n < 2; ++n)
            ASSERT_TRUE(awaitOn(*c, kLobby, [](const Bytes& m) { return wordAt(m, 0) == 5 && wordAt(m, 3) == 1; }));
    a.send(kLobby, words({14, 1}));
    for (TestClient* c : {&a, &b}) {
        ASSERT_TRUE(awaitOn(*c, kLobby, ofType(14)));
        c->send(kLobby, words({14, 1}));
    }
    for (TestClient* c : {&a, &b}) ASSERT_TRUE(awaitOn(*c, kLobby, ofType(14)));
    for (std::uint32_t step = 1; step <= 3; ++step) {
        a.send(kOrders, order(step, 0, 5, "march"));
        a.send(kOrders, words({1, step, 0}));
        b.send(kOrders, words({1, step, 1}));
        // The completion notices (12 bytes) come on the same channel.
        EXPECT_EQ(awaitOn(b, kOrders, [](const Bytes& m) { return m.size() > 12; }), order(step, 0, 5, "march"));
    }
    a.disconnect();
    b.disconnect();
    ASSERT_TRUE(server.waitForLog("deleted."));

    httplib::Client http("127.0.0.1", httpPort);
    auto metrics = http.Get("/metrics");
    ASSERT_TRUE(metrics);
    EXPECT_NE(metrics->body.find("\nlockstep_recordings_written_total 1\n"), std::string::npos) << metrics->body;
    EXPECT_EQ(server.stop(), 0);

    std::vector<std::filesystem::path> recordings;
    for (const auto& e : std::filesystem::directory_iterator(std::filesystem::path(server.root()) / "rec"))
        recordings.push_back(e.path());
    ASSERT_EQ(recordings.size(), 1u);
    const std::string recording = readAll(recordings[0]);
    EXPECT_NE(recording.find("march"), std::string::npos);  // the recording holds the orders
    for (const std::string& where : {server.log(), server.consoleOutput(), server.consoleErrors(), metrics->body,
                                     recording}) {
        EXPECT_EQ(where.find(password), std::string::npos);
        EXPECT_EQ(where.find("Zebra"), std::string::npos);
    }
}

// A forced desync in a recorded match, read back by the replay tool: the
// step, the two sides and the evidence files the server wrote.
TEST(ExtensionsBinary, TheReplayToolNamesTheStepAndTheSidesOfARecordedDesync) {
    ServerProcess server(ServerOptions{.arguments = {"--record", "rec"}});
    ASSERT_TRUE(server.start());
    TestClient a, b;
    ASSERT_NE(startMatch(server.port(), {&a, &b}, {"Ann", "Bob"}), 0u);
    for (std::uint32_t step = 1; step <= 2; ++step) {
        a.send(kOrders, words({1, step, 0}));
        b.send(kOrders, words({1, step, 1}));
    }
    a.send(kOrders, order(3, 0x6F, 901, ""));
    b.send(kOrders, order(3, 0xDE, 901, ""));
    ASSERT_TRUE(server.waitForLog("|||| Checksums failed at step 3 in room 1\n"));
    for (TestClient* c : {&a, &b}) c->send(2, Writer().u32(8).u32(1).blob(bytesOf("world")).blob(bytesOf("log")).take());
    ASSERT_TRUE(waitFor([&] {
        return std::filesystem::exists(std::filesystem::path(server.root()) / "server_data/resyncs/room1_desync1_peer1.log");
    }));
    a.disconnect();
    b.disconnect();
    ASSERT_TRUE(server.waitForLog("deleted."));
    EXPECT_EQ(server.stop(), 0);

    std::vector<std::filesystem::path> files;
    for (const auto& e : std::filesystem::directory_iterator(std::filesystem::path(server.root()) / "rec"))
        files.push_back(e.path());
    ASSERT_EQ(files.size(), 1u);
    std::string out;
    FILE* p = popen((std::string(LOCKSTEP_REPLAY_BIN) + " desync '" + files[0].string() + "'").c_str(), "r");
    ASSERT_NE(p, nullptr);
    char buffer[4096];
    for (std::size_t n; (n = fread(buffer, 1, sizeof buffer, p)) > 0;) out.append(buffer, n);
    EXPECT_EQ(pclose(p), 0) << out;
    EXPECT_EQ(out.rfind("first desync at step 3 (the checksums differ)\n"
                        "  checksum 0x0000006f: slot 0 \"Ann\"\n"
                        "  checksum 0x000000de: slot 1 \"Bob\"\n",
                        0),
              0u)
        << out;
    for (const char* file : {"room1_desync1_peer0.world", "room1_desync1_peer0.log", "room1_desync1_peer1.world",
                             "room1_desync1_peer1.log"})
        EXPECT_NE(out.find(std::string("  server_data/resyncs/") + file + "  present"), std::string::npos) << out;
}
