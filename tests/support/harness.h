#pragma once
// The server without sockets: fake peers, packets handed straight to the
// dispatcher, and every outgoing packet recorded.

#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <enet/enet.h>

#include "core/server.h"
#include "protocol/wire.h"

struct SentPacket {
    ENetPeer* peer = nullptr;
    std::uint8_t channel = 0;
    Bytes data;
};

class Harness {
public:
    explicit Harness(std::size_t peerCount = 9);
    ~Harness();
    Harness(const Harness&) = delete;
    Harness& operator=(const Harness&) = delete;

    Server server;

    // Fake peer i at 10.0.0.(i+1), port 5000 + i.
    ENetPeer* peer(std::size_t i) { return peers_[i].get(); }
    void connect(std::size_t i);
    void disconnect(std::size_t i);
    void receive(std::size_t i, std::uint8_t channel, const Bytes& bytes);
    // The per-step room work (empty-room deletion, start check, delay controller).
    void step();

    // Everything sent since the last take, in order.
    std::vector<SentPacket> takeSent();
    // Of those, what one peer got.
    std::vector<SentPacket> takeSentTo(std::size_t i);
    // Log texts queued since the last take.
    std::vector<std::string> takeLogs();

private:
    std::vector<std::unique_ptr<ENetPeer>> peers_;
    std::vector<SentPacket> sent_;
};

// Bytes from 32-bit words.
Bytes words(std::initializer_list<std::uint32_t> values);
