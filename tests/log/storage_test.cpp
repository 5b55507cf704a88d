// The storage worker: order, turns, shares, draining at shutdown, and
// what a failed or raced disk gives.

#include <gtest/gtest.h>

#include <csignal>
#include <fstream>
#include <atomic>
#include <chrono>
#include <future>
#include <thread>
#include <sys/resource.h>

#include "app/server.h"
#include "app/service.h"
#include "platform/files.h"
#include "platform/storage.h"
#include "support/harness.h"
#include "reports/reports.h"
#include "lobby/lobby.h"
#include "update/update.h"

namespace {
std::string error(const std::string& text) { return "#### ERROR \n" + text + "\n####"; }
}  // namespace

TEST(Storage, EachOwnersCompletionsKeepTheirOrderAndTheOwnersTakeTurns) {
    Storage storage;
    storage.start();
    std::promise<void> release;
    std::shared_future<void> gate = release.get_future().share();
    std::vector<std::string> order;
    // The worker is held by the server's first job while the rest queue.
    storage.submit([gate, &order]() -> Storage::Completion {
        gate.wait();
        return [&order] { order.push_back("s0"); };
    });
    auto job = [&order](std::string name) {
        return [&order, name]() -> Storage::Completion { return [&order, name] { order.push_back(name); }; };
    };
    for (int i = 0; i < 3; ++i) ASSERT_TRUE(storage.submit(job("a" + std::to_string(i)), 0, 7));
    ASSERT_TRUE(storage.submit(job("b0"), 0, 8));
    ASSERT_TRUE(storage.submit(job("s1")));
    release.set_value();
    storage.stop();
    EXPECT_EQ(order, (std::vector<std::string>{"s0", "a0", "b0", "s1", "a1", "a2"}));
}

TEST(Storage, APeerPastItsShareIsRefusedAtOnceWhileOthersAndTheServerStillGetIn) {
    Storage storage;
    storage.setShares(Storage::Shares{.jobsPerPeer = 3, .bytesPerPeer = 100, .jobsTotal = 5, .bytesTotal = 1000});
    storage.start();
    std::promise<void> release;
    std::shared_future<void> gate = release.get_future().share();
    int ran = 0;
    auto blocked = [gate, &ran]() -> Storage::Completion {
        gate.wait();
        return [&ran] { ++ran; };
    };
    auto quick = [&ran]() -> Storage::Completion { return [&ran] { ++ran; }; };
    // Nothing here waits for the worker, which holds the first job until the
    // end: every refusal is an answer at once.
    EXPECT_TRUE(storage.submit(blocked, 500, 1));  // over the byte share, but alone
    EXPECT_FALSE(storage.submit(quick, 0, 1));      // its bytes are spent
    EXPECT_TRUE(storage.submit(quick, 10, 2));
    EXPECT_TRUE(storage.submit(quick, 90, 2));
    EXPECT_FALSE(storage.submit(quick, 1, 2));     // 101 bytes
    EXPECT_TRUE(storage.submit(quick, 0, 2));      // a third job, no bytes
    EXPECT_FALSE(storage.submit(quick, 0, 2));     // a fourth
    EXPECT_TRUE(storage.submit(quick, 0, 3));
    EXPECT_FALSE(storage.submit(quick, 0, 4));     // six jobs of peers in all
    EXPECT_FALSE(storage.submit(quick, 600, 5));   // alone, but over the total's bytes
    for (int i = 0; i < 2000; ++i) EXPECT_TRUE(storage.submit(quick, 1 << 20));  // the server's own
    EXPECT_EQ(storage.pending(), 2005u);
    release.set_value();
    storage.stop();
    EXPECT_EQ(ran, 2005);
    // The shares come back as the work is done.
    storage.start();
    EXPECT_TRUE(storage.submit(quick, 0, 4));
    storage.stop();
}

TEST(Storage, AFileThatCannotBeWrittenWholeLeavesNothingBehind) {
    TempDataRoot root;
    const std::string path = (root / "d/file").string();
    // A disk that takes 4 KiB more: the process file-size limit says so.
    std::signal(SIGXFSZ, SIG_IGN);
    rlimit saved{};
    getrlimit(RLIMIT_FSIZE, &saved);
    rlimit small = saved;
    small.rlim_cur = 4096;
    setrlimit(RLIMIT_FSIZE, &small);
    FileWriter big;
    ASSERT_TRUE(big.open(path));
    big.write(std::string(100000, 'x'));
    const bool committed = big.commit();
    ASSERT_TRUE(appendToFile(path + ".log", "first\n"));
    const bool appended = appendToFile(path + ".log", std::string(100000, 'y'));
    setrlimit(RLIMIT_FSIZE, &saved);
    EXPECT_FALSE(committed);
    EXPECT_FALSE(appended);
    EXPECT_EQ(readWholeFile(path + ".log"), "first\n");
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(root / "d"), {}), 1);  // no file, no temporary
    EXPECT_FALSE(appendToFile("/dev/full", "x"));

    // What a crash would leave: only the temporaries go.
    std::ofstream(path + ".tmpAb12Z9") << "half";
    std::ofstream(path + ".tmp") << "a name of a client's";
    EXPECT_EQ(removeLeftoverTemporaries((root / "d").string()), 1u);
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(root / "d"), {}), 2);

    // The operator's files of the same shape, in a directory left alone.
    std::filesystem::create_directories(root / "d/update_data/deep");
    std::ofstream(root / "d/update_data/patch.tmpAb12Z9") << "an update file";
    std::ofstream(root / "d/update_data/deep/patch.tmpAb12Z9") << "another";
    std::ofstream(root / "d/x.tmpQw12Z9") << "half";
    EXPECT_EQ(removeLeftoverTemporaries((root / "d").string(), {"update_data"}), 1u);
    EXPECT_TRUE(std::filesystem::exists(root / "d/update_data/patch.tmpAb12Z9"));
    EXPECT_TRUE(std::filesystem::exists(root / "d/update_data/deep/patch.tmpAb12Z9"));
}

TEST(Storage, UpdateFilesRemovedTooLargeOrOutsideTheDirectoryGoOutEmpty) {
    TempDataRoot root;
    const auto dir = root / "server_data/update_data";
    std::filesystem::create_directories(dir / "sub");
    std::ofstream(dir / "f", std::ios::binary) << "abc";
    std::filesystem::create_symlink("../f", dir / "sub/inside");
    std::filesystem::create_symlink("../../settings", dir / "outside");
    std::filesystem::create_directories(root / "settings");
    std::ofstream(root / "settings/server.config") << "secret";
    std::string problem;
    EXPECT_EQ(readFileData("sub/inside", problem), encode(FileData{1, "sub/inside", Bytes{'a', 'b', 'c'}}));
    EXPECT_EQ(readFileData("outside/server.config", problem), encode(FileData{1, "outside/server.config", {}}));
    EXPECT_EQ(problem, "|||| Refused file request \"outside/server.config\": it leads outside the update data");
    problem.clear();
    std::filesystem::remove(dir / "f");  // removed between the request and the read
    EXPECT_EQ(readFileData("f", problem), encode(FileData{1, "f", {}}));
    EXPECT_EQ(readFileData("sub", problem), encode(FileData{1, "sub", {}}));
    EXPECT_EQ(problem, "");
    std::ofstream(dir / "big").close();
    std::filesystem::resize_file(dir / "big", kMaxPacketSize);  // sparse: nothing is read
    EXPECT_EQ(readFileData("big", problem), encode(FileData{1, "big", {}}));
    EXPECT_EQ(problem, "|||| Update file \"big\" is too large to send: 33554432 bytes");
}

TEST(Service, ACompletionFromTheWorkerIsNoNetworkActivity) {
    ASSERT_EQ(enet_initialize(), 0);
    Server server;
    ENetAddress address{};
    enet_address_set_host(&address, "127.0.0.1");
    server.host = enet_host_create(&address, 4, kChannelCount, 0, 0);
    ASSERT_NE(server.host, nullptr);
    server.storage.start();
    std::atomic<bool> ran{false};
    server.storage.submit([&ran]() -> Storage::Completion { return [&ran] { ran = true; }; });
    for (int turn = 0; !ran && turn < 100000; ++turn) {
        EXPECT_FALSE(serviceStep(server));
        std::this_thread::sleep_for(std::chrono::microseconds(100));
    }
    EXPECT_TRUE(ran);
    server.storage.stop();
    enet_host_destroy(server.host);
    server.host = nullptr;
    enet_deinitialize();
}

namespace {
// The worker held by a job of the server's own until release() is called.
struct HeldWorker {
    std::promise<void> gate;
    explicit HeldWorker(Storage& storage) {
        storage.submit([f = gate.get_future().share()]() -> Storage::Completion {
            f.wait();
            return {};
        });
    }
    void release() { gate.set_value(); }
};
}  // namespace

TEST(Storage, ReportsPastAPeersShareAreAnsweredAtOnceWhileTheWorkerIsBusy) {
    TempDataRoot root;
    Harness h;
    h.server.limits.messages[static_cast<std::size_t>(Group::reports)] = {};
    h.server.limits.reportsPerPeerPerHour = 0;
    h.server.limits.workerJobsPerPeer = 3;
    applyLimits(h.server);
    h.connect(0);
    h.connect(1);
    h.server.storage.start();
    HeldWorker held(h.server.storage);
    const Bytes report = encode(FeedbackReport{1, "p", "c", "d", "t"});
    const Bytes written = encode(ReportReply{1, "Feedback received succesfully! Thank you!"});
    const Bytes unwritten = encode(ReportReply{1, "Failed to write feedback texts"});
    h.takeLogs();
    // Nothing here waits for the worker: past its three jobs, peer 0 is
    // answered at once, and peer 1 still gets its own three in.
    for (int i = 0; i < 5; ++i) h.receive(0, kReportsChannel, report);
    h.receive(1, kReportsChannel, report);
    EXPECT_EQ(h.takeSent(), toEach({0, 0}, kReportsChannel, unwritten));
    EXPECT_EQ(h.takeLogs(), std::vector<std::string>{error(
                                "|||| Report from 10.0.0.1:5000 not written: over worker_jobs_per_peer or "
                                "worker_bytes_per_peer")});
    held.release();
    h.server.storage.drain();
    // The two peers take turns with the worker.
    EXPECT_EQ(h.takeSent(), toEach({0, 1, 0, 0}, kReportsChannel, written));
    h.server.storage.stop();
}

TEST(Downloads, PeersTakeTurnsOneReplyEachAndAGonePeerGivesItsBytesBack) {
    TempDataRoot root;
    std::filesystem::create_directories(root / "server_data/update_data");
    for (const char* name : {"a", "b", "c", "d"}) std::ofstream(root / "server_data/update_data" / name) << name;
    Harness h;
    for (std::size_t i = 0; i < 3; ++i) h.connect(i);
    h.server.storage.start();
    HeldWorker held(h.server.storage);
    auto request = [&](std::size_t peer, const std::string& name) {
        h.receive(peer, kFileUpdateChannel, encode(FileRequest{1, name}));
    };
    // Peer 0 asks for three files before peer 1 asks for one: peer 0's first
    // is being read, then the turns go 0, 1, 0. Peer 2 leaves before its
    // turn and is dropped unread.
    request(0, "a");
    request(0, "b");
    request(0, "c");
    request(1, "d");
    request(2, "a");
    EXPECT_EQ(h.server.storage.pending(), 2u);  // the held job and one read: files are read one at a time
    h.disconnect(2);
    held.release();
    h.server.storage.drain();
    std::vector<std::pair<std::size_t, std::string>> order;
    for (const Sent& s : h.takeSent())
        if (s.channel == kFileUpdateChannel) order.emplace_back(s.peer, decode<FileData>(s.bytes)->name);
    EXPECT_EQ(order, (std::vector<std::pair<std::size_t, std::string>>{{0, "a"}, {0, "b"}, {1, "d"}, {0, "c"}}));
    EXPECT_EQ(h.server.downloads.inFlight, 0u);
    EXPECT_TRUE(h.server.downloads.inFlightByAddress.empty());
    EXPECT_TRUE(h.server.downloads.turns.empty());
    EXPECT_EQ(h.server.downloads.peers.count(h.peer(2)), 0u);
    h.server.storage.stop();
}

TEST(Recording, ARecordingThatFallsBehindTheDiskStopsMarkedAndTheRelayGoesOn) {
    TempDataRoot root;
    Harness h;
    h.server.rooms.recordings = &h.server.recordings;
    h.server.recordings.directory = (root / "rec").string();
    h.server.recordings.limits.maxPendingBytes = 2000;
    Room& room = h.roomOfReady(2);
    h.lobby(0, StartGame{});
    h.step();
    h.lobby(0, StartGame{});
    h.lobby(1, StartGame{});
    h.step();
    ASSERT_TRUE(room.running);
    h.server.storage.start();
    HeldWorker held(h.server.storage);
    h.takeSent();
    h.takeLogs();
    // The disk takes nothing while orders keep coming: the first batches go
    // to the worker and wait there; past 2,000 bytes the recording stops.
    const Bytes order = Writer().u32(1).u32(3).u32(0).u32(0).u32(5).u32(0).u32(0).u32(0).u32(0).u32(0).u32(0).u8(0)
                            .str(std::string(200, 'o')).take();
    for (int i = 0; i < 20; ++i) {
        h.receive(0, kOrderChannel, order);
        flushRecording(h.server.storage, room.match.recording);
    }
    EXPECT_EQ(h.takeSent().size(), 20u);  // every order relayed
    EXPECT_EQ(h.takeLogs(), std::vector<std::string>{error(
                                "|||| Recording of room 1 stopped: the disk fell behind (recording_pending_bytes, 2000 "
                                "bytes). The match goes on")});
    held.release();
    endRecording(h.server.storage, room.match.recording, 1, room.match.lastCompletedStep);
    h.server.storage.stop();
    std::vector<std::filesystem::path> files;
    for (const auto& e : std::filesystem::directory_iterator(root / "rec")) files.push_back(e.path());
    ASSERT_EQ(files.size(), 1u);
    std::ifstream in(files[0], std::ios::binary);
    const RecordingRead read = readRecording(Bytes(std::istreambuf_iterator<char>(in), {}));
    EXPECT_EQ(read.problem, "");
    ASSERT_FALSE(read.records.empty());
    EXPECT_EQ(read.records.back().type, RecordType::lost);
    EXPECT_LT(read.records.size(), 20u);
}

TEST(Downloads, AReadThatFindsThePeersShareTakenKeepsItsPlaceAndIsServedLater) {
    TempDataRoot root;
    std::filesystem::create_directories(root / "server_data/update_data");
    std::ofstream(root / "server_data/update_data/a") << "a";
    Harness h;
    h.server.limits.messages[static_cast<std::size_t>(Group::reports)] = {};
    h.server.limits.reportsPerPeerPerHour = 0;
    h.server.limits.workerJobsPerPeer = 1;
    applyLimits(h.server);
    h.connect(0);
    h.server.storage.start();
    HeldWorker held(h.server.storage);
    // The peer's one job is its report; its file's read finds no room.
    h.receive(0, kReportsChannel, encode(FeedbackReport{1, "p", "c", "d", "t"}));
    h.receive(0, kFileUpdateChannel, encode(FileRequest{1, "a"}));
    EXPECT_EQ(h.server.downloads.turns, std::deque<ENetPeer*>{h.peer(0)});
    EXPECT_EQ(h.server.downloads.peers.at(h.peer(0)).waiting.size(), 1u);
    held.release();
    h.server.storage.drain();
    pumpDownloads(h.server.storage, h.server.downloads);  // the loop's next turn
    h.server.storage.drain();
    std::vector<std::uint8_t> channels;
    for (const Sent& s : h.takeSent()) channels.push_back(s.channel);
    EXPECT_EQ(channels, (std::vector<std::uint8_t>{kReportsChannel, kFileUpdateChannel}));
    h.server.storage.stop();
}
