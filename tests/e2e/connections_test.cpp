// Who may connect: the ban list, the peers one address may hold, and a
// reload that bans a peer already connected.

#include "support/e2e_support.h"

using e2e::words;

namespace {
// A room list asked for and answered.
bool served(TestClient& c) {
    c.send(0, words({10, 1, 0}));
    return c.nextOn(0).has_value();
}
}  // namespace

TEST(Connections, TheBannedAndOneAddressTooManyAreRefusedAndAReloadCutsOffTheNewlyBanned) {
    ServerProcess server;
    server.writeFile("settings/limits.conf", "max_peers_per_address = 2\n");
    server.writeFile("server_data/bans.txt", "# who may not play\n127.0.0.2\n127.0.0.300\n");
    ASSERT_TRUE(server.start());
    ASSERT_TRUE(server.waitForLog("Bans: 1 entries"));
    EXPECT_EQ(server.consoleErrors(), "lockstep-server: ./server_data/bans.txt line 3: not an IPv4 or IPv6 address: "
                                      "\"127.0.0.300\"; line ignored\n");

    TestClient banned("127.0.0.2"), first, second, third;
    EXPECT_FALSE(banned.connect(server.port(), 1500));
    EXPECT_TRUE(server.waitForLog("Refused connect from 127.0.0.2: banned\n"));
    ASSERT_TRUE(first.connect(server.port()));
    ASSERT_TRUE(second.connect(server.port()));
    EXPECT_FALSE(third.connect(server.port(), 1500));
    EXPECT_TRUE(server.waitForLog("Refused connect from 127.0.0.1: 2 peers from this address already"));
    EXPECT_TRUE(served(first));
    EXPECT_TRUE(served(second));

    server.writeFile("server_data/bans.txt", "127.0.0.1/32\n");
    kill(server.pid(), SIGHUP);
    EXPECT_TRUE(server.waitForLog("Disconnected 127.0.0.1:" + std::to_string(first.localPort())));
    EXPECT_TRUE(server.waitForLog("Disconnected 127.0.0.1:" + std::to_string(second.localPort())));
    ASSERT_TRUE(banned.connect(server.port()));
    EXPECT_TRUE(served(banned));
    server.sendKeys("b");
    EXPECT_TRUE(server.waitForLog("Bans: 1 entries; "));
    EXPECT_EQ(server.stop(), 0);
}
