// A short soak of the real binary against the server, so that the tool keeps
// working between the long runs of `make soak`.

#include <gtest/gtest.h>

#include <cstdio>
#include <regex>
#include <string>
#include <unistd.h>
#include <vector>

#include "support/program_run.h"
#include "support/server_process.h"

namespace {

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
