// The loop's wake-up: a post from another thread, a finished disk job and a
// signal each end a long wait at once, and one of them makes one turn.

#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <thread>

#include "platform/signals.h"
#include "platform/storage.h"
#include "platform/wakeup.h"

namespace {
using Clock = std::chrono::steady_clock;

// How long a wait of ten seconds took; well under one second means it was
// woken rather than timed out.
double waitSeconds(const LoopInbox& inbox) {
    const auto start = Clock::now();
    EXPECT_TRUE(waitForSocketOrWakeup(-1, inbox.wakeup(), 10000));
    return std::chrono::duration<double>(Clock::now() - start).count();
}
}  // namespace

TEST(Wakeup, APostFromAnotherThreadWakesTheWaitAndRunsOnTheLoopInOrder) {
    LoopInbox inbox;
    std::vector<int> ran;
    std::thread poster([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        inbox.post([&ran] { ran.push_back(1); });
        inbox.post([&ran] { ran.push_back(2); });
    });
    EXPECT_LT(waitSeconds(inbox), 1.0);
    poster.join();
    EXPECT_TRUE(ran.empty());  // nothing runs on the poster's thread
    EXPECT_EQ(inbox.run(), 2u);
    EXPECT_EQ(ran, (std::vector<int>{1, 2}));
    EXPECT_EQ(inbox.run(), 0u);
    // Posts made while the loop works end its next wait once: the wait after
    // that runs to its time-out.
    inbox.post([] {});
    inbox.post([] {});
    EXPECT_LT(waitSeconds(inbox), 1.0);
    EXPECT_EQ(inbox.run(), 2u);
    const auto start = Clock::now();
    EXPECT_TRUE(waitForSocketOrWakeup(-1, inbox.wakeup(), 100));
    EXPECT_GE(Clock::now() - start, std::chrono::milliseconds(90));
}

TEST(Wakeup, AFinishedDiskJobWakesTheLoopForItsCompletion) {
    LoopInbox inbox;
    Storage storage;
    storage.onDone = [&inbox] { inbox.wakeup().signal(); };
    storage.start();
    bool completed = false;
    storage.submit([&]() -> Storage::Completion {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        return [&completed] { completed = true; };
    });
    EXPECT_LT(waitSeconds(inbox), 1.0);
    EXPECT_EQ(storage.poll(), 1u);
    EXPECT_TRUE(completed);
    storage.stop();
}

TEST(Wakeup, ASignalOnAnotherThreadWakesTheLoopAndATermAsksForADrainOnceDrainsAreOn) {
    LoopInbox inbox;
    installStopSignals();
    wakeOnSignals(inbox.wakeup().fd());
    // Delivered to a thread that is not waiting: only the eventfd can end
    // the wait.
    std::thread other([] {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        raise(SIGUSR2);
    });
    EXPECT_LT(waitSeconds(inbox), 1.0);
    other.join();
    EXPECT_EQ(reportRequested, 1);
    reportRequested = 0;

    drainOnTerminate();
    raise(SIGTERM);
    EXPECT_EQ(drainRequested, 1);
    EXPECT_EQ(quitRequested, 0);
    raise(SIGTERM);
    EXPECT_EQ(quitRequested, 1);
    EXPECT_LT(waitSeconds(inbox), 1.0);
    wakeOnSignals(-1);
    quitRequested = 0;
    drainRequested = 0;
    std::signal(SIGTERM, SIG_DFL);
    std::signal(SIGINT, SIG_DFL);
}
