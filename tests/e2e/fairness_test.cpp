// Clients that try to make the server serve everybody else worse, beside
// honest ones: downloaders that sit on their replies or vanish in the middle
// of them, a lobby chat flood with a reader that cannot keep up, room churn
// from one address, and update checks against many announcements beside a
// match. The honest clients come from other loopback addresses, as they
// would from other homes.

#include "support/e2e_support.h"

#include <fstream>

using namespace e2e;

namespace {

constexpr std::uint8_t kLobby = 0, kText = 1, kOrders = 3, kEvents = 5, kUpdate = 6;

Bytes fileRequest(std::string_view name) { return Writer().u32(2).u32(1).str(name).take(); }
const Bytes kManifestRequest = words({1, 1});

// An update file of size bytes in the server's data root.
void updateFile(const ServerProcess& server, const std::string& name, std::size_t size) {
    const auto directory = std::filesystem::path(server.root()) / "server_data/update_data";
    std::filesystem::create_directories(directory);
    std::ofstream(directory / name, std::ios::binary) << std::string(size, 'u');
}

// The FileData named name, with its length; the others on the channel are
// dropped.
std::optional<Bytes> fileData(TestClient& c, std::string_view name, int timeoutMs) {
    return awaitOn(c, kUpdate, [name](const Bytes& m) { return m.size() > 8 && std::string_view(
        reinterpret_cast<const char*>(m.data()) + 8) == name; }, timeoutMs);
}

std::uint64_t residentKiB(pid_t pid) {
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    for (std::string line; std::getline(status, line);)
        if (line.rfind("VmRSS:", 0) == 0) return std::strtoull(line.c_str() + 6, nullptr, 10);
    return 0;
}

}  // namespace

TEST(FairnessBinary, AnUpdaterIsAnsweredWhilePeersSitOnLargeReplies) {
    ServerProcess server;
    ASSERT_TRUE(server.start());
    server.writeFile("server_data/update_data/manifest.manifest", std::string("\0\0\0\0\7\0\0\0", 8));
    updateFile(server, "big", 32 * 1024 * 1024 - 4096);
    updateFile(server, "mid", 8 * 1024 * 1024);

    // One peer asks for a 32 MiB file and four for 8 MiB files, and then
    // none of them takes anything: their ENet hosts are never serviced again.
    std::vector<std::unique_ptr<TestClient>> silent;
    for (int i = 0; i < 5; ++i) {
        silent.push_back(std::make_unique<TestClient>());
        ASSERT_TRUE(silent.back()->connect(server.port()));
        silent.back()->send(kUpdate, fileRequest(i == 0 ? "big" : "mid"));
    }
    TestClient updater("127.0.0.2");
    ASSERT_TRUE(updater.connect(server.port()));
    for (int i = 0; i < 8; ++i) {
        updater.send(kUpdate, kManifestRequest);
        const std::optional<Bytes> manifest = fileData(updater, "manifest.manifest", 1000);
        ASSERT_TRUE(manifest) << "request " << i;
        EXPECT_EQ(manifest->size(), 8u + 18 + 4 + 8);
        std::this_thread::sleep_for(std::chrono::milliseconds(250));
    }
    EXPECT_EQ(server.stop(), 0);
}

TEST(FairnessBinary, DownloadersLeavingInTheMiddleOfTheirFilesLeaveTheServiceToTheNext) {
    ServerProcess server;
    server.writeFile("settings/limits.conf", "download_stall_seconds = 2\n");
    ASSERT_TRUE(server.start());
    updateFile(server, "mid", 8 * 1024 * 1024);
    const std::size_t whole = 8 + 4 + 4 + 8 * 1024 * 1024;

    // Sixteen downloaders vanish (no goodbye) with their files under way.
    {
        std::vector<std::unique_ptr<TestClient>> vanishing;
        for (int i = 0; i < 16; ++i) {
            vanishing.push_back(std::make_unique<TestClient>());
            ASSERT_TRUE(vanishing.back()->connect(server.port()));
            vanishing.back()->send(kUpdate, fileRequest("mid"));
        }
        for (auto& c : vanishing) c->quiet(20);  // a little of each reply arrives
    }
    TestClient next("127.0.0.2");
    ASSERT_TRUE(next.connect(server.port()));
    next.send(kUpdate, fileRequest("mid"));
    const std::optional<Bytes> file = fileData(next, "mid", 10000);
    ASSERT_TRUE(file);
    EXPECT_EQ(file->size(), whole);

    // Four that say goodbye in the middle give their share back at once: a
    // fifth from their own address is served next.
    std::vector<std::unique_ptr<TestClient>> leaving;
    for (int i = 0; i < 4; ++i) {
        leaving.push_back(std::make_unique<TestClient>("127.0.0.3"));
        ASSERT_TRUE(leaving.back()->connect(server.port()));
        leaving.back()->send(kUpdate, fileRequest("mid"));
    }
    for (auto& c : leaving) c->quiet(20);
    for (auto& c : leaving) c->disconnect();
    TestClient fifth("127.0.0.3");
    ASSERT_TRUE(fifth.connect(server.port()));
    fifth.send(kUpdate, fileRequest("mid"));
    const std::optional<Bytes> again = fileData(fifth, "mid", 10000);
    ASSERT_TRUE(again);
    EXPECT_EQ(again->size(), whole);

    // The vanished ones whose replies took nothing are cut off.
    EXPECT_TRUE(server.waitForLog(" took none of its download for 2 s. Disconnecting it", 1, 8000)) << server.log();
    EXPECT_EQ(server.stop(), 0);
}

TEST(FairnessBinary, ALobbyChatFloodCostsTheFloodersAndASlowReaderKeepsItsConnection) {
    ServerProcess server;
    // A reader that falls 4 MiB behind would be cut off: the flood alone
    // must not take it there.
    server.writeFile("settings/limits.conf", "max_outgoing_bytes_per_peer = 4 MiB\n");
    ASSERT_TRUE(server.start());
    TestClient slow("127.0.0.2"), reader("127.0.0.3");
    ASSERT_TRUE(slow.connect(server.port()));
    ASSERT_TRUE(reader.connect(server.port()));
    std::vector<std::unique_ptr<TestClient>> flooders;
    for (int i = 0; i < 8; ++i) {
        flooders.push_back(std::make_unique<TestClient>());
        ASSERT_TRUE(flooders.back()->connect(server.port()));
    }
    // Each flooder sends 16 KiB lines at its text budget (20 a second) for
    // three seconds; the slow reader reads nothing meanwhile.
    const Bytes line = text(std::string(16 * 1024, 'x'));
    std::size_t read = 0;
    for (int tick = 0; tick < 60; ++tick) {
        for (auto& f : flooders) f->send(kText, line);
        while (reader.nextOn(kText, 1)) ++read;
        for (auto& f : flooders) f->quiet(1);
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    EXPECT_GT(read, 0u);
    // The slow reader catches up and is still served.
    while (slow.nextOn(kText, 500)) {
    }
    ASSERT_TRUE(slow.connected());
    slow.send(kLobby, words({10, 1, 0}));
    EXPECT_TRUE(slow.nextOn(kLobby, 2000));
    EXPECT_EQ(countOf(server.log(), "does not take what is sent to it"), 0u) << server.log();
    EXPECT_NE(server.log().find(": lobby chat line dropped: over lobby_chat_bytes_per_second"), std::string::npos);
    EXPECT_EQ(server.stop(), 0);
}

TEST(FairnessBinary, RoomChurnFromOneAddressIsBoundedAndSoIsTheLog) {
    ServerProcess server;
    ASSERT_TRUE(server.start());
    std::vector<std::unique_ptr<TestClient>> churners;
    for (int i = 0; i < 20; ++i) {
        churners.push_back(std::make_unique<TestClient>());
        ASSERT_TRUE(churners.back()->connect(server.port()));
    }
    const std::size_t logBefore = server.log().size();
    std::size_t refused = 0;
    for (int round = 0; round < 10; ++round) {
        for (auto& c : churners) {
            c->send(kLobby, createRoom(""));
            c->send(kLobby, words({4, 1}));  // LeaveRoom
        }
        for (auto& c : churners)
            while (auto m = c->nextOn(kText, 1)) refused += std::string_view(reinterpret_cast<const char*>(m->data()))
                                                               .starts_with("Room not created: too many rooms");
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    for (auto& c : churners)
        while (auto m = c->nextOn(kText, 200)) refused += 1;
    // Sixty rooms a minute from one address, however many peers it has (and
    // one more for each second the test took).
    const std::size_t created = countOf(server.log(), ": Room \"");
    EXPECT_GE(created, 60u);
    EXPECT_LE(created, 70u);
    EXPECT_EQ(refused, 200u - created);
    EXPECT_LT(server.log().size() - logBefore, 64u * 1024) << "the log grew by " << server.log().size() - logBefore;
    EXPECT_EQ(server.stop(), 0);
}

TEST(FairnessBinary, UpdateChecksAgainstManyAnnouncementsLeaveAMatchItsRelay) {
    ServerProcess server;
    ASSERT_TRUE(server.start());
    for (int i = 0; i < 2000; ++i)
        server.writeFile("server_data/announcements/news" + std::to_string(i), std::string(1024, 'n'));
    TestClient a, b;
    ASSERT_NE(startMatch(server.port(), {&a, &b}, {"Ann", "Bob"}), 0u);
    TestClient checker("127.0.0.2");
    ASSERT_TRUE(checker.connect(server.port()));
    const Bytes check = Writer().u32(1).u32(1).str("p").str("d").u32(0).u32(101).str("").take();

    // The checker asks at its event budget's rate (200 a second) for three
    // seconds while Ann sends an order every 50 ms; Bob gets each in time.
    std::uint64_t peakKiB = 0;
    std::size_t relayed = 0, announcements = 0;
    for (int tick = 0; tick < 60; ++tick) {
        for (int i = 0; i < 10; ++i) checker.send(kEvents, check);
        const Bytes o = order(static_cast<std::uint32_t>(10 + tick), 0, 5, "move");
        a.send(kOrders, o);
        const std::optional<Bytes> got = b.nextOn(kOrders, 1000);
        relayed += got == o;
        while (auto m = checker.nextOn(kEvents, 1)) announcements += wordAt(*m, 0) == 2;
        peakKiB = std::max(peakKiB, residentKiB(server.pid()));
        std::this_thread::sleep_for(std::chrono::milliseconds(40));
    }
    EXPECT_EQ(relayed, 60u);
    // Each answer is the announcements that fit 1 MiB; the checker's reply
    // budget (32 MiB at once, 4 MiB a second) pays for a few dozen of the
    // 600 asked for.
    EXPECT_GT(announcements, 0u);
    EXPECT_LT(announcements, 100u);
    EXPECT_LT(peakKiB, 256u * 1024) << "resident " << peakKiB << " KiB";
    EXPECT_NE(server.log().find("|||| Announcements: "), std::string::npos);
    EXPECT_EQ(server.stop(), 0);
}
