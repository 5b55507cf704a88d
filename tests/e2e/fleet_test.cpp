// Running in a fleet: a drain with a match under way, ended by the match or
// by the deadline, started by SIGTERM or the key, and a second SIGTERM; the
// calls to the Agones sidecar (a stand-in) while it is there, late, slow or
// failing.

#include <httplib.h>

#include "support/e2e_support.h"
#include "support/sidecar.h"

using namespace e2e;

namespace {
constexpr std::uint8_t kLobby = 0, kText = 1, kControl = 2, kOrders = 3;

const std::string kNotice60 =
    "The server is shutting down within 60 seconds: running games may finish, new games cannot be created or joined.";

bool isText(const Bytes& m, const std::string& s) { return m == text(s); }
}  // namespace

TEST(Drain, RefusesNewGamesTellsEveryoneAndStopsWhenTheMatchEnds) {
    const std::uint16_t httpPort = freePort(true);
    ServerProcess server(
        ServerOptions{.arguments = {"--drain", "60", "--metrics", "127.0.0.1:" + std::to_string(httpPort)}});
    ASSERT_TRUE(server.start());
    TestClient a, b, c;
    const std::uint32_t room = startMatch(server.port(), {&a, &b}, {"Ann", "Bob"});
    ASSERT_NE(room, 0u);
    ASSERT_TRUE(c.connect(server.port()));
    // A second room, not started: it does not hold the drain up.
    c.send(kLobby, createRoom("waiting"));
    ASSERT_TRUE(awaitOn(c, kLobby, [](const Bytes& m) { return wordAt(m, 0) == 6; }));
    TestClient d;
    ASSERT_TRUE(d.connect(server.port()));
    httplib::Client http("127.0.0.1", httpPort);
    EXPECT_EQ(http.Get("/readyz")->status, 200);

    kill(server.pid(), SIGTERM);
    ASSERT_TRUE(server.waitForLog(": Drain: no new games; 1 matches running, stopping when they end or in 60 seconds\n"))
        << server.log();
    for (TestClient* client : {&a, &b, &c, &d})
        EXPECT_TRUE(awaitOn(*client, kText, [](const Bytes& m) { return isText(m, kNotice60); }));
    auto ready = http.Get("/readyz");
    ASSERT_TRUE(ready);
    EXPECT_EQ(ready->status, 503);
    EXPECT_EQ(ready->body, "draining\n");
    EXPECT_NE(http.Get("/metrics")->body.find("\nlockstep_draining 1\n"), std::string::npos);

    // No new room and no join, each refused as a full room is.
    d.send(kLobby, createRoom("late"));
    EXPECT_EQ(d.nextOn(kText), text("Cannot join: room is already full!"));
    d.send(kLobby, words({3, 1, 2}));
    EXPECT_EQ(d.nextOn(kText), text("Cannot join: room is already full!"));
    EXPECT_TRUE(d.quiet(200));

    // The match plays on.
    a.send(kOrders, order(5, 0, 7, "go"));
    EXPECT_TRUE(awaitOn(b, kOrders, [](const Bytes& m) { return wordAt(m, 1) == 5 && wordAt(m, 3) == 0; }));
    EXPECT_EQ(server.wait(300), -1);

    // The match ends when its players leave it; then the server stops.
    a.send(kControl, words({3, 1}));
    b.send(kControl, words({3, 1}));
    EXPECT_EQ(server.wait(10000), 0);
    const std::string log = server.log();
    EXPECT_NE(log.find(": Drain: no match left; stopping\n"), std::string::npos) << log;
    EXPECT_NE(log.find(": Enet server destroyed\n: Enet server deinitialized\n: ## Ending log\n"), std::string::npos);
}

TEST(Drain, TheDeadlineStopsAMatchThatGoesOn) {
    ServerProcess server(ServerOptions{.arguments = {"--drain", "2"}});
    ASSERT_TRUE(server.start());
    TestClient a, b;
    ASSERT_NE(startMatch(server.port(), {&a, &b}, {"Ann", "Bob"}), 0u);
    kill(server.pid(), SIGTERM);
    ASSERT_TRUE(server.waitForLog(": Drain: no new games; 1 matches running"));
    EXPECT_EQ(server.wait(10000), 0);
    const std::string log = server.log();
    EXPECT_NE(log.find(": Drain: the deadline has passed with 1 matches running; stopping\n"), std::string::npos)
        << log;
    EXPECT_NE(log.find(": Enet server destroyed\n"), std::string::npos);
    // The players were disconnected the orderly way.
    EXPECT_FALSE(a.quiet(500) && a.connected());
}

TEST(Drain, TheKeyStartsItASecondTermStopsAtOnceAndWithoutDrainATermStops) {
    ServerProcess server(ServerOptions{.arguments = {"--drain", "600"}});
    ASSERT_TRUE(server.start());
    TestClient a, b;
    ASSERT_NE(startMatch(server.port(), {&a, &b}, {"Ann", "Bob"}), 0u);
    server.sendKeys("q");
    ASSERT_TRUE(server.waitForLog(": Drain: no new games; 1 matches running, stopping when they end or in 600 seconds\n"));
    EXPECT_EQ(server.wait(300), -1);
    kill(server.pid(), SIGTERM);
    EXPECT_EQ(server.wait(10000), 0);
    EXPECT_NE(server.log().find(": Enet server destroyed\n"), std::string::npos);

    // Without --drain the key is ignored and SIGTERM stops.
    ServerProcess plain;
    ASSERT_TRUE(plain.start());
    TestClient c, d;
    ASSERT_NE(startMatch(plain.port(), {&c, &d}, {"Cid", "Dan"}), 0u);
    plain.sendKeys("q");
    EXPECT_TRUE(c.quiet(300));
    EXPECT_EQ(plain.stop(SIGTERM), 0);
    EXPECT_EQ(plain.log().find("Drain"), std::string::npos);
}

TEST(Options, EveryOptionOfTheHelpIsInTheOperationsGuide) {
    ServerProcess p(ServerOptions{.arguments = {"--help"}});
    p.launch();
    ASSERT_EQ(p.wait(), 0);
    const std::string help = p.consoleOutput();
    const std::string docs = readWholeFile(std::filesystem::path(LOCKSTEP_SOURCE_DIR) / "docs/operations.md");
    std::set<std::string> options;
    const std::regex option("--[a-z][a-z-]*");
    for (auto it = std::sregex_iterator(help.begin(), help.end(), option); it != std::sregex_iterator(); ++it)
        options.insert(it->str());
    EXPECT_TRUE(options.count("--drain")) << help;
    for (const std::string& o : options) EXPECT_NE(docs.find("`" + o), std::string::npos) << o;
}

namespace {
ServerOptions agonesServer(const StandInSidecar& sidecar, std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), {"--agones", "--agones-health", "1"});
    return ServerOptions{.environment = {"AGONES_SDK_HTTP_PORT=" + std::to_string(sidecar.port())},
                         .arguments = arguments};
}
// The body of the last call to the path, "" when none came.
std::string lastBody(const std::vector<SidecarRecord>& calls, const std::string& path) {
    std::string body;
    for (const SidecarRecord& r : calls)
        if (r.path == path) body = r.body;
    return body;
}
const std::string kPlayers = "/v1beta1/counters/players", kRooms = "/v1beta1/counters/rooms";
}  // namespace

TEST(Agones, ReadyLabelHealthCountersAsPlayersComeAndGoAndShutdownAfterTheDrain) {
    StandInSidecar sidecar;
    ServerProcess server(agonesServer(sidecar, {"--drain", "30"}));
    ASSERT_TRUE(server.start());
    ASSERT_TRUE(sidecar.waitFor([](const auto& calls) {
        return std::count_if(calls.begin(), calls.end(), [](const SidecarRecord& r) { return r.path == "/health"; }) >= 2;
    }));
    std::vector<SidecarRecord> calls = sidecar.calls();
    ASSERT_GE(calls.size(), 4u);
    EXPECT_EQ(calls[0].method + " " + calls[0].path, "POST /ready");
    EXPECT_EQ(calls[1].method + " " + calls[1].path, "PUT /metadata/label");
    EXPECT_EQ(calls[1].body, "{\"key\":\"lockstep-version\",\"value\":\"" LOCKSTEP_VERSION "\"}");
    EXPECT_EQ(lastBody(calls, kPlayers), R"({"count":"0","capacity":"1024"})");
    EXPECT_EQ(lastBody(calls, kRooms), R"({"count":"0","capacity":"128"})");
    for (const SidecarRecord& r : calls) {
        if (r.path == kPlayers || r.path == kRooms) {
            EXPECT_EQ(r.method, "PATCH");
        }
        if (r.path == "/ready" || r.path == "/health") {
            EXPECT_EQ(r.method + r.body, "POST{}");
        }
    }
    EXPECT_NE(server.log().find(": Agones: the sidecar is at 127.0.0.1:" + std::to_string(sidecar.port()) + "\n"),
              std::string::npos);

    TestClient a, b;
    ASSERT_NE(startMatch(server.port(), {&a, &b}, {"Ann", "Bob"}), 0u);
    EXPECT_TRUE(sidecar.waitFor([](const auto& calls) {
        return lastBody(calls, kPlayers) == R"({"count":"2","capacity":"1024"})" &&
               lastBody(calls, kRooms) == R"({"count":"1","capacity":"128"})";
    })) << lastBody(sidecar.calls(), kPlayers);

    kill(server.pid(), SIGTERM);
    ASSERT_TRUE(server.waitForLog(": Drain: no new games; 1 matches running"));
    EXPECT_EQ(server.wait(500), -1);
    EXPECT_EQ(sidecar.count("POST", "/shutdown"), 0u);
    a.send(kControl, words({3, 1}));
    b.send(kControl, words({3, 1}));
    EXPECT_EQ(server.wait(10000), 0);
    const std::vector<std::string> names = sidecar.callNames();
    EXPECT_EQ(names.back(), "POST /shutdown");
    EXPECT_EQ(sidecar.count("POST", "/shutdown"), 1u);
    EXPECT_EQ(sidecar.count("POST", "/ready"), 1u);
    EXPECT_EQ(server.log().find("Agones: the sidecar has not"), std::string::npos);
}

TEST(Agones, ASidecarThatStartsLaterIsReachedAndItsAbsenceIsLoggedOnce) {
    StandInSidecar sidecar(0, /*down=*/true);
    ServerProcess server(agonesServer(sidecar, {}));
    ASSERT_TRUE(server.start());
    ASSERT_TRUE(server.waitForLog(": Agones: POST /ready reached no sidecar at 127.0.0.1:" +
                                  std::to_string(sidecar.port())));
    // The game is served meanwhile.
    TestClient a;
    ASSERT_TRUE(a.connect(server.port()));
    a.send(kText, text("hi"));
    EXPECT_EQ(a.nextOn(kText), text("hi"));
    std::this_thread::sleep_for(std::chrono::milliseconds(1500));  // several tries
    EXPECT_EQ(countOf(server.log(), ": Agones: "), 2u) << server.log();

    sidecar.start();
    ASSERT_TRUE(server.waitForLog(": Agones: the sidecar answers again after ", 1, 8000)) << server.log();
    ASSERT_TRUE(sidecar.waitFor([](const auto& calls) { return !calls.empty(); }));
    EXPECT_EQ(sidecar.callNames().front(), "POST /ready");
    EXPECT_TRUE(sidecar.waitFor([](const auto& calls) { return lastBody(calls, kPlayers) == R"({"count":"1","capacity":"1024"})"; }));
    EXPECT_EQ(server.stop(SIGINT), 0);
    EXPECT_EQ(sidecar.callNames().back(), "POST /shutdown");
    EXPECT_EQ(countOf(server.log(), ": Agones: "), 3u) << server.log();
}

TEST(Agones, ASlowOrFailingSidecarHoldsUpNeitherTheRelayNorTheStop) {
    StandInSidecar sidecar;
    sidecar.setDelay(std::chrono::milliseconds(1500));
    ServerProcess server(agonesServer(sidecar, {}));
    ASSERT_TRUE(server.start());
    TestClient a, b;
    ASSERT_NE(startMatch(server.port(), {&a, &b}, {"Ann", "Bob"}), 0u);
    auto relayed = [&](std::uint32_t step) {
        a.send(kOrders, order(step, 0, 7, "go"));
        return awaitOn(b, kOrders, [step](const Bytes& m) { return wordAt(m, 1) == step && wordAt(m, 3) == 0; }, 1000)
            .has_value();
    };
    for (std::uint32_t step = 10; step < 15; ++step) EXPECT_TRUE(relayed(step)) << step;
    EXPECT_GE(sidecar.calls().size(), 1u);
    EXPECT_EQ(server.log().find(": Agones: POST"), std::string::npos);  // slow, but answering

    sidecar.setDelay(std::chrono::milliseconds(0));
    sidecar.setStatus(500);
    ASSERT_TRUE(server.waitForLog(" answered 500; calls are retried with back-off", 1, 8000)) << server.log();
    const std::size_t before = sidecar.calls().size();
    for (std::uint32_t step = 20; step < 25; ++step) EXPECT_TRUE(relayed(step)) << step;
    std::this_thread::sleep_for(std::chrono::milliseconds(1000));
    EXPECT_GE(sidecar.calls().size(), before + 1);  // tried again
    EXPECT_EQ(countOf(server.log(), " answered 500"), 1u) << server.log();

    EXPECT_EQ(server.stop(SIGINT), 0);
    EXPECT_NE(server.log().find(": Agones: the sidecar has not taken every call; stopping without it\n"),
              std::string::npos);
}
