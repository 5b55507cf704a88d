#include "support/harness.h"

#include <cstring>
#include <utility>

#include "core/dispatch.h"
#include "core/peers.h"
#include "log/log.h"
#include "protocol/send.h"

Harness::Harness(std::size_t peerCount) {
    for (std::size_t i = 0; i < peerCount; ++i) {
        auto p = std::make_unique<ENetPeer>();
        std::memset(p.get(), 0, sizeof(ENetPeer));
        std::uint8_t ip[4] = {10, 0, 0, static_cast<std::uint8_t>(i + 1)};
        std::memcpy(&p->address.host, ip, 4);
        p->address.port = static_cast<enet_uint16>(5000 + i);
        peers_.push_back(std::move(p));
    }
    setPacketRecorder([this](ENetPeer* peer, std::uint8_t channel, ByteView bytes) {
        sent_.push_back(SentPacket{peer, channel, Bytes(bytes.begin(), bytes.end())});
    });
    takeQueuedLogTexts();
}

Harness::~Harness() {
    for (ENetPeer* p : server.peers) {
        delete static_cast<PeerInfo*>(p->data);
        p->data = nullptr;
    }
    setPacketRecorder(nullptr);
    takeQueuedLogTexts();
}

void Harness::connect(std::size_t i) { handleConnect(server, peer(i)); }
void Harness::disconnect(std::size_t i) { handleDisconnect(server, peer(i)); }

void Harness::receive(std::size_t i, std::uint8_t channel, const Bytes& bytes) {
    server.bytesReceived += static_cast<std::uint32_t>(bytes.size());
    dispatchPacket(server, peer(i), channel, ByteView(bytes));
}

void Harness::step() { runRoomWork(server); }

std::vector<SentPacket> Harness::takeSent() { return std::exchange(sent_, {}); }

std::vector<SentPacket> Harness::takeSentTo(std::size_t i) {
    std::vector<SentPacket> mine, rest;
    for (auto& s : sent_) (s.peer == peer(i) ? mine : rest).push_back(std::move(s));
    sent_ = std::move(rest);
    return mine;
}

std::vector<std::string> Harness::takeLogs() { return takeQueuedLogTexts(); }

Bytes words(std::initializer_list<std::uint32_t> values) {
    Writer w;
    for (auto v : values) w.u32(v);
    return w.take();
}
