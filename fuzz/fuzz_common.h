#pragma once
// A server without sockets for the fuzz targets: fake peers, every outgoing
// packet recorded (and dropped), log lines discarded, files under a scratch
// data root.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include <enet/enet.h>

#include "app/server.h"
#include "protocol/wire.h"

class FuzzServer {
public:
    explicit FuzzServer(std::size_t peerCount = 9);
    ~FuzzServer();
    Server server;
    ENetPeer* peer(std::size_t i) { return peers_[i % peers_.size()].get(); }
    std::size_t peerCount() const { return peers_.size(); }
    void connect(std::size_t i);
    void disconnect(std::size_t i);
    void receive(std::size_t i, std::uint8_t channel, const std::uint8_t* data, std::size_t size);
    std::size_t sentPackets = 0;

private:
    std::vector<std::unique_ptr<ENetPeer>> peers_;
};

// Once per process: a scratch data root and a fixed clock.
void fuzzProcessSetup();
