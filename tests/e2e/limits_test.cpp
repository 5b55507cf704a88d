// The limits an operator sets, firing on a client that misbehaves while an
// honest one goes on being served.

#include "support/e2e_support.h"

using e2e::createRoom;
using e2e::words;

TEST(Limits, FileProblemsReloadAndAPeerThatTakesNothingIsCutOff) {
    ServerProcess server;
    server.writeFile("settings/limits.conf",
                     "# queued replies to one peer\nmax_outgoing_bytes_per_peer = 64 KiB  # small\n\nbogus = 1\n"
                     "lobby_burst = lots\n");
    ASSERT_TRUE(server.start());
    ASSERT_TRUE(server.waitForLog("lobby_burst"));
    const std::string unknown = "./settings/limits.conf line 4: unknown limit \"bogus\"; line ignored";
    const std::string bad = "./settings/limits.conf line 5: bad value \"lots\" for lobby_burst; line ignored";
    EXPECT_EQ(server.consoleErrors(), "lockstep-server: " + unknown + "\nlockstep-server: " + bad + "\n");
    EXPECT_NE(server.log().find(unknown), std::string::npos);

    TestClient honest, greedy;
    ASSERT_TRUE(honest.connect(server.port()));
    honest.send(0, createRoom(std::string(1000, 'n')));
    ASSERT_TRUE(honest.nextOn(0));
    ASSERT_TRUE(greedy.connect(server.port()));
    // Room lists asked for and never acknowledged: about 70 KiB of replies.
    for (int i = 0; i < 64; ++i) greedy.send(0, words({10, 1, 0}));
    ASSERT_TRUE(server.waitForLog(" does not take what is sent to it: "));
    ASSERT_TRUE(server.waitForLog("Disconnected 127.0.0.1:" + std::to_string(greedy.localPort())));
    honest.send(0, words({10, 1, 0}));
    EXPECT_TRUE(honest.nextOn(0));

    server.writeFile("settings/limits.conf", "text_burst = 1 MiB\ntext_per_second = 1 TiB\n");
    kill(server.pid(), SIGHUP);
    EXPECT_TRUE(server.waitForLog("./settings/limits.conf line 2: bad value \"1 TiB\" for text_per_second"));
    EXPECT_EQ(server.stop(), 0);
}

TEST(Limits, ARoomFloodIsDroppedAndCutOffWhileTheMatchPlaysOn) {
    ServerProcess server;
    server.writeFile("settings/limits.conf", "overbudget_disconnect_seconds = 1\n");
    ASSERT_TRUE(server.start());
    TestClient a, b, flooder;
    ASSERT_NE(e2e::startMatch(server.port(), {&a, &b}, {"a", "b"}), 0u);
    ASSERT_TRUE(flooder.connect(server.port()));
    const Bytes create = createRoom("flood"), leave = words({4, 1});
    for (std::uint32_t step = 1; step <= 30; ++step) {
        for (int i = 0; i < 100; ++i) {
            flooder.send(0, create);
            flooder.send(0, leave);
        }
        a.send(3, e2e::order(step, 0, 1, ""));
        ASSERT_EQ(e2e::wordAt(b.nextOn(3).value_or(Bytes{}), 1), step);
        flooder.quiet(50);
    }
    EXPECT_FALSE(flooder.connected());
    EXPECT_TRUE(server.waitForLog(" stayed over budget for more than 1 s. Disconnecting it"));
    EXPECT_NE(server.log().find("over budget, dropped: lobby "), std::string::npos);
}
