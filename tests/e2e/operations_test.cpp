#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <csignal>
#include <filesystem>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>

#include <httplib.h>

#include "support/server_process.h"
#include "support/test_client.h"

namespace fs = std::filesystem;

namespace {
std::uint16_t freeTcpPort() {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr);
    socklen_t len = sizeof addr;
    getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len);
    close(fd);
    return ntohs(addr.sin_port);
}

ServerOptions withArguments(std::vector<std::string> arguments) {
    ServerOptions o;
    o.arguments = std::move(arguments);
    return o;
}
}  // namespace

TEST(Options, HelpAndVersionExitZero) {
    ServerProcess version(withArguments({"--version"}));
    version.launch();
    EXPECT_EQ(version.wait(), 0);
    EXPECT_EQ(version.consoleOutput().rfind("lockstep-server ", 0), 0u);

    ServerProcess help(withArguments({"--help"}));
    help.launch();
    EXPECT_EQ(help.wait(), 0);
    EXPECT_NE(help.consoleOutput().find("--data-root"), std::string::npos);
    EXPECT_NE(help.consoleOutput().find("--metrics"), std::string::npos);
    EXPECT_FALSE(fs::exists(help.root() + "/server.log"));
}

TEST(Options, WrongOptionsExitTwoWithOneLineBeforeTheLogIsTouched) {
    for (auto args : std::vector<std::vector<std::string>>{{"--bogus"},
                                                           {"--data-root", "/nonexistent/lockstep"},
                                                           {"--metrics", "no-port"},
                                                           {"--metrics", "127.0.0.1:99999"},
                                                           {"stray"}}) {
        ServerProcess server(withArguments(args));
        server.writeFile("server.log", "untouched\n");
        server.launch();
        EXPECT_EQ(server.wait(), 2) << args[0];
        std::string err = server.consoleErrors();
        EXPECT_EQ(countOf(err, "\n"), 1u) << err;
        EXPECT_EQ(err.rfind("lockstep-server: ", 0), 0u) << err;
        EXPECT_EQ(server.log(), "untouched\n");
    }
}

TEST(Options, DataRootIsEnteredAndGetsItsTree) {
    ServerProcess server(withArguments({"--data-root", "instance"}));
    std::uint16_t port = freePort();
    server.writeFile("instance/settings/server.config", std::to_string(port) + "\n\n0\n");
    server.launch();
    // The log lives in the instance, not in the working directory.
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (server.readFile("instance/server.log").find("Enet server created at 0:" + std::to_string(port)) ==
               std::string::npos &&
           std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    std::string log = server.readFile("instance/server.log");
    EXPECT_NE(log.find(": path: ./\n"), std::string::npos) << log;
    EXPECT_NE(log.find("Enet server created at 0:" + std::to_string(port)), std::string::npos) << log;
    EXPECT_TRUE(fs::is_directory(server.root() + "/instance/server_data/update_data"));
    EXPECT_TRUE(fs::is_directory(server.root() + "/instance/server_data/announcements"));
    EXPECT_EQ(server.stop(SIGTERM), 0);
    EXPECT_FALSE(fs::exists(server.root() + "/server.log"));
}

TEST(Notify, ReadyStatusAndStoppingReachTheServiceManager) {
    std::string path = "/tmp/lockstep-notify-" + std::to_string(getpid());
    unlink(path.c_str());
    int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::snprintf(addr.sun_path, sizeof addr.sun_path, "%s", path.c_str());
    ASSERT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
    timeval tv{5, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);

    ServerOptions options;
    options.environment = {"NOTIFY_SOCKET=" + path};
    ServerProcess server(options);
    server.launch();
    std::vector<std::string> got;
    auto receive = [&] {
        char buf[512];
        ssize_t n = recv(fd, buf, sizeof buf, 0);
        if (n > 0) got.emplace_back(buf, static_cast<std::size_t>(n));
        return n > 0;
    };
    ASSERT_TRUE(receive());
    EXPECT_EQ(got[0], "READY=1");
    EXPECT_TRUE(server.waitForLog("Enet server created at"));  // READY comes once the host is open
    ASSERT_TRUE(receive());
    EXPECT_EQ(got[1], "STATUS=0 peers, 0 rooms, 0 matches running");
    kill(server.pid(), SIGTERM);
    bool stopping = false;
    while (!stopping && receive()) stopping = got.back() == "STOPPING=1";
    EXPECT_TRUE(stopping);
    EXPECT_EQ(server.wait(), 0);
    close(fd);
    unlink(path.c_str());
}

TEST(Metrics, EndpointCountsAScriptedSession) {
    std::uint16_t httpPort = freeTcpPort();
    ServerProcess server(withArguments({"--metrics", "127.0.0.1:" + std::to_string(httpPort)}));
    ASSERT_TRUE(server.start());
    TestClient a;
    ASSERT_TRUE(a.connect(server.port()));
    a.send(1, Bytes{'h', 'i', 0});
    ASSERT_TRUE(a.nextOn(1));
    a.send(0, Bytes{1, 2});  // too short for its type word
    ASSERT_TRUE(server.waitForLog("|||| Malformed "));
    std::this_thread::sleep_for(std::chrono::milliseconds(1200));  // gauges are published every second

    httplib::Client http("127.0.0.1", httpPort);
    auto res = http.Get("/metrics");
    ASSERT_TRUE(res);
    EXPECT_EQ(res->status, 200);
    const std::string& body = res->body;
    EXPECT_NE(body.find("\nlockstep_peers_connected 1\n"), std::string::npos) << body;
    EXPECT_NE(body.find("\nlockstep_rooms 0\n"), std::string::npos);
    EXPECT_NE(body.find("lockstep_messages_received_total{channel=\"1\",name=\"text\"} 1\n"), std::string::npos);
    EXPECT_NE(body.find("lockstep_bytes_received_total{channel=\"1\",name=\"text\"} 3\n"), std::string::npos);
    EXPECT_NE(body.find("lockstep_messages_sent_total{channel=\"1\",name=\"text\"} 1\n"), std::string::npos);
    EXPECT_NE(body.find("lockstep_messages_received_total{channel=\"0\",name=\"lobby\"} 1\n"), std::string::npos);
    EXPECT_NE(body.find("\nlockstep_malformed_dropped_total 1\n"), std::string::npos);
    EXPECT_NE(body.find("# TYPE lockstep_step_completion_seconds histogram"), std::string::npos);
    EXPECT_NE(body.find("\nlockstep_uptime_seconds "), std::string::npos);
    EXPECT_EQ(http.Get("/other")->status, 404);
    EXPECT_EQ(server.stop(), 0);
}

TEST(Signals, Usr1DumpsAndUsr2ReportsWithoutAConsole) {
    ServerProcess server;
    ASSERT_TRUE(server.start());
    kill(server.pid(), SIGUSR1);
    ASSERT_TRUE(server.waitForLog("Dumped events to ./server_data/stats/keypress_dump.events"));
    EXPECT_NE(server.log().find(": Dumping stats to keypress_dump\n: Dumped stats to "
                                "./server_data/stats/keypress_dump.serverstats\n"),
              std::string::npos);
    // The start event may already have gone to a periodic dump, so only the
    // statistics block is certain.
    EXPECT_EQ(server.readFile("server_data/stats/keypress_dump.serverstats").rfind("Stat dump after ", 0), 0u);

    kill(server.pid(), SIGUSR2);
    ASSERT_TRUE(server.waitForLog("Total send: "));
    // The network report, then the load report (no rooms: two empty lines).
    std::string log = server.log();
    std::size_t net = log.find(": Bytes received: 0, (0 kB, 0 MB)\n");
    ASSERT_NE(net, std::string::npos);
    std::size_t tail = log.find(": In ", log.find("Total send: ", net));
    ASSERT_NE(tail, std::string::npos);
    EXPECT_NE(log.find("\n: \n: \n: \n", tail), std::string::npos) << log;
    EXPECT_EQ(server.stop(SIGTERM), 0);
}
