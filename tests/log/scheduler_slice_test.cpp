// The loop's request for short scheduler slices: set on the calling thread
// only, and never at the cost of what the operator set.

#include <gtest/gtest.h>

#include <fstream>
#include <sched.h>
#include <string>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <thread>
#include <unistd.h>

#include "platform/process.h"

namespace {

// se.slice of the calling thread in nanoseconds, or -1 where the kernel does
// not show it.
long long sliceOfThisThread() {
    std::ifstream in("/proc/thread-self/sched");
    std::string line;
    while (std::getline(in, line))
        if (line.rfind("se.slice", 0) == 0) return std::stoll(line.substr(line.find(':') + 1));
    return -1;
}

int niceOfThisThread() { return getpriority(PRIO_PROCESS, static_cast<id_t>(syscall(SYS_gettid))); }

}  // namespace

TEST(SchedulerSlice, TheCallingThreadAsksAndKeepsItsNiceAndTheOthersKeepTheirs) {
    const long long before = sliceOfThisThread();
    if (before < 0) GTEST_SKIP() << "the kernel shows no se.slice";
    long long asked = -1, other = -1;
    int nice = 0;
    bool granted = false;
    std::thread([&] {
        ASSERT_EQ(setpriority(PRIO_PROCESS, static_cast<id_t>(syscall(SYS_gettid)), 5), 0);
        granted = requestSchedulerSlice(250);
        asked = sliceOfThisThread();
        nice = niceOfThisThread();
    }).join();
    if (!granted) GTEST_SKIP() << "the kernel refused the request";
    if (asked == before) GTEST_SKIP() << "the kernel took the request and keeps no slice per thread";
    EXPECT_EQ(asked, 250'000);
    EXPECT_EQ(nice, 5);
    other = sliceOfThisThread();
    EXPECT_EQ(other, before);
}

TEST(SchedulerSlice, AThreadUnderAnotherPolicyIsLeftAlone) {
    if (sliceOfThisThread() < 0) GTEST_SKIP() << "the kernel shows no se.slice";
    long long slice = -1;
    int policy = -1;
    bool granted = false;
    std::thread([&] {
        const sched_param param{};
        ASSERT_EQ(sched_setscheduler(0, SCHED_BATCH, &param), 0);
        const long long before = sliceOfThisThread();
        granted = requestSchedulerSlice(250);
        slice = sliceOfThisThread() - before;
        policy = sched_getscheduler(0);
    }).join();
    EXPECT_TRUE(granted);
    EXPECT_EQ(slice, 0);
    EXPECT_EQ(policy, SCHED_BATCH);
}
