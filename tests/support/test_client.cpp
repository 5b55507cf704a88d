#include "support/test_client.h"

#include <chrono>
#include <cstdlib>

namespace {
struct EnetOnce {
    EnetOnce() {
        if (enet_initialize() != 0) std::abort();
    }
};
void ensureEnet() { static EnetOnce once; }

using Clock = std::chrono::steady_clock;
int remainingMs(Clock::time_point deadline) {
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
    return left > 0 ? static_cast<int>(left) : 0;
}
}  // namespace

TestClient::TestClient() {
    ensureEnet();
    // Bound explicitly so that the client knows its own port.
    ENetAddress local;
    enet_address_set_host(&local, "127.0.0.1");
    local.port = 0;
    host_ = enet_host_create(&local, 1, 7, 0, 0);
    if (host_ == nullptr) std::abort();
}

TestClient::~TestClient() {
    if (peer_ != nullptr) enet_peer_reset(peer_);
    enet_host_destroy(host_);
}

bool TestClient::connect(std::uint16_t port, int timeoutMs) {
    ENetAddress address;
    enet_address_set_host(&address, "127.0.0.1");
    address.port = port;
    ENetPeer* peer = enet_host_connect(host_, &address, 7, 0);
    if (peer == nullptr) return false;
    auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
    ENetEvent event;
    while (remainingMs(deadline) > 0) {
        int r = enet_host_service(host_, &event, static_cast<enet_uint32>(std::min(remainingMs(deadline), 50)));
        if (r > 0 && event.type == ENET_EVENT_TYPE_CONNECT) {
            peer_ = peer;
            // The server registers the peer only once our acknowledgement
            // arrives; send it now rather than at the next service.
            enet_host_flush(host_);
            return true;
        }
        if (r > 0 && event.type == ENET_EVENT_TYPE_RECEIVE) enet_packet_destroy(event.packet);
    }
    enet_peer_reset(peer);
    return false;
}

void TestClient::send(std::uint8_t channel, ByteView bytes) {
    ENetPacket* packet = enet_packet_create(bytes.data(), bytes.size(), ENET_PACKET_FLAG_RELIABLE);
    enet_peer_send(peer_, channel, packet);
    enet_host_flush(host_);
}

void TestClient::pump(int ms) {
    ENetEvent event;
    int r = enet_host_service(host_, &event, static_cast<enet_uint32>(ms));
    while (r > 0) {
        if (event.type == ENET_EVENT_TYPE_RECEIVE) {
            inbox_.push_back(Received{event.channelID, Bytes(event.packet->data, event.packet->data + event.packet->dataLength)});
            enet_packet_destroy(event.packet);
        } else if (event.type == ENET_EVENT_TYPE_DISCONNECT) {
            peer_ = nullptr;
        }
        r = enet_host_service(host_, &event, 0);
    }
}

std::optional<Received> TestClient::next(int timeoutMs) {
    auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
    while (inbox_.empty()) {
        int left = remainingMs(deadline);
        if (left == 0) return std::nullopt;
        pump(std::min(left, 20));
    }
    Received r = std::move(inbox_.front());
    inbox_.pop_front();
    return r;
}

std::optional<Bytes> TestClient::nextOn(std::uint8_t channel, int timeoutMs) {
    auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
    for (;;) {
        for (auto it = inbox_.begin(); it != inbox_.end(); ++it) {
            if (it->channel == channel) {
                Bytes data = std::move(it->data);
                inbox_.erase(it);
                return data;
            }
        }
        int left = remainingMs(deadline);
        if (left == 0) return std::nullopt;
        pump(std::min(left, 20));
    }
}

bool TestClient::quiet(int ms) {
    auto deadline = Clock::now() + std::chrono::milliseconds(ms);
    while (remainingMs(deadline) > 0) pump(std::min(remainingMs(deadline), 20));
    return inbox_.empty();
}

void TestClient::drain(int ms) {
    quiet(ms);
    inbox_.clear();
}

void TestClient::disconnect(int timeoutMs) {
    if (peer_ == nullptr) return;
    enet_peer_disconnect(peer_, 0);
    auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
    ENetEvent event;
    while (remainingMs(deadline) > 0) {
        int r = enet_host_service(host_, &event, 20);
        if (r > 0 && event.type == ENET_EVENT_TYPE_RECEIVE) enet_packet_destroy(event.packet);
        if (r > 0 && event.type == ENET_EVENT_TYPE_DISCONNECT) {
            peer_ = nullptr;
            return;
        }
    }
    enet_peer_reset(peer_);
    peer_ = nullptr;
}

void TestClient::reset() {
    if (peer_ == nullptr) return;
    enet_peer_reset(peer_);
    peer_ = nullptr;
}

std::uint16_t TestClient::localPort() const { return host_->address.port; }

std::uint32_t messageType(const Bytes& bytes) {
    if (bytes.size() < 4) return 0xFFFFFFFFu;
    return loadU32(bytes.data());
}

std::string textOf(const Bytes& bytes) {
    std::string s(bytes.begin(), bytes.end());
    if (!s.empty() && s.back() == '\0') s.pop_back();
    return s;
}
