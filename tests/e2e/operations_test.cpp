// The binary as an operator meets it: its log from start to stop, the data
// root, options and exit statuses, the service manager, metrics and signals.

#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <tuple>
#include <unistd.h>

#include <httplib.h>

#include "support/e2e_support.h"

using e2e::text;

TEST(Binary, LogFromStartToStopConnectionsTextAndASecondServerOnThePort) {
    ServerProcess server;
    server.writeFile("server.log", "an earlier run's log\n");
    ASSERT_TRUE(server.start());
    TestClient a, b;
    ASSERT_TRUE(a.connect(server.port()));
    ASSERT_TRUE(server.waitForLog("1 peers now"));
    ASSERT_TRUE(b.connect(server.port()));
    ASSERT_TRUE(server.waitForLog("2 peers now"));

    // Clients in no room talk to everyone in no room, the sender included,
    // cut at the first NUL; malformed packets on every channel change nothing.
    a.send(1, Bytes{'h', 'e', 'y', 0, 'z'});
    EXPECT_EQ(a.nextOn(1), text("hey"));
    EXPECT_EQ(b.nextOn(1), text("hey"));
    for (std::uint8_t ch = 0; ch < 7; ++ch) a.send(ch, Bytes{7});
    a.send(1, text("ok"));
    EXPECT_EQ(b.nextOn(1), text("ok"));
    EXPECT_TRUE(server.waitForLog("|||| Malformed "));

    a.disconnect();
    ASSERT_TRUE(server.waitForLog("1 peers now", 2));
    const std::string ap = std::to_string(a.localPort()), bp = std::to_string(b.localPort());
    const std::string lines = withoutTimedDumps(server.log());
    EXPECT_NE(lines.find(": A new client connected from 127.0.0.1:" + ap + "\n: 1 peers now\n: A new client connected from "
                         "127.0.0.1:" + bp + "\n: 2 peers now\n"),
              std::string::npos)
        << server.log();
    EXPECT_NE(lines.find(": Disconnected 127.0.0.1:" + ap + "\n: 1 peers now\n"), std::string::npos) << server.log();

    // Started one directory below a data root, a server takes "../" for it,
    // reads the port there and, finding it taken, exits with status 1.
    // A port above 65535 and the parent directory as data root are warned of
    // on stderr only.
    ServerProcess second(ServerOptions{.directory = "run"});
    second.writeFile("settings/server.config", std::to_string(server.port() + 65536) + "\n");
    second.launch();
    EXPECT_EQ(second.wait(5000), 1);
    EXPECT_EQ(second.consoleErrors(), "lockstep-server: warning: no server_data/ here; the data root is the parent "
                                      "directory\nlockstep-server: warning: settings/server.config: port " +
                                          std::to_string(server.port() + 65536) + " is above 65535; listening on " +
                                          std::to_string(server.port()) + " (its low 16 bits)\nlockstep-server: cannot open "
                                          "UDP port " + std::to_string(server.port()) + "; is another server using it?\n");
    EXPECT_EQ(second.log().rfind(": ## Starting log\n: path: ../\n", 0), 0u) << second.log();
    EXPECT_NE(second.log().find(": #### ERROR \n|||| An error occurred while trying to create an ENet server "
                                "host.\n\n####\n"),
              std::string::npos);
    // The same failure with the metrics endpoint's thread running: still
    // status 1, the thread stopped rather than the process aborted.
    ServerProcess third(ServerOptions{.port = server.port(),
                                      .arguments = {"--metrics", "127.0.0.1:" + std::to_string(freePort(true))}});
    third.launch();
    EXPECT_EQ(third.wait(5000), 1) << third.consoleErrors();

    EXPECT_EQ(server.stop(SIGINT), 0);
    auto log = splitLines(withoutTimedDumps(server.log()));
    ASSERT_GE(log.size(), 9u);
    // Without a limits file or a ban list nothing else is said at start.
    EXPECT_EQ(log[6].rfind(": A new client connected from ", 0), 0u) << log[6];
    EXPECT_EQ(std::vector<std::string>(log.begin(), log.begin() + 6),
              (std::vector<std::string>{": ## Starting log", ": path: ./", ": Enet initialized", "",
                                        ": Server protocol version: 4",
                                        ": Enet server created at 0:" + std::to_string(server.port())}));
    EXPECT_EQ(std::vector<std::string>(log.end() - 3, log.end()),
              (std::vector<std::string>{": Enet server destroyed", ": Enet server deinitialized", ": ## Ending log"}));
    // The console carries the same lines, uncoloured when it is not a terminal.
    EXPECT_EQ(server.consoleOutput(), server.log());
    // Statistics are off: nothing is written at shutdown.
    EXPECT_FALSE(std::filesystem::exists(server.root() + "/close.serverstats"));
}

TEST(Options, PrintAndExitOrRefuseBeforeTheLogIsTouched) {
    for (const auto& [args, status, printed] : std::vector<std::tuple<std::vector<std::string>, int, std::string>>{
             {{"--version"}, 0, "lockstep-server "}, {{"--help"}, 0, "--data-root"}, {{"--help"}, 0, "--metrics"},
             {{"--bogus"}, 2, ""}, {{"--data-root", "/nonexistent/lockstep"}, 2, ""}, {{"--metrics", "no-port"}, 2, ""},
             {{"--metrics", "127.0.0.1:99999"}, 2, ""}, {{"stray"}, 2, ""}}) {
        ServerProcess p(ServerOptions{.arguments = args});
        p.writeFile("server.log", "untouched\n");
        p.launch();
        EXPECT_EQ(p.wait(), status) << args[0];
        EXPECT_EQ(p.log(), "untouched\n");
        EXPECT_NE(p.consoleOutput().find(printed), std::string::npos) << args[0];
        std::string err = p.consoleErrors();
        EXPECT_TRUE(status != 2 || (countOf(err, "\n") == 1 && err.rfind("lockstep-server: ", 0) == 0)) << err;
    }
}

TEST(Operations, DataRootFromElsewhereServiceManagerMetricsAndAnOrderlySigterm) {
    const std::string path = "/tmp/lockstep-notify-" + std::to_string(getpid());
    int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_un addr{AF_UNIX, {}};
    path.copy(addr.sun_path, sizeof addr.sun_path - 1);
    ASSERT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
    timeval tv{5, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    auto notice = [fd] {
        char buf[512];
        ssize_t n = recv(fd, buf, sizeof buf, 0);
        return n > 0 ? std::string(buf, static_cast<std::size_t>(n)) : std::string("<none>");
    };

    const std::uint16_t httpPort = freePort(true);
    ServerProcess server(ServerOptions{.directory = "elsewhere", .environment = {"NOTIFY_SOCKET=" + path, "WATCHDOG_USEC=300000"},
                                       .arguments = {"--data-root", "..", "--metrics",
                                                     "127.0.0.1:" + std::to_string(httpPort)}});
    server.launch();
    EXPECT_EQ(notice(), "READY=1");
    EXPECT_EQ(notice(), "STATUS=0 peers, 0 rooms, 0 matches running");
    // The data root given from elsewhere is entered and gets its tree.
    EXPECT_TRUE(server.waitForLog(": path: ./\n")) << server.log();
    EXPECT_TRUE(std::filesystem::is_directory(server.root() + "/server_data/update_data"));
    EXPECT_TRUE(std::filesystem::is_directory(server.root() + "/server_data/announcements"));
    EXPECT_FALSE(std::filesystem::exists(server.root() + "/elsewhere/server.log"));

    TestClient a;
    ASSERT_TRUE(a.connect(server.port()));
    a.send(1, text("hi"));
    ASSERT_TRUE(a.nextOn(1));
    a.send(0, Bytes{1, 2});  // too short for its type word
    ASSERT_TRUE(server.waitForLog("|||| Malformed "));
    std::this_thread::sleep_for(std::chrono::milliseconds(1200));  // gauges are published every second
    httplib::Client http("127.0.0.1", httpPort);
    auto res = http.Get("/metrics");
    ASSERT_TRUE(res);
    EXPECT_EQ(res->status, 200);
    for (const char* line : {"\nlockstep_peers_connected 1\n", "\nlockstep_rooms 0\n",
                             "lockstep_messages_received_total{channel=\"1\",name=\"text\"} 1\n",
                             "lockstep_received_bytes_total{channel=\"1\",name=\"text\"} 3\n",
                             "lockstep_messages_sent_total{channel=\"1\",name=\"text\"} 1\n",
                             "lockstep_messages_received_total{channel=\"0\",name=\"lobby\"} 1\n",
                             "\nlockstep_malformed_dropped_total 1\n",
                             "# TYPE lockstep_step_completion_seconds histogram", "\nlockstep_loop_turn_seconds_count ",
                             "\nlockstep_uptime_seconds ",
                             "\nlockstep_build_info{version=\"" LOCKSTEP_VERSION "\"} 1\n", "\nlockstep_loop_last_turn_age_seconds 0",
                             "\nprocess_open_fds ", "\nprocess_resident_memory_bytes ", "\nprocess_cpu_seconds_total "})
        EXPECT_NE(res->body.find(line), std::string::npos) << line << res->body;
    EXPECT_EQ(http.Get("/other")->status, 404);
    EXPECT_EQ(http.Get("/healthz")->body, "ok\n");
    EXPECT_EQ(http.Get("/readyz")->body, "ready\n");

    // SIGHUP after the log was moved away, as logrotate does: a new file.
    std::filesystem::rename(server.root() + "/server.log", server.root() + "/server.log.1");
    kill(server.pid(), SIGHUP);
    EXPECT_TRUE(server.waitForLog(": SIGHUP: the log file is reopened at its path; reloading the limits from ./settings/limits.conf, the bans from ./server_data/bans.txt and the announcements\n"));
    kill(server.pid(), SIGTERM);
    std::string last, all;
    while (last != "STOPPING=1" && last != "<none>") all += (last = notice()) + "\n";
    EXPECT_EQ(last, "STOPPING=1");
    EXPECT_NE(all.find("WATCHDOG=1\n"), std::string::npos);
    EXPECT_EQ(server.wait(), 0);
    EXPECT_NE(server.log().find(": Enet server destroyed\n: Enet server deinitialized\n: ## Ending log\n"),
              std::string::npos);
    close(fd);
    unlink(path.c_str());
}

TEST(Operations, MetricsOutlastSilentClientsAndRefuseBodiesUnread) {
    const std::uint16_t httpPort = freePort(true);
    ServerProcess server(ServerOptions{.arguments = {"--metrics", "127.0.0.1:" + std::to_string(httpPort)}});
    ASSERT_TRUE(server.start());
    auto openFds = [&] {
        auto fds = std::filesystem::directory_iterator("/proc/" + std::to_string(server.pid()) + "/fd");
        return std::distance(begin(fds), end(fds));
    };
    auto connectSending = [&](const std::string& bytes) {
        int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in addr{AF_INET, htons(httpPort), {htonl(INADDR_LOOPBACK)}, {}};
        EXPECT_EQ(connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
        timeval tv{10, 0};
        setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
        send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        return fd;
    };
    const auto before = openFds();
    // More clients that send half a request and then nothing than the
    // endpoint serves and keeps waiting together (4 + 16), and a body far
    // over the limit, announced and begun.
    std::vector<int> silent;
    for (int i = 0; i < 30; ++i) silent.push_back(connectSending("GET /metrics HTTP/1.1\r\nHost: a\r\n"));
    int post = connectSending("POST /metrics HTTP/1.1\r\nContent-Length: 500000000\r\n\r\n" + std::string(4096, 'x'));
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    EXPECT_LE(openFds(), before + 4 + 16 + 1);

    httplib::Client http("127.0.0.1", httpPort);
    http.set_connection_timeout(10);
    http.set_read_timeout(10);
    auto res = http.Get("/metrics");
    ASSERT_TRUE(res);
    EXPECT_EQ(res->status, 200);
    char answer[13] = {};
    EXPECT_EQ(recv(post, answer, 12, MSG_WAITALL), 12);
    EXPECT_STREQ(answer, "HTTP/1.1 405");
    for (int fd : silent) close(fd);
    close(post);
}

TEST(Console, AReaderThatStallsOrVanishesHoldsUpNeitherTheMatchNorTheStop) {
    for (Console console : {Console::Stalled, Console::Gone}) {
        ServerProcess server(ServerOptions{.console = console});
        // The flood is the point here: no budget or allowance of lines.
        server.writeFile("settings/limits.conf", "malformed_lines_per_peer = 0\nlobby_per_second = 0\n");
        ASSERT_TRUE(server.start());
        TestClient a, b;
        ASSERT_NE(e2e::startMatch(server.port(), {&a, &b}, {"A", "B"}), 0u);
        // Three lines each, far more than a pipe holds.
        for (int i = 0; i < 3000; ++i) a.send(0, Bytes{7});
        for (int i = 0; i < 400 && countOf(server.log(), "|||| Malformed ") < 3000; ++i) a.quiet(50);
        ASSERT_EQ(countOf(server.log(), "|||| Malformed "), 3000u);
        a.send(3, e2e::words({1, 5, 0}));
        b.send(3, e2e::words({1, 5, 1}));
        EXPECT_EQ(a.nextOn(3), e2e::words({1, 5, 1}));
        EXPECT_EQ(b.nextOn(3), e2e::words({1, 5, 1}));
        kill(server.pid(), SIGTERM);
        std::string shown = server.readConsolePipe();
        EXPECT_EQ(server.wait(), 0);
        EXPECT_EQ(splitLines(server.log()).back(), ": ## Ending log");
        if (console == Console::Stalled) {
            EXPECT_EQ(countOf(shown, " lines were not shown here: the console could not keep up (server.log has "
                                     "every line)\n"), 1u);
            EXPECT_EQ(shown.substr(shown.size() - 16), ": ## Ending log\n");
        }
    }
}
