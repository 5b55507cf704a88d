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
#include "update/update.h"

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
