// The storage worker: order, waiting for room, draining at shutdown, and
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

TEST(Storage, CompletionsComeBackInOrderAndAFullQueueWaitsInsteadOfDropping) {
    Storage storage;
    storage.start();
    std::promise<void> release;
    std::shared_future<void> gate = release.get_future().share();
    std::vector<int> order;
    storage.submit([gate, &order]() -> Storage::Completion {
        gate.wait();
        return [&order] { order.push_back(0); };
    });
    int waits = 0;
    storage.onFull = [&] {
        if (waits++ == 0) release.set_value();
    };
    for (int i = 1; i <= static_cast<int>(Storage::kMaxJobs) + 1; ++i)
        storage.submit([&order, i]() -> Storage::Completion { return [&order, i] { order.push_back(i); }; });
    EXPECT_GE(waits, 1);  // once at least: the worker may not have taken the first job yet
    storage.stop();  // drains: every completion has run
    ASSERT_EQ(order.size(), Storage::kMaxJobs + 2);
    for (std::size_t i = 0; i < order.size(); ++i) ASSERT_EQ(order[i], static_cast<int>(i));
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
