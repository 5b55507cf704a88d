#pragma once
// A game client for tests: real ENet to 127.0.0.1, from 127.0.0.1 or another
// loopback address when a test needs a second one.

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <deque>
#include <functional>
#include <optional>
#include <utility>

#include <enet/enet.h>

#include "protocol/wire.h"

class TestClient {
public:
    explicit TestClient(const char* localHost = "127.0.0.1") {
        static const bool initialised = enet_initialize() == 0;
        // Bound explicitly so that the client knows its own port.
        ENetAddress local{};
        enet_address_set_host(&local, localHost);
        host_ = initialised ? enet_host_create(&local, 1, 7, 0, 0) : nullptr;
        if (host_ == nullptr) std::abort();
    }
    ~TestClient() {
        if (peer_ != nullptr) enet_peer_reset(peer_);
        enet_host_destroy(host_);
    }
    TestClient(const TestClient&) = delete;
    TestClient& operator=(const TestClient&) = delete;

    bool connect(std::uint16_t port, int timeoutMs = 3000) {
        ENetAddress address{};
        enet_address_set_host(&address, "127.0.0.1");
        address.port = port;
        peer_ = enet_host_connect(host_, &address, 7, 0);
        if (peer_ != nullptr && serviceUntil(timeoutMs, [this] { return connected_; })) {
            // The server registers the peer only once our acknowledgement
            // arrives; send it now rather than at the next service.
            enet_host_flush(host_);
            return true;
        }
        if (peer_ != nullptr) enet_peer_reset(peer_);
        peer_ = nullptr;
        return false;
    }

    // Nothing, once the server has disconnected the client.
    void send(std::uint8_t channel, ByteView bytes) {
        if (peer_ == nullptr) return;
        enet_peer_send(peer_, channel, enet_packet_create(bytes.data(), bytes.size(), ENET_PACKET_FLAG_RELIABLE));
        enet_host_flush(host_);
    }

    // The next message on channel; messages on other channels stay queued.
    std::optional<Bytes> nextOn(std::uint8_t channel, int timeoutMs = 2000) {
        auto it = inbox_.end();
        auto found = [&] {
            it = std::find_if(inbox_.begin(), inbox_.end(), [&](const auto& m) { return m.first == channel; });
            return it != inbox_.end();
        };
        if (!serviceUntil(timeoutMs, found)) return std::nullopt;
        Bytes data = std::move(it->second);
        inbox_.erase(it);
        return data;
    }

    // True when nothing is queued after servicing for ms.
    bool quiet(int ms = 300) {
        serviceUntil(ms, [] { return false; });
        return inbox_.empty();
    }

    // Graceful disconnect; waits for the acknowledgement.
    void disconnect(int timeoutMs = 2000) {
        if (peer_ == nullptr) return;
        enet_peer_disconnect(peer_, 0);
        if (!serviceUntil(timeoutMs, [this] { return peer_ == nullptr; })) enet_peer_reset(peer_);
        peer_ = nullptr;
    }

    bool connected() const { return peer_ != nullptr; }
    // The client's own port, as the server sees it.
    std::uint16_t localPort() const { return host_->address.port; }

private:
    // Services the host, queueing what arrives, until done() or the time-out.
    bool serviceUntil(int ms, const std::function<bool()>& done) {
        auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
        while (!done()) {
            if (std::chrono::steady_clock::now() >= deadline) return false;
            ENetEvent event;
            for (int r = enet_host_service(host_, &event, 10); r > 0; r = enet_host_service(host_, &event, 0)) {
                if (event.type == ENET_EVENT_TYPE_CONNECT) connected_ = true;
                if (event.type == ENET_EVENT_TYPE_DISCONNECT) peer_ = nullptr;
                if (event.type != ENET_EVENT_TYPE_RECEIVE) continue;
                inbox_.emplace_back(event.channelID,
                                    Bytes(event.packet->data, event.packet->data + event.packet->dataLength));
                enet_packet_destroy(event.packet);
            }
        }
        return true;
    }

    ENetHost* host_ = nullptr;
    ENetPeer* peer_ = nullptr;
    bool connected_ = false;
    std::deque<std::pair<std::uint8_t, Bytes>> inbox_;
};
