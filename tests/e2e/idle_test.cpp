// What an idle server costs: with no peers every thread sleeps until there is
// work, so a fleet can pack instances that wait to be allocated. The bound is
// loose on purpose (an idle server wakes about once a second); a thread that
// polls on a timer, even every 50 ms, goes far past it.

#include <chrono>
#include <fstream>

#include "support/e2e_support.h"

namespace {

// Voluntary context switches of every thread of the process: each one is a
// thread going to sleep, so each wake-up adds one.
std::uint64_t voluntarySwitches(pid_t pid) {
    std::uint64_t total = 0;
    std::error_code ec;
    for (const auto& task : std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/task", ec)) {
        std::ifstream status(task.path() / "status");
        std::string line;
        while (std::getline(status, line))
            if (line.rfind("voluntary_ctxt_switches:", 0) == 0) total += std::stoull(line.substr(24));
    }
    return total;
}

}  // namespace

TEST(Idle, AServerWithNoPeersWakesAboutOnceASecondWithAllItsThreads) {
    ServerProcess server(ServerOptions{.arguments = {"--metrics", "127.0.0.1:" + std::to_string(freePort(true))}});
    ASSERT_TRUE(server.start());
    {
        // A peer that came and went leaves nothing behind that needs turns.
        TestClient c;
        ASSERT_TRUE(c.connect(server.port()));
        ASSERT_TRUE(server.waitForLog("1 peers now"));
        c.disconnect();
        ASSERT_TRUE(server.waitForLog("0 peers now"));
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    const auto start = std::chrono::steady_clock::now();
    const std::uint64_t before = voluntarySwitches(server.pid());
    std::this_thread::sleep_for(std::chrono::seconds(4));
    const std::uint64_t woken = voluntarySwitches(server.pid()) - before;
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    EXPECT_LE(static_cast<double>(woken) / seconds, 15.0) << woken << " wake-ups in " << seconds << " s";
    EXPECT_EQ(server.stop(), 0);
}
