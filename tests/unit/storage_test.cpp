// The storage worker: order, waiting for room, draining at shutdown, and
// what a failed or raced disk gives.

#include <gtest/gtest.h>

#include <csignal>
#include <fstream>
#include <future>
#include <sys/resource.h>

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
    EXPECT_EQ(readFile(path + ".log"), "first\n");
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(root / "d"), {}), 1);  // no file, no temporary
    EXPECT_FALSE(appendToFile("/dev/full", "x"));
}

TEST(Storage, AnUpdateFileRemovedOrShrunkBeforeTheWorkerReadsIt) {
    TempDataRoot root;
    std::filesystem::create_directories(root / "server_data/update_data");
    std::ofstream(root / "server_data/update_data/f", std::ios::binary) << "abc";
    EXPECT_EQ(readFileData("f"), encode(FileData{1, "f", Bytes{'a', 'b', 'c'}}));
    std::filesystem::remove(root / "server_data/update_data/f");
    EXPECT_EQ(readFileData("f"), encode(FileData{1, "f", {}}));
    std::filesystem::create_directories(root / "server_data/update_data/dir");
    EXPECT_EQ(readFileData("dir"), encode(FileData{1, "dir", {}}));
}
