#pragma once
// The limits on what one client, one address or the whole host may make the
// server hold or do. Every default is far above what a real client needs, so
// none fires for one; an operator tunes them in settings/limits.conf (or the
// file named by --limits), re-read on SIGHUP. A value of 0 turns a limit off.

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

// The groups of messages that are budgeted apart, so that a flood of one
// kind never spends the allowance of another.
enum class Group : std::uint8_t { lobby, text, orders, reports, events, update };
inline constexpr std::size_t kGroupCount = 6;
inline constexpr const char* kGroupNames[kGroupCount] = {"lobby", "text", "orders", "reports", "events", "update"};

// A token bucket's shape: tokens come back at perSecond up to burst.
struct Rate {
    std::uint64_t perSecond = 0;
    std::uint64_t burst = 0;
    bool operator==(const Rate&) const = default;
};

inline constexpr std::uint64_t kMiB = 1024 * 1024;

struct Limits {
    // Messages per group. A player sends a few lobby messages a second when
    // busiest; a match sends one order per step per player plus a few more
    // (20 steps a second), so orders get some hundred times that.
    std::array<Rate, kGroupCount> messages{{
        {100, 1000},   // lobby
        {20, 200},     // text
        {2000, 20000}, // orders and match control
        {2, 20},       // reports
        {200, 2000},   // events
        {100, 1000},   // update requests
    }};
    // Bytes received in reports and update requests: a report carries a
    // snapshot and a screenshot of a few MiB at most.
    Rate reportBytes{8 * kMiB, 64 * kMiB};
    Rate updateBytes{kMiB, 8 * kMiB};
    // Dropping over budget is the answer to a burst; a client that stays
    // over budget this long is flooding and is disconnected.
    std::uint64_t overbudgetDisconnectSeconds = 30;
    // Malformed and unknown messages are a client's bug or an attack; the
    // first few are logged in full, then one line a minute with the count.
    std::uint64_t malformedLinesPerPeer = 10;

    // Bytes queued for sending to one peer that does not take them: the
    // largest update file (32 MiB) and room list replies fit many times.
    std::uint64_t maxOutgoingBytesPerPeer = 96 * kMiB;
    // Bytes received from one peer but not yet whole (fragments) or not yet
    // handled: one largest packet.
    std::uint64_t maxWaitingBytesPerPeer = 32 * kMiB;
    // The same over all peers together; the peer holding most is dropped.
    std::uint64_t maxWaitingBytesTotal = 512 * kMiB;
    // What the peers of one address may send together: each peer's budget
    // above, this many times over. A household or a café shares an address,
    // but its players do not each flood; 64 flooders from one address then
    // get no more than this many honest players would.
    std::uint64_t addressBudgetMultiple = 8;
    // Bytes the server sends in answer to a peer's requests (the room list,
    // the announcements): a request of a few bytes must not buy megabytes. A
    // client that lists a full server every second needs some 200 KiB a
    // second.
    Rate replyBytes{4 * kMiB, 32 * kMiB};
    // Lobby chat over all senders together, counted as the bytes sent out
    // (a line times its recipients): what a line to the lobby costs grows
    // with the lobby, and a few senders must not take the host's whole
    // upload. A thousand people in the lobby reading a line a second from
    // each of a few talkers need far less.
    Rate lobbyChatBytes{4 * kMiB, 16 * kMiB};
    // A recipient with more than this queued and unacknowledged loses lobby
    // chat lines (counted) instead of being cut off later for falling
    // behind: chat is the one thing a slow reader can do without.
    std::uint64_t chatDropQueuedBytes = 1 * kMiB;
    // Rooms: twice the peers, so that it never fires for real players, and
    // each room is a few hundred bytes and a line in every room list. A
    // player creates a room a few times an hour; a café a few a minute.
    std::uint64_t maxRooms = 2048;
    // Failed joins into a room with a password, a minute: per peer and room,
    // and per room from everyone. A player mistypes a few times; past these
    // the joins are refused unchecked, so a password cannot be guessed.
    std::uint64_t joinFailuresPerPeerPerMinute = 5;
    std::uint64_t joinFailuresPerRoomPerMinute = 30;
    std::uint64_t roomsPerPeerPerMinute = 10;
    std::uint64_t roomsPerAddressPerMinute = 60;

    // Update file data handed to the transport, all downloading peers
    // together: the bound on what the update service holds in memory and
    // what the transport walks on every turn. Peers take turns, one reply
    // each at a time, so a peer that does not take its reply holds that
    // reply and nothing more.
    std::uint64_t downloadBytesInFlight = 8 * kMiB;
    // The same for the peers of one address together, so that a few
    // connections from one address cannot take the whole of it.
    std::uint64_t downloadBytesInFlightPerAddress = 16 * kMiB;
    // A download that takes no acknowledgement for this long is from a
    // peer that has gone or stopped reading: it is cut off. A slow line
    // still acknowledges something every few seconds.
    std::uint64_t downloadStallSeconds = 20;
    // File requests waiting in one peer's queue: a client asks for the
    // files of one update at a time.
    std::uint64_t downloadRequestsPerPeer = 1024;
    // The storage worker: jobs and bytes one peer's messages may have
    // queued (reports, resync evidence, the manifest version). A report of
    // the largest size always fits a peer with nothing queued.
    std::uint64_t workerJobsPerPeer = 16;
    std::uint64_t workerBytesPerPeer = 64 * kMiB;
    // The announcements, read once and sent whole to every client that asks:
    // entries past this many bytes are left out (logged when read).
    std::uint64_t announcementsMaxBytes = 1 * kMiB;

    // Recordings (--record): one match's file, the whole directory (the
    // oldest recordings go first), and what one recording may hold in
    // memory before the disk (past it the recording stops, the match goes
    // on). A match of eight players makes some 100 KiB a minute.
    std::uint64_t recordingMaxBytes = 256 * kMiB;
    std::uint64_t recordingsMaxBytes = 8 * 1024 * kMiB;
    std::uint64_t recordingPendingBytes = 8 * kMiB;

    // Rejoin and spectators (--rejoin, --spectators). A snapshot of a game's
    // state is asked of another player and waited for a few seconds; games
    // of this kind hold their state in a few MiB at most. Streams read back
    // hold a run of 64 KiB each: the bound in flight lets 256 run at once,
    // and what ENet may hold for a receiver keeps a loopback stream at full
    // speed. A player rejoining after a drop presents its token once or
    // twice; ten wrong ones a minute from one address is guessing.
    std::uint64_t snapshotWaitMs = 5000;
    std::uint64_t snapshotMaxBytes = 4 * kMiB;
    std::uint64_t catchupBytesInFlight = 16 * kMiB;
    std::uint64_t catchupQueueBytes = 256 * 1024;
    std::uint64_t rejoinFailuresPerAddressPerMinute = 10;

    // Connections: a household or an internet café shares one address, but
    // not 64 players; a client reconnecting in a loop connects a few times a
    // minute.
    std::uint64_t maxPeersPerAddress = 64;
    std::uint64_t connectsPerAddressPerMinute = 120;

    // Disk: feedback and determinism reports together. A player files a
    // handful in a session.
    std::uint64_t reportsBytesPerDay = 1024 * kMiB;
    std::uint64_t reportsPerPeerPerHour = 20;
    // Resync evidence (two files per player and desync) kept per room.
    std::uint64_t resyncBytesPerRoom = 256 * kMiB;

    // The metrics endpoint, read once at start (0: the default). Scrapers
    // ask one request at a time, send at once and read at once; a
    // scraper's request is well under 1 KiB.
    std::uint64_t metricsWorkers = 4;
    std::uint64_t metricsWaitingConnections = 16;
    std::uint64_t metricsRequestBytes = 64 * 1024;
    std::uint64_t metricsTimeoutSeconds = 5;
    std::uint64_t metricsRequestSeconds = 10;
    std::uint64_t metricsRequestsPerConnection = 100;
    bool operator==(const Limits&) const = default;
};

// Reads "name = value" lines ('#' starts a comment; values are whole numbers,
// optionally followed by KiB, MiB or GiB) over the defaults. A line naming no
// known limit or carrying a bad value is ignored, with a problem naming the
// line number.
Limits parseLimits(const std::string& text, const std::string& fileName, std::vector<std::string>& problems);

// The names the file knows, for the documentation and the tests.
std::vector<std::string> limitNames();
