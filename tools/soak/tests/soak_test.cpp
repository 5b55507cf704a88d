// The churn soak: every junk packet it sends must be refused by the server
// without a change, or the soak would be measuring its own side effects; its
// verdict on descriptors and memory; and a short run of the binary against
// the server, so that the tool keeps working between the long runs of
// `make soak`.

#include <cstdio>

#include "junk.h"
#include "soak.h"
#include "support/e2e_support.h"

using e2e::words;

namespace {

TEST(Soak, JunkFromAPlayerIsRefusedWithAnErrorLineEachThenAShortChurnPasses) {
    ServerProcess server(ServerOptions{.statistics = true});
    // A line for every junk packet, however many.
    server.writeFile("settings/limits.conf", "malformed_lines_per_peer = 0\n");
    ASSERT_TRUE(server.start());
    TestClient a, b;
    ASSERT_NE(e2e::startMatch(server.port(), {&a, &b}, {"a", "b"}), 0u);
    std::set<std::uint8_t> channels;
    std::size_t errors = countOf(server.log(), "#### ERROR");
    for (const soak::JunkPacket& junk : soak::junkCatalogue()) {
        channels.insert(junk.channel);
        a.send(junk.channel, junk.bytes);
        EXPECT_TRUE(server.waitForLog("#### ERROR", ++errors, 2000)) << junk.kind;
    }
    EXPECT_EQ(channels.size(), 7u);
    std::string log = server.log();
    EXPECT_EQ(countOf(log, "#### ERROR"), errors);
    EXPECT_EQ(countOf(log, "|||| Malformed ") + countOf(log, "|||| Unknown ") +
                  countOf(log, "|||| Refused file request ") +
                  countOf(log, "???? server should not be receiving file responses"),
              errors);
    // The match goes on with both players in the one room, and nothing but
    // delay notices reached the other one.
    a.send(0, words({10, 1, 0}));
    EXPECT_EQ(e2e::awaitOn(a, 0, [](const Bytes& m) { return m.size() > 4 && m[0] == 1; }),
              Writer().u32(1).u32(1).str("").u32(1).u32(2).u32(0).u32(0).u32(4).take());
    a.send(3, words({1, 50, 0}));
    b.send(3, words({1, 50, 1}));
    EXPECT_EQ(b.nextOn(3), words({1, 50, 1}));
    for (std::uint8_t channel : {0, 1, 4, 5, 6}) EXPECT_FALSE(b.nextOn(channel, 0)) << int(channel);
    EXPECT_FALSE(e2e::awaitOn(b, 2, [](const Bytes& m) { return m != words({1, 1}) && m != words({2, 1}); }, 0));
    a.disconnect();
    b.disconnect();

    ServerProcess soak(ServerOptions{.arguments = {"--port", std::to_string(server.port()), "--seconds", "8", "--peers",
                                                   "64", "--server-pid", std::to_string(server.pid()),
                                                   "--stall-seconds", "4", "--junk-per-second", "12",
                                                   "--memory-figures-only"},
                                     .program = SOAK_BIN});
    soak.launch();
    EXPECT_EQ(soak.wait(25000), 0) << soak.consoleOutput() << soak.consoleErrors();
    const std::string out = soak.consoleOutput();
    // A pass means no stalled match or start, an answer at the end and flat descriptors.
    EXPECT_NE(out.find("\"pass\":true"), std::string::npos) << out;
    EXPECT_GT(e2e::jsonNumber(out, "connects"), 54u);
    for (const char* key : {"rooms_created", "matches_started", "steps_completed", "timeouts_provoked"})
        EXPECT_GT(e2e::jsonNumber(out, key), 0u) << key;
    // Every kind at least once.
    EXPECT_GE(e2e::jsonNumber(out, "malformed_sent"), e2e::jsonNumber(out, "malformed_kinds"));
    EXPECT_LE(e2e::jsonNumber(out, "peak_server_peers"), 64u);
    // The descriptors were sampled while it ran.
    EXPECT_NE(out.find("\"warm\":{"), std::string::npos);
    EXPECT_NE(soak.consoleErrors().find("overall: pass"), std::string::npos) << soak.consoleErrors();
    std::printf("%s%s", out.c_str(), soak.consoleErrors().c_str());
    EXPECT_EQ(server.stop(), 0);
}

TEST(SoakVerdict, FlatMeansWithinSixteenDescriptorsAndTenPercentMemory) {
    soak::Sample warm{120, 10, 100000};
    EXPECT_EQ(soak::flatness(warm, soak::Sample{600, 26, 110000}), "flat");
    EXPECT_EQ(soak::flatness(warm, soak::Sample{600, 27, 100000}), "growing");
    EXPECT_EQ(soak::flatness(warm, soak::Sample{600, 10, 110001}), "growing");
    EXPECT_EQ(soak::flatness(warm, std::nullopt), "skipped");
    EXPECT_EQ(soak::flatness(warm, warm), "skipped");  // the same sample twice says nothing
    // Short runs judge only the descriptors.
    EXPECT_EQ(soak::flatness(warm, soak::Sample{600, 26, 900000}, false), "flat");
    EXPECT_EQ(soak::flatness(warm, soak::Sample{600, 27, 100000}, false), "growing");
}

}  // namespace
