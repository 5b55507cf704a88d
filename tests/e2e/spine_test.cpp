#include <gtest/gtest.h>

#include <csignal>
#include <thread>

#include "protocol/messages.h"
#include "support/files.h"
#include "support/server_process.h"
#include "support/test_client.h"

TEST(Binary, StartsLogsAndStopsInOrderOnSigint) {
    ServerProcess server;
    server.writeFile("server.log", "an earlier run's log\n");
    ASSERT_TRUE(server.start());
    EXPECT_EQ(server.stop(SIGINT), 0);
    auto log = splitLines(server.log());
    ASSERT_GE(log.size(), 9u);
    std::vector<std::string> head(log.begin(), log.begin() + 6);
    EXPECT_EQ(head, (std::vector<std::string>{": ## Starting log", ": path: ./", ": Enet initialized", "",
                                              ": Server protocol version: 4",
                                              ": Enet server created at 0:" + std::to_string(server.port())}));
    std::vector<std::string> tail(log.end() - 3, log.end());
    EXPECT_EQ(tail, (std::vector<std::string>{": Enet server destroyed", ": Enet server deinitialized",
                                              ": ## Ending log"}));
    // The console carries the same lines, uncoloured when it is not a terminal.
    EXPECT_EQ(server.consoleOutput(), server.log());
}

TEST(Binary, SigtermIsAnOrderlyStopToo) {
    ServerProcess server;
    ASSERT_TRUE(server.start());
    EXPECT_EQ(server.stop(SIGTERM), 0);
    EXPECT_NE(server.log().find(": ## Ending log\n"), std::string::npos);
}

TEST(Binary, ParentDirectoryIsTheDataRootWhenServerDataIsThere) {
    ServerProcess server(ServerOptions{.createServerData = false});
    // The binary runs in root/, which has no server_data; its parent has none
    // either, so the prefix stays "../" and the log goes one level up.
    ASSERT_TRUE((server.launch(), true));
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    EXPECT_EQ(server.stop(SIGINT), 0);
    EXPECT_EQ(server.consoleOutput().rfind(": ## Starting log\n: path: ../\n", 0), 0u);
}

TEST(Binary, SecondServerOnTheSamePortExitsWithStatus1) {
    ServerProcess first;
    ASSERT_TRUE(first.start());
    ServerProcess second(ServerOptions{.port = first.port()});
    second.launch();
    EXPECT_EQ(second.wait(5000), 1);
    EXPECT_NE(second.log().find(": #### ERROR \n|||| An error occurred while trying to create an ENet server "
                                "host.\n\n####\n"),
              std::string::npos)
        << second.log();
    EXPECT_EQ(first.stop(), 0);
}

TEST(Binary, ConnectAndDisconnectLinesWithTwoClients) {
    ServerProcess server;
    ASSERT_TRUE(server.start());
    TestClient a, b;
    ASSERT_TRUE(a.connect(server.port()));
    ASSERT_TRUE(server.waitForLog("1 peers now"));
    ASSERT_TRUE(b.connect(server.port()));
    ASSERT_TRUE(server.waitForLog("2 peers now"));
    a.disconnect();
    ASSERT_TRUE(server.waitForLog("Disconnected 127.0.0.1:" + std::to_string(a.localPort())));
    ASSERT_TRUE(server.waitForLog("1 peers now", 2));
    std::string log = server.log();
    std::string expected = ": A new client connected from 127.0.0.1:" + std::to_string(a.localPort()) +
                           "\n: 1 peers now\n: A new client connected from 127.0.0.1:" +
                           std::to_string(b.localPort()) + "\n: 2 peers now\n: Disconnected 127.0.0.1:" +
                           std::to_string(a.localPort()) + "\n: 1 peers now\n";
    EXPECT_NE(log.find(expected), std::string::npos) << log;
    EXPECT_EQ(server.stop(), 0);
}

TEST(Binary, TextRelayAndErrorsOverRealEnet) {
    ServerProcess server(ServerOptions{.description = "E2E"});
    ASSERT_TRUE(server.start());
    TestClient a, b;
    ASSERT_TRUE(a.connect(server.port()));
    ASSERT_TRUE(b.connect(server.port()));
    a.send(1, Bytes{'h', 'e', 'y', 0, 'z'});
    auto at = a.nextOn(1);
    auto bt = b.nextOn(1);
    ASSERT_TRUE(at && bt);
    EXPECT_EQ(*at, (Bytes{'h', 'e', 'y', 0}));
    EXPECT_EQ(*bt, (Bytes{'h', 'e', 'y', 0}));

    // Malformed packets on every channel leave it serving.
    for (std::uint8_t ch = 0; ch < 7; ++ch) a.send(ch, Bytes{7});
    a.send(1, Bytes{'o', 'k', 0});
    auto after = b.nextOn(1);
    ASSERT_TRUE(after);
    EXPECT_EQ(*after, (Bytes{'o', 'k', 0}));
    EXPECT_TRUE(server.waitForLog("|||| Malformed "));
    EXPECT_EQ(server.stop(), 0);
}

TEST(Binary, KeysThroughAPipeAndTheEndOfInputKeepItRunning) {
    ServerProcess server;
    ASSERT_TRUE(server.start());
    server.sendKeys("xRTD");
    server.closeInput();
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    EXPECT_EQ(server.wait(0), -1);
    TestClient a;
    EXPECT_TRUE(a.connect(server.port()));
    EXPECT_EQ(server.stop(), 0);
}
