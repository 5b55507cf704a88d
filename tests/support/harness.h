#pragma once
// The server without sockets: fake peers, packets handed straight to the
// dispatch table, every outgoing packet recorded, and after every event the
// invariants the session fuzzer checks.

#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include <enet/enet.h>

#include "app/server.h"
#include "protocol/messages.h"
#include "support/files.h"

// The channel of a Sent that stands for the peer's disconnection.
inline constexpr std::uint8_t kDisconnectedMark = 255;

// One packet the server sent: to which fake peer, on which channel, what.
struct Sent {
    std::size_t peer;
    std::uint8_t channel;
    Bytes bytes;
    bool operator==(const Sent&) const = default;
};
void PrintTo(const Sent& s, std::ostream* os);

class Harness {
public:
    explicit Harness(std::size_t peerCount = 9);
    ~Harness();
    Harness(const Harness&) = delete;
    Harness& operator=(const Harness&) = delete;

    Server server;

    // Fake peer i at 10.0.0.(i+1), port 5000 + i.
    ENetPeer* peer(std::size_t i) { return &peers_[i]; }
    void connect(std::size_t i);
    void disconnect(std::size_t i);
    void receive(std::size_t i, std::uint8_t channel, const Bytes& bytes);
    template <typename M>
    void lobby(std::size_t i, const M& message) {
        receive(i, kLobbyChannel, encode(message));
    }
    // The per-step room work (empty-room deletion, start check, delay controller).
    void step();

    // Everything sent since the last take, in order.
    std::vector<Sent> takeSent();
    // Log texts queued since the last take.
    std::vector<std::string> takeLogs();

    // Peers 0..n-1 connected, a room created by peer 0 and joined by the
    // others, everyone named P<i> and ready; the traffic and logs taken.
    Room& roomOfReady(std::size_t n);
    // The room as its match runs, without the start's traffic: closed,
    // started and running, and due its first tick of the delay controller.
    void markRunning(Room& room);
    // roomOfReady(n), running.
    Room& runningRoom(std::size_t n);
    Room& room(std::uint32_t id) { return *server.rooms.byId.at(id); }

private:
    void checkInvariants();
    // One array, as a host holds its peers: the registry's order by address
    // is the peers' order, as it is on a real host.
    std::vector<ENetPeer> peers_;
    std::vector<Sent> sent_;
};

// A player's setup as the lobby tests send it.
PlayerSetup setupOf(std::uint32_t slot, std::uint32_t ready, const std::string& name, std::uint32_t tag = 0,
                    std::uint32_t location = 0);
// The same packet to each of the peers, in that order.
std::vector<Sent> toEach(std::initializer_list<std::size_t> peers, std::uint8_t channel, const Bytes& bytes);
std::vector<Sent> operator+(std::vector<Sent> a, const std::vector<Sent>& b);
Bytes words(std::initializer_list<std::uint32_t> values);
// The checksum order (type 901) of a step.
Bytes checksumOrder(std::uint32_t step, std::uint32_t value);

// An empty data root under /tmp for the test's lifetime; the previous
// prefix and the real clock come back when it goes.
class TempDataRoot {
public:
    TempDataRoot();
    ~TempDataRoot();
    std::filesystem::path operator/(const std::string& relative) const { return root_ / relative; }

private:
    std::string savedPrefix_;
    std::filesystem::path root_;
};
