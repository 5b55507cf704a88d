// The gate in front of ENet: the ban list, the connect datagram as ENet
// reads it, and the limits per address.

#include <gtest/gtest.h>

#include <cstring>

#include "admission/connections.h"
#include "log/log.h"
#include "protocol/send.h"
#include "support/harness.h"

namespace {
Address16 ip(const char* text) {
    Address16 a{};
    bool isIPv4 = false;
    EXPECT_TRUE(parseIpAddress(text, a, isIPv4)) << text;
    return a;
}
}  // namespace

TEST(Bans, AddressesRangesIPv6AndBadLinesByTheirNumbers) {
    std::vector<std::string> problems;
    const BanList bans = parseBans("# banned\n10.1.2.3\n\n 192.168.0.0/16  # lan\n2001:db8::/32\nfe80::1\n"
                                   "300.1.2.3\n10.0.0.0/33\n10.9.9.9/\n",
                                   "bans.txt", problems);
    EXPECT_EQ(bans.entries, 4u);
    EXPECT_EQ(problems, (std::vector<std::string>{
                            "bans.txt line 7: not an IPv4 or IPv6 address: \"300.1.2.3\"; line ignored",
                            "bans.txt line 8: bad prefix length \"33\" (0 to 32): \"10.0.0.0/33\"; line ignored",
                            "bans.txt line 9: bad prefix length \"\" (0 to 32): \"10.9.9.9/\"; line ignored"}));
    for (const char* in : {"10.1.2.3", "::ffff:10.1.2.3", "192.168.255.1", "2001:db8:ffff::5", "fe80::1"})
        EXPECT_TRUE(isBanned(bans, ip(in))) << in;
    for (const char* out : {"10.1.2.4", "192.169.0.1", "2001:db9::", "fe80::2", "10.0.0.1"})
        EXPECT_FALSE(isBanned(bans, ip(out))) << out;
    const BanList everyIPv4 = parseBans("0.0.0.0/0", "b", problems);
    EXPECT_TRUE(isBanned(everyIPv4, ip("1.2.3.4")));
    EXPECT_FALSE(isBanned(everyIPv4, ip("2001:db8::1")));
}

TEST(Connections, OnlyAWholeConnectToNoPeerIsOne) {
    // Peer 0xFFF with the sent time, a CONNECT with its acknowledge flag,
    // connect ID 0x0A0B0C0D in its wire order.
    std::vector<std::uint8_t> d{0x8F, 0xFF, 0, 0, 0x82, 0xFF, 0, 1};
    d.resize(4 + 48);
    d[4 + 40] = 0x0A, d[4 + 41] = 0x0B, d[4 + 42] = 0x0C, d[4 + 43] = 0x0D;
    const std::uint32_t id = *connectIdOf(d.data(), d.size());
    EXPECT_EQ(std::memcmp(&id, "\x0A\x0B\x0C\x0D", 4), 0);
    EXPECT_FALSE(connectIdOf(d.data(), d.size() - 1));
    std::vector<std::uint8_t> shortHeader(d.begin() + 2, d.end());
    shortHeader[0] = 0x0F, shortHeader[1] = 0xFF;
    EXPECT_TRUE(connectIdOf(shortHeader.data(), shortHeader.size()));
    for (auto [at, byte] : {std::pair{1, 0xFE}, {0, 0xCF}, {4, 0x86}}) {
        std::vector<std::uint8_t> other = d;
        other[at] = static_cast<std::uint8_t>(byte);  // a peer's, compressed, a reliable send
        EXPECT_FALSE(connectIdOf(other.data(), other.size())) << at;
    }
    EXPECT_FALSE(connectIdOf(nullptr, 0));
}

TEST(Connections, PeersPerAddressAndATokenBucketThatRefills) {
    ConnectionGate gate{{}, 2, 3};
    ENetPeer peers[3]{};
    ENetHost host{};
    host.peers = peers;
    host.peerCount = 3;
    const ENetAddress from{0x0100007F, 5000}, other{0x0200007F, 5000};
    peers[0].state = ENET_PEER_STATE_CONNECTED, peers[0].address = from, peers[0].connectID = 7;
    EXPECT_EQ(admitConnect(gate, host, from, 8, 1), Refusal::none);
    peers[1].state = ENET_PEER_STATE_CONNECTING, peers[1].address = from;
    EXPECT_EQ(admitConnect(gate, host, from, 9, 2), Refusal::peersPerAddress);
    EXPECT_EQ(admitConnect(gate, host, from, 7, 3), Refusal::none);  // a repeat of peer 0's connect
    EXPECT_EQ(admitConnect(gate, host, from, 9, 4), Refusal::peersPerAddress);
    EXPECT_EQ(admitConnect(gate, host, from, 9, 5), Refusal::connectRate);
    EXPECT_EQ(admitConnect(gate, host, other, 1, 6), Refusal::none);
    // One token back after 20 s: the peers are the limit again.
    EXPECT_EQ(admitConnect(gate, host, from, 9, 20'000'005), Refusal::peersPerAddress);
    std::vector<std::string> problems;
    gate.bans = parseBans("127.0.0.2", "b", problems);
    EXPECT_EQ(admitConnect(gate, host, other, 2, 20'000'006), Refusal::banned);
    std::string log;
    for (const std::string& line : takeQueuedLogTexts()) log += line + "\n";
    EXPECT_EQ(log, "Refused connect from 127.0.0.1: 2 peers from this address already (max_peers_per_address)\n"
                   "Refused connect from 127.0.0.2: banned\n");
}

TEST(Connections, APeerBannedDuringItsHandshakeIsDroppedUnregistered) {
    Harness h;
    std::vector<std::string> problems;
    h.server.connections.bans = parseBans("10.0.0.2", "b", problems);
    std::vector<ENetPeer*> dropped;
    setDisconnectRecorder([&](ENetPeer* p) { dropped.push_back(p); });
    h.connect(0);
    h.connect(1);
    setDisconnectRecorder(nullptr);
    EXPECT_EQ(dropped, std::vector<ENetPeer*>{h.peer(1)});
    EXPECT_EQ(h.server.peers, std::set<ENetPeer*>{h.peer(0)});
    EXPECT_EQ(h.takeLogs().back(), "Refused connect from 10.0.0.2: banned");
}
