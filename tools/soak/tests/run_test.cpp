// A short soak of the real binary against the server, so that the tool keeps
// working between the long runs of `make soak`.

#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "support/server_process.h"

namespace {

struct ProgramRun {
    int status = -1;  // -1 when killed on the time-out
    std::string out;
    std::string err;
};

std::string slurp(const std::string& path) {
    std::ifstream in(path);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
}

ProgramRun runProgram(const std::vector<std::string>& args, int timeoutMs) {
    char outPath[] = "/tmp/soak_out_XXXXXX";
    char errPath[] = "/tmp/soak_err_XXXXXX";
    int outFd = mkstemp(outPath);
    int errFd = mkstemp(errPath);
    pid_t pid = fork();
    if (pid == 0) {
        dup2(outFd, 1);
        dup2(errFd, 2);
        std::vector<char*> argv;
        for (const auto& a : args) argv.push_back(const_cast<char*>(a.c_str()));
        argv.push_back(nullptr);
        execv(argv[0], argv.data());
        _exit(127);
    }
    ProgramRun run;
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    int status = 0;
    while (waitpid(pid, &status, WNOHANG) == 0) {
        if (std::chrono::steady_clock::now() > deadline) {
            kill(pid, SIGKILL);
            waitpid(pid, &status, 0);
            status = -1;
            break;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    if (status != -1 && WIFEXITED(status)) run.status = WEXITSTATUS(status);
    close(outFd);
    close(errFd);
    run.out = slurp(outPath);
    run.err = slurp(errPath);
    unlink(outPath);
    unlink(errPath);
    return run;
}

long field(const std::string& json, const std::string& name) {
    std::smatch m;
    if (!std::regex_search(json, m, std::regex("\"" + name + "\":(-?[0-9]+)"))) return -1;
    return std::stol(m[1]);
}

TEST(SoakRun, ShortChurnAgainstTheServerPasses) {
    ServerOptions options;
    options.statistics = true;
    ServerProcess server(options);
    ASSERT_TRUE(server.start());
    ProgramRun run = runProgram({SOAK_BIN, "--port", std::to_string(server.port()), "--seconds", "8", "--peers",
                                 "64", "--server-pid", std::to_string(server.pid()), "--stall-seconds", "4",
                                 "--junk-per-second", "12", "--memory-figures-only"},
                                25000);
    EXPECT_EQ(run.status, 0) << run.out << run.err;
    EXPECT_NE(run.out.find("\"pass\":true"), std::string::npos) << run.out;
    EXPECT_NE(run.out.find("\"final_answer\":true"), std::string::npos);
    EXPECT_GT(field(run.out, "connects"), 54);
    EXPECT_GT(field(run.out, "rooms_created"), 0);
    EXPECT_GT(field(run.out, "matches_started"), 0);
    EXPECT_GT(field(run.out, "steps_completed"), 0);
    // Every kind at least once.
    EXPECT_GE(field(run.out, "malformed_sent"), field(run.out, "malformed_kinds"));
    EXPECT_GT(field(run.out, "timeouts_provoked"), 0);
    EXPECT_EQ(field(run.out, "stalled_matches"), 0);
    EXPECT_LE(field(run.out, "peak_server_peers"), 64);
    // The descriptors were sampled while it ran.
    EXPECT_NE(run.out.find("\"warm\":{"), std::string::npos);
    EXPECT_NE(run.err.find("overall: pass"), std::string::npos) << run.err;
    std::printf("%s%s", run.out.c_str(), run.err.c_str());
    // The junk was logged and refused, and the server stops cleanly.
    EXPECT_NE(server.log().find("|||| Malformed "), std::string::npos);
    EXPECT_EQ(server.stop(), 0);
}

}  // namespace
