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

long field(const std::string& json, const std::string& name) {
    std::smatch m;
    if (!std::regex_search(json, m, std::regex("\"" + name + "\":(-?[0-9]+)"))) return -1;
    return std::stol(m[1]);
}

TEST(Soak, JunkFromAPlayerIsRefusedWithAnErrorLineEachThenAShortChurnPasses) {
    ServerProcess server(ServerOptions{.statistics = true});
    ASSERT_TRUE(server.start());
    TestClient a, b;
    ASSERT_NE(e2e::startMatch(server.port(), {&a, &b}, {"a", "b"}), 0u);
    std::set<std::string> kinds;
    std::size_t errors = countOf(server.log(), "#### ERROR");
    for (const soak::JunkPacket& junk : soak::junkCatalogue()) {
        EXPECT_TRUE(kinds.insert(junk.kind).second) << junk.kind << " named twice";
        a.send(junk.channel, junk.bytes);
        EXPECT_TRUE(server.waitForLog("#### ERROR", ++errors, 2000)) << junk.kind;
    }
    std::string log = server.log();
    EXPECT_EQ(countOf(log, "#### ERROR"), errors);
    EXPECT_EQ(countOf(log, "|||| Malformed ") + countOf(log, "|||| Unknown ") +
                  countOf(log, "|||| Refused file request ") +
                  countOf(log, "???? server should not be receiving file responses"),
              errors);
    // Every channel and family is covered.
    for (const char* kind : {"short-ch0-0", "short-ch6-3", "text-without-nul", "order-short-11", "player-setup-slot-8",
                             "order-first-count-past-end", "resync-world-past-end", "feedback-snapshot-past-end",
                             "track-event-truncated", "file-request-truncated", "file-request-name:../x"})
        EXPECT_EQ(kinds.count(kind), 1u) << kind;
    // The match goes on with both players, and nothing but delay notices
    // reached the other one.
    a.send(3, words({1, 50, 0}));
    b.send(3, words({1, 50, 1}));
    EXPECT_EQ(b.nextOn(3), words({1, 50, 1}));
    EXPECT_FALSE(b.nextOn(0, 0) || b.nextOn(1, 0));
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
    EXPECT_NE(out.find("\"pass\":true"), std::string::npos) << out;
    EXPECT_NE(out.find("\"final_answer\":true"), std::string::npos);
    EXPECT_GT(field(out, "connects"), 54);
    EXPECT_GT(field(out, "rooms_created"), 0);
    EXPECT_GT(field(out, "matches_started"), 0);
    EXPECT_GT(field(out, "steps_completed"), 0);
    // Every kind at least once.
    EXPECT_GE(field(out, "malformed_sent"), field(out, "malformed_kinds"));
    EXPECT_GT(field(out, "timeouts_provoked"), 0);
    EXPECT_EQ(field(out, "stalled_matches"), 0);
    EXPECT_LE(field(out, "peak_server_peers"), 64);
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
