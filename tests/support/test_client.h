#pragma once
// A game client for tests: real ENet over 127.0.0.1.

#include <cstdint>
#include <deque>
#include <optional>
#include <string>

#include <enet/enet.h>

#include "protocol/wire.h"

struct Received {
    std::uint8_t channel = 0;
    Bytes data;
};

class TestClient {
public:
    TestClient();
    ~TestClient();
    TestClient(const TestClient&) = delete;
    TestClient& operator=(const TestClient&) = delete;

    bool connect(std::uint16_t port, int timeoutMs = 3000);
    void send(std::uint8_t channel, ByteView bytes);
    void send(std::uint8_t channel, const Bytes& bytes) { send(channel, ByteView(bytes)); }
    // The next message on any channel, in arrival order.
    std::optional<Received> next(int timeoutMs = 2000);
    // The next message on channel; messages on other channels stay queued.
    std::optional<Bytes> nextOn(std::uint8_t channel, int timeoutMs = 2000);
    // True when nothing arrives (on any channel) for ms milliseconds.
    bool quiet(int ms = 300);
    // Drops everything received so far (after servicing for ms).
    void drain(int ms = 200);
    // Graceful disconnect; waits for the acknowledgement.
    void disconnect(int timeoutMs = 2000);
    // Drops the connection without telling the server.
    void reset();
    bool connected() const { return peer_ != nullptr; }
    // The client's own port, as the server sees it.
    std::uint16_t localPort() const;
    ENetPeer* peer() const { return peer_; }

private:
    void pump(int ms);
    ENetHost* host_ = nullptr;
    ENetPeer* peer_ = nullptr;
    std::deque<Received> inbox_;
};

// The message type word, or 0xFFFFFFFF when the bytes are too short.
std::uint32_t messageType(const Bytes& bytes);
// The text of a text-channel message.
std::string textOf(const Bytes& bytes);
