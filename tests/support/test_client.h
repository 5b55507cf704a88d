#pragma once
// A game client for tests: real ENet over 127.0.0.1.

#include <cstdint>
#include <deque>
#include <functional>
#include <optional>
#include <utility>

#include <enet/enet.h>

#include "protocol/wire.h"

class TestClient {
public:
    TestClient();
    ~TestClient();
    TestClient(const TestClient&) = delete;
    TestClient& operator=(const TestClient&) = delete;

    bool connect(std::uint16_t port, int timeoutMs = 3000);
    void send(std::uint8_t channel, ByteView bytes);
    // The next message on channel; messages on other channels stay queued.
    std::optional<Bytes> nextOn(std::uint8_t channel, int timeoutMs = 2000);
    // True when nothing is queued after servicing for ms.
    bool quiet(int ms = 300);
    // Graceful disconnect; waits for the acknowledgement.
    void disconnect(int timeoutMs = 2000);
    // The client's own port, as the server sees it.
    std::uint16_t localPort() const { return host_->address.port; }

private:
    bool serviceUntil(int ms, const std::function<bool()>& done);
    ENetHost* host_ = nullptr;
    ENetPeer* peer_ = nullptr;
    bool connected_ = false;
    std::deque<std::pair<std::uint8_t, Bytes>> inbox_;
};
