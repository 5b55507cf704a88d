// The benchmarks' receive-to-send instrument on real ENet over loopback: an
// order's kernel time stamp, its hand-over, and the trace of its batch.

#include <gtest/gtest.h>

#include <string>

#include <enet/enet.h>

#include "platform/receive_stamps.h"

namespace {
constexpr std::uint8_t kOrders = 3;

// Services both hosts until the server hands over an event of the type.
bool serviceUntil(ENetHost* server, ENetHost* client, ENetEventType type, ENetEvent& got) {
    for (int i = 0; i < 2000; ++i) {
        ENetEvent e;
        while (enet_host_service(client, &e, 0) > 0)
            if (e.type == ENET_EVENT_TYPE_RECEIVE) enet_packet_destroy(e.packet);
        if (enet_host_service(server, &got, 1) > 0 && got.type == type) return true;
    }
    return false;
}
}  // namespace

TEST(ReceiveStamps, AnOrderIsTimedFromItsDatagramToItsHandOverAndItsBatchTraced) {
    ASSERT_EQ(enet_initialize(), 0);
    ENetAddress address{};
    enet_address_set_host(&address, "127.0.0.1");
    ENetHost* server = enet_host_create(&address, 2, 7, 0, 0);
    ENetHost* client = enet_host_create(nullptr, 1, 7, 0, 0);
    ASSERT_NE(server, nullptr);
    ASSERT_NE(client, nullptr);
    ReceiveStamps stamps(kOrders);
    stamps.install(server);
    address.port = server->address.port;
    ENetPeer* toServer = enet_host_connect(client, &address, 7, 0);
    ENetEvent event;
    ASSERT_TRUE(serviceUntil(server, client, ENET_EVENT_TYPE_CONNECT, event));

    // Another channel is not timed; the order channel is.
    const std::uint8_t bytes[12] = {1};
    enet_peer_send(toServer, 0, enet_packet_create(bytes, sizeof bytes, ENET_PACKET_FLAG_RELIABLE));
    ASSERT_TRUE(serviceUntil(server, client, ENET_EVENT_TYPE_RECEIVE, event));
    stamps.handled(event.channelID, event.peer);
    enet_packet_destroy(event.packet);
    // The loop waits, the order comes, the loop wakes and takes it.
    stamps.mark(TurnMark::waitBegin, 2);
    enet_peer_send(toServer, kOrders, enet_packet_create(bytes, sizeof bytes, ENET_PACKET_FLAG_RELIABLE));
    ASSERT_TRUE(serviceUntil(server, client, ENET_EVENT_TYPE_RECEIVE, event));
    stamps.mark(TurnMark::waitEnd);
    stamps.mark(TurnMark::turnBegin);
    stamps.handled(event.channelID, event.peer);
    enet_packet_destroy(event.packet);
    stamps.mark(TurnMark::drainEnd, 1);
    stamps.sent();
    stamps.sent();  // nothing more was handled: nothing more is timed
    stamps.uninstall();

    const std::string summary = stamps.summary();
    EXPECT_EQ(summary.rfind("1 messages, p50 ", 0), 0u) << summary;
    EXPECT_NE(summary.find(", 0 unstamped"), std::string::npos) << summary;
    // The batch's marks from the one before its datagram came to its own
    // hand-over, in order.
    const std::vector<std::string> slow = stamps.slowestBatches();
    ASSERT_EQ(slow.size(), 1u);
    EXPECT_NE(slow[0].find(" us, 1 messages: "), std::string::npos) << slow[0];
    const std::size_t wait = slow[0].find(" wait(2) "), woken = slow[0].find(" woken "),
                      turn = slow[0].find(" turn "), drained = slow[0].find(" drained(1) "),
                      sent = slow[0].find(" sent(1)");
    EXPECT_LT(wait, woken) << slow[0];
    EXPECT_LT(woken, turn) << slow[0];
    EXPECT_LT(turn, drained) << slow[0];
    EXPECT_LT(drained, sent) << slow[0];
    const std::vector<std::string> anatomy = stamps.anatomy();
    ASSERT_EQ(anatomy.size(), 3u);
    EXPECT_EQ(anatomy[2].rfind("all: 1 batches, ", 0), 0u) << anatomy[2];
    EXPECT_NE(anatomy[2].find("arrived while the loop slept 100%"), std::string::npos) << anatomy[2];
    EXPECT_NE(anatomy[2].find("events handed over 1.0"), std::string::npos) << anatomy[2];

    enet_host_destroy(client);
    enet_host_destroy(server);
    enet_deinitialize();
}
