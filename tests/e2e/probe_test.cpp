// lockstep-probe, the operator's check from outside: against a running
// server it prints the status and the round trip and exits 0; against a port
// where nobody answers it gives up after its time-out and exits 1.

#include <sys/wait.h>

#include <cstdio>

#include "support/e2e_support.h"

namespace {

struct ProbeRun {
    int status = -1;
    std::string output;  // standard output and standard error together
};

ProbeRun runProbe(const std::string& arguments) {
    ProbeRun run;
    const std::string command = std::string(LOCKSTEP_PROBE_BIN) + " " + arguments + " 2>&1 </dev/null";
    FILE* pipe = popen(command.c_str(), "r");
    if (pipe == nullptr) return run;
    char buffer[4096];
    for (std::size_t n; (n = fread(buffer, 1, sizeof buffer, pipe)) > 0;) run.output.append(buffer, n);
    const int raw = pclose(pipe);
    run.status = WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
    return run;
}

}  // namespace

TEST(Probe, PrintsTheStatusOfARunningServerWithTheRoundTrip) {
    ServerProcess server(ServerOptions{.description = "Probe target"});
    ASSERT_TRUE(server.start());
    TestClient player;
    ASSERT_TRUE(player.connect(server.port()));
    player.send(0, e2e::createRoom("waiting"));
    ASSERT_TRUE(server.waitForLog("Joined room 1 Peers in room: 1"));

    const std::string target = "127.0.0.1:" + std::to_string(server.port());
    const ProbeRun run = runProbe(target);
    EXPECT_EQ(run.status, 0) << run.output;
    EXPECT_NE(run.output.find(target + " answered: \"Probe target\"\n"), std::string::npos) << run.output;
    // The probe itself is the one peer in no room.
    EXPECT_NE(run.output.find("protocol version 4; 0 matches running with 0 players; 1 players in other rooms; 1 in "
                              "no room\n"),
              std::string::npos)
        << run.output;
    EXPECT_NE(run.output.find("round trip "), std::string::npos) << run.output;
    // It says goodbye rather than leaving the server to time it out.
    EXPECT_TRUE(server.waitForLog("Disconnected 127.0.0.1:"));
    EXPECT_EQ(server.stop(SIGINT), 0);
}

TEST(Probe, GivesUpOnAClosedPortAndRefusesBadArguments) {
    const std::uint16_t closed = freePort();
    const ProbeRun run = runProbe("--timeout 1 127.0.0.1:" + std::to_string(closed));
    EXPECT_EQ(run.status, 1) << run.output;
    EXPECT_EQ(run.output, "lockstep-probe: 127.0.0.1:" + std::to_string(closed) + ": no connection within 1 s\n");

    EXPECT_EQ(runProbe("").status, 2);
    EXPECT_EQ(runProbe("127.0.0.1:0").status, 2);
    EXPECT_EQ(runProbe("127.0.0.1:70000").status, 2);
    EXPECT_EQ(runProbe("--timeout never 127.0.0.1").status, 2);
    EXPECT_EQ(runProbe("--help").status, 0);
}
