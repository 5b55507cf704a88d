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

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include <enet/enet.h>

// Points of the loop's turn, marked so that the slowest batches can be told
// turn by turn: where the time between a datagram's arrival and its relay's
// hand-over went.
enum class TurnMark : std::uint8_t { waitBegin, waitEnd, turnBegin, flush, drainEnd, roomWorkBegin, roomWorkEnd, turnEnd };

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
    // The loop reached a point of its turn; arg is the point's count (events
    // handed over, messages sent), if it has one.
    void mark(TurnMark what, std::uint32_t arg = 0);
    // "N messages, p50 … µs, p99 … µs, p99.9 … µs, max … µs".
    std::string summary();
    // The slowest batches, worst first, one line each: the batch's worst
    // time, its size, and every mark from the kernel's receive of its oldest
    // datagram (and the mark just before) to its hand-over, in µs from that
    // receive.
    std::vector<std::string> slowestBatches();
    // What the slowest hundredth of the batches had in common, against all
    // batches: two lines, "slowest 1% ..." and "all ...".
    std::vector<std::string> anatomy();

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

    struct Mark {
        std::int64_t at = 0;
        std::uint32_t arg = 0;
        TurnMark what = TurnMark::turnEnd;
    };
    struct Batch {
        std::int64_t oldest = 0;
        std::int64_t worst = 0;
        std::size_t messages = 0;
        std::vector<Mark> marks;
    };
    // The latest marks: a slow batch's trace is taken from them when it is
    // sent, so a batch longer than this many marks shows only its end.
    std::array<Mark, 1024> marks_{};
    std::size_t nextMark_ = 0;
    // The slowest batches so far, at most kSlowBatches of them.
    std::vector<Batch> slowest_;
    // Where each batch's time went, from the marks of its window.
    struct Anatomy {
        std::uint32_t worst = 0;       // ns, its oldest message's time
        std::uint32_t wake = 0;        // ns from arrival to the loop's waking, if it slept
        std::uint32_t rooms = 0;       // ns of room work inside the window
        std::uint32_t handling = 0;    // ns from the turn that took it to its hand-over
        std::uint16_t events = 0;      // events handed over inside the window
        std::uint8_t arrived = 0;      // 0 the loop slept, 1 in room work, 2 busy otherwise
        std::uint8_t flushes = 0;      // hand-overs inside the window before its own
    };
    std::vector<Anatomy> anatomies_;
    // Files a batch's anatomy, and its trace when it is among the slowest.
    void traceBatch(std::int64_t now, std::int64_t oldest, std::size_t messages);
};
