#pragma once
// Receive-to-send latency measured inside the process, for benchmarks: from
// the kernel's receive time of a datagram that carries a message on one
// channel to the moment the process has handed what that message caused to
// the socket. The clients' own scheduling is not in it, so two relays' tails
// compare as they are. Off unless asked for: it costs an ioctl per datagram.
//
// ENet reads datagrams itself, so the kernel's time stamp is taken in the
// host's intercept hook, right after ENet's receive, with SIOCGSTAMPNS (the
// stamp of the last datagram read from the socket). The hook that was there
// before still runs after it.

#include <cstdint>
#include <string>
#include <vector>

#include <enet/enet.h>

class ReceiveStamps {
public:
    explicit ReceiveStamps(std::uint8_t channel) : channel_(channel) {}
    ReceiveStamps(const ReceiveStamps&) = delete;
    ReceiveStamps& operator=(const ReceiveStamps&) = delete;

    // One at a time: ENet's hook has no place for our state.
    void install(ENetHost* host);
    void uninstall();
    // A message on the channel from peer was handled: whatever it causes is
    // queued for sending from now on.
    void handled(std::uint8_t channel, ENetPeer* peer);
    // Everything queued so far has been handed to the socket.
    void sent();
    // "N messages, p50 … µs, p99 … µs, p99.9 … µs, max … µs".
    std::string summary();

private:
    static int intercept(ENetHost* host, ENetEvent* event);
    void stamp(const std::uint8_t* data, std::size_t size);

    std::uint8_t channel_;
    ENetHost* host_ = nullptr;
    ENetInterceptCallback previous_ = nullptr;
    // Per peer slot: the receive time (ns since the epoch) of the earliest
    // datagram with a message on the channel not yet handled; 0 when none.
    std::vector<std::int64_t> unhandled_;
    std::vector<std::int64_t> pending_;
    std::vector<std::uint32_t> nanos_;
    std::uint64_t unstamped_ = 0;
};
