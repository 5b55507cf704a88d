// flood: misbehaving clients, to measure what they cost the honest ones, and
// an honest updater that times its answers beside them.
//
//   flood --port P --mode MODE [--rate R] [--seconds S] [--peers N]
//         [--bind ADDR] [--file NAME] [--report-bytes B] [--line-bytes B]
//         [--hold-ms MS] [--check-seconds S] [--start-after S]
//
// orders:          takes a room of its own to a running match, then sends
//                  step-done orders at R a second (default 2,000: a hundred
//                  times a player's one order per step at 20 steps a second).
// lobby:           room-list requests at R a second (default 20,000).
// reports:         feedback reports carrying a B-byte snapshot (default
//                  1 MiB) at R a second (default 20, above what the server
//                  lets one peer file).
// chat:            N peers (default 31) in the lobby, each sending lines of
//                  --line-bytes (default 16,384 with the NUL, the largest
//                  text) on channel 1 at R a second each (default 20, the
//                  text budget of one peer).
// churn:           N peers (default 60), each sending CreateRoom then
//                  LeaveRoom, R lobby messages a second each (default 100,
//                  the lobby budget of one peer).
// update-check:    tracked events of type 101 (an update check, answered
//                  with the manifest version and the announcements) at R a
//                  second (default 200, the events budget of one peer).
// silent-download: N peers (default 1) that ask for --file and then stop
//                  servicing their ENet host: nothing they are sent is
//                  acknowledged. They stay silent for S seconds and vanish.
// vanish-download: rounds until S seconds have passed: N peers (default 16)
//                  ask for --file, take what comes for --hold-ms (default
//                  300), then disconnect at once in the middle of it; then
//                  one new peer asks for the file and waits for it, at most
//                  --check-seconds (default 10). Reports how many of those
//                  next downloaders got the file and how long they waited.
// updater:         the honest one: a ManifestRequest every 1/R s (default
//                  4 a second), each answer timed (FileData of the manifest,
//                  in the order asked). Reports requests, answers, answers
//                  within 1 s, and the latency p50/p99/max.
//
// All peers are ENet hosts bound to --bind (default 127.0.0.1; 127.0.0.2
// acts as a second address) and talk to the server on 127.0.0.1 only. They
// acknowledge what they are sent, as a client would (except silent-download),
// so what they cost is their traffic rather than a queue the server holds
// for them. Each peer hands ENet a new message only while less than
// --in-flight bytes of its own wait to be acknowledged: a client that queued
// a hundred 1 MiB reports a second regardless would spend a core walking its
// own queue of fragments and measure its own slowness, not the server's.
// Prints one line, "flood: ...", with what was sent and what came back.

#include <arpa/inet.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <deque>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <CLI/CLI.hpp>
#include <enet/enet.h>

#include "histogram.h"
#include "protocol.h"

namespace {

using namespace loadbot;
using Clock = std::chrono::steady_clock;

constexpr std::uint8_t kReportChannel = 4;
constexpr std::uint8_t kEventChannel = 5;

double secondsSince(Clock::time_point t) { return std::chrono::duration<double>(Clock::now() - t).count(); }

// Bytes handed to ENet and not yet acknowledged, per client: ENet frees a
// reliable packet once every fragment of it is.
void acknowledged(ENetPacket* packet) {
    *static_cast<std::size_t*>(packet->userData) -= packet->dataLength;
}

struct Flooder {
    ENetHost* host = nullptr;
    ENetPeer* peer = nullptr;
    bool connected = false;
    bool cutOff = false;
    std::size_t bytesInFlight = 0;
    std::uint64_t sent = 0, skipped = 0;

    Flooder() = default;
    Flooder(const Flooder&) = delete;
    ~Flooder() {
        if (host != nullptr) enet_host_destroy(host);
    }

    bool open(const std::string& bind, std::uint16_t port) {
        ENetAddress local{};
        if (enet_address_set_host_ip(&local, bind.c_str()) != 0) return false;
        local.port = 0;
        host = enet_host_create(&local, 1, kChannelCount, 0, 0);
        if (host == nullptr) return false;
        ENetAddress server{};
        server.host = htonl(INADDR_LOOPBACK);  // the only address this tool ever talks to
        server.port = port;
        peer = enet_host_connect(host, &server, kChannelCount, 0);
        return peer != nullptr;
    }
    bool send(std::uint8_t channel, const Bytes& bytes) {
        if (peer == nullptr || cutOff) return false;
        ENetPacket* packet = enet_packet_create(bytes.data(), bytes.size(), ENET_PACKET_FLAG_RELIABLE);
        packet->freeCallback = acknowledged;
        packet->userData = &bytesInFlight;
        bytesInFlight += bytes.size();
        if (enet_peer_send(peer, channel, packet) != 0) enet_packet_destroy(packet);
        return true;
    }
    // Services ENet for up to ms (0: once, without waiting); onReceive gets
    // the channel, the data and its length of every message.
    template <typename OnReceive>
    void service(int ms, OnReceive&& onReceive) {
        const auto end = Clock::now() + std::chrono::milliseconds(ms);
        ENetEvent event;
        do {
            for (int r = enet_host_service(host, &event, ms > 0 ? 1 : 0); r > 0;
                 r = enet_host_service(host, &event, 0)) {
                if (event.type == ENET_EVENT_TYPE_CONNECT) connected = true;
                if (event.type == ENET_EVENT_TYPE_DISCONNECT) cutOff = connected, peer = cutOff ? nullptr : peer;
                if (event.type == ENET_EVENT_TYPE_RECEIVE) {
                    onReceive(event.channelID, event.packet->data, event.packet->dataLength);
                    enet_packet_destroy(event.packet);
                }
            }
        } while (Clock::now() < end && !cutOff);
    }
    void service(int ms) {
        service(ms, [](std::uint8_t, const std::uint8_t*, std::size_t) {});
    }
    // Leaves at once, without waiting for the server to agree.
    void vanish() {
        if (peer != nullptr && !cutOff) enet_peer_disconnect_now(peer, 0);
        peer = nullptr;
    }
    void leave() {
        if (peer == nullptr || cutOff) return;
        enet_peer_disconnect(peer, 0);
        for (int i = 0; i < 100 && !cutOff; ++i) service(2);
    }
};

using Flooders = std::vector<std::unique_ptr<Flooder>>;

// Opens n clients and services them together until all are connected, at
// most 5 s; false if one is not.
bool connectAll(Flooders& all, std::size_t n, const std::string& bind, std::uint16_t port) {
    for (std::size_t i = 0; i < n; ++i) {
        all.push_back(std::make_unique<Flooder>());
        if (!all.back()->open(bind, port)) return false;
    }
    const auto deadline = Clock::now() + std::chrono::seconds(5);
    for (;;) {
        bool allIn = true;
        for (auto& f : all) {
            if (!f->connected) f->service(0);
            allIn = allIn && f->connected;
        }
        if (allIn) return true;
        if (Clock::now() > deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

// Graceful disconnects, served together for at most 300 ms.
void leaveAll(Flooders& all) {
    for (auto& f : all)
        if (f->peer != nullptr && !f->cutOff) enet_peer_disconnect(f->peer, 0);
    const auto deadline = Clock::now() + std::chrono::milliseconds(300);
    for (bool waiting = true; waiting && Clock::now() < deadline;) {
        waiting = false;
        for (auto& f : all)
            if (f->peer != nullptr && !f->cutOff) f->service(0), waiting = true;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

Bytes header(std::uint32_t type) {
    Bytes b;
    putU32(b, type);
    putU32(b, 1);
    return b;
}

Bytes feedbackReport(std::size_t snapshotBytes) {
    Bytes out = header(1);
    for (const char* text : {"flood", "", "data", "a flood of reports"}) putString(out, text);
    putU32(out, static_cast<std::uint32_t>(snapshotBytes));
    out.resize(out.size() + snapshotBytes, 0x5A);
    putU32(out, 0);
    return out;
}

Bytes updateCheckEvent() {
    Bytes out = header(1);
    putString(out, "flood");
    putString(out, "data");
    putU32(out, 77);
    putU32(out, 101);
    putString(out, "");
    return out;
}

Bytes chatLine(std::size_t bytesWithNul) {
    Bytes out(bytesWithNul > 0 ? bytesWithNul - 1 : 0, 'c');
    out.push_back(0);
    return out;
}

// Room, ready setup, start, confirmation, go: a match of one.
bool startOwnMatch(Flooder& f) {
    f.send(kLobbyChannel, createRoomMessage("flood", "data", 77));
    std::uint32_t slot = 99;
    int startNotices = 0;
    bool setupSent = false;
    const auto deadline = Clock::now() + std::chrono::seconds(5);
    while (Clock::now() < deadline && startNotices < 2 && !f.cutOff) {
        f.service(5, [&](std::uint8_t channel, const std::uint8_t* data, std::size_t length) {
            if (channel != kLobbyChannel) return;
            const LobbyMessage m = parseLobbyMessage(data, length);
            if (m.kind == LobbyMessage::Kind::JoinAccepted) slot = m.slot;
            if (m.kind == LobbyMessage::Kind::StartGame) {
                if (++startNotices == 1) f.send(kLobbyChannel, startGameMessage());
            }
            if (m.kind == LobbyMessage::Kind::PlayerSetup && m.slot == slot && m.ready == 1 && setupSent)
                f.send(kLobbyChannel, startGameMessage());
        });
        if (slot != 99 && !setupSent) {
            f.send(kLobbyChannel, playerSetupMessage(slot, true, "flood"));
            setupSent = true;
        }
    }
    return startNotices == 2;
}

struct Options {
    std::uint16_t port = 0;
    std::string mode, bind = "127.0.0.1", file;
    double rate = 0, seconds = 10, checkSeconds = 10, startAfter = 0;
    std::size_t peers = 0, reportBytes = 1024 * 1024, lineBytes = 16384, inFlight = 4 * 1024 * 1024;
    int holdMs = 300;
};

std::string ms(std::uint64_t ns) {
    char text[32];
    std::snprintf(text, sizeof text, "%.1f", static_cast<double>(ns) / 1e6);
    return text;
}

// The message-sending modes: every peer sends its messages at the rate,
// round after round, and takes what it is sent.
int floodMessages(const Options& o) {
    Flooders all;
    if (!connectAll(all, o.peers, o.bind, o.port)) return std::fprintf(stderr, "flood: cannot connect\n"), 1;
    if (o.mode == "orders" && !startOwnMatch(*all[0])) return std::fprintf(stderr, "flood: no match\n"), 1;

    const Bytes lobbyRequest = [] {
        Bytes b = header(10);
        putU32(b, 0);
        return b;
    }();
    const Bytes report = o.mode == "reports" ? feedbackReport(o.reportBytes) : Bytes{};
    const Bytes line = chatLine(o.lineBytes);
    const Bytes event = updateCheckEvent();
    const Bytes createRoom = createRoomMessage("churn", "data", 77);
    const Bytes leaveRoom = header(4);
    std::uint64_t receivedMessages = 0, receivedBytes = 0, joins = 0, texts = 0;
    auto onReceive = [&](std::uint8_t channel, const std::uint8_t* data, std::size_t length) {
        ++receivedMessages;
        receivedBytes += length;
        if (channel == kTextChannel) ++texts;
        if (channel == kLobbyChannel && parseLobbyMessage(data, length).kind == LobbyMessage::Kind::JoinAccepted)
            ++joins;
    };

    // Connected and quiet until --start-after, within --seconds.
    const auto opened = Clock::now();
    const auto end = opened + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(o.seconds));
    while (secondsSince(opened) < o.startAfter) {
        for (auto& f : all) f->service(0, onReceive);
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    const auto start = Clock::now();
    while (Clock::now() < end) {
        const double due = o.rate * secondsSince(start);
        bool anyone = false;
        for (auto& fp : all) {
            Flooder& f = *fp;
            if (f.cutOff) continue;
            anyone = true;
            for (; f.sent + f.skipped < due && !f.cutOff; ++f.sent) {
                // Late messages are skipped, not sent in a burst once ENet catches up.
                if (f.bytesInFlight >= o.inFlight) {
                    f.skipped = static_cast<std::uint64_t>(due) - f.sent;
                    break;
                }
                if (o.mode == "orders")
                    f.send(kOrderChannel, stepDoneMessage(static_cast<std::uint32_t>(1 + f.sent / 100), 0));
                if (o.mode == "lobby") f.send(kLobbyChannel, lobbyRequest);
                if (o.mode == "reports") f.send(kReportChannel, report);
                if (o.mode == "chat") f.send(kTextChannel, line);
                if (o.mode == "churn") f.send(kLobbyChannel, f.sent % 2 == 0 ? createRoom : leaveRoom);
                if (o.mode == "update-check") f.send(kEventChannel, event);
            }
            enet_host_flush(f.host);
            f.service(0, onReceive);
        }
        if (!anyone) break;
        std::this_thread::sleep_for(std::chrono::microseconds(all.size() > 1 ? 200 : 500));
    }
    std::uint64_t sent = 0, skipped = 0, cut = 0;
    for (auto& f : all) sent += f->sent, skipped += f->skipped, cut += f->cutOff ? 1 : 0;
    std::printf("flood: mode %s, %zu peers from %s, %llu messages in %.1f s (%llu not sent: too many unacknowledged), "
                "received %llu messages (%.1f MiB), %llu texts, %llu rooms joined, %llu peers cut off by the server\n",
                o.mode.c_str(), all.size(), o.bind.c_str(), static_cast<unsigned long long>(sent), secondsSince(start),
                static_cast<unsigned long long>(skipped), static_cast<unsigned long long>(receivedMessages),
                static_cast<double>(receivedBytes) / (1024.0 * 1024.0), static_cast<unsigned long long>(texts),
                static_cast<unsigned long long>(joins), static_cast<unsigned long long>(cut));
    leaveAll(all);
    return 0;
}

// Peers that ask for the file and never acknowledge a byte of it.
int silentDownload(const Options& o) {
    Flooders all;
    if (!connectAll(all, o.peers, o.bind, o.port)) return std::fprintf(stderr, "flood: cannot connect\n"), 1;
    for (auto& f : all) f->send(kFileUpdateChannel, fileRequestMessage(o.file)), enet_host_flush(f->host);
    const auto start = Clock::now();
    std::this_thread::sleep_for(std::chrono::duration<double>(o.seconds));
    std::printf("flood: mode silent-download, %zu peers from %s asked for %s and took nothing for %.1f s\n",
                all.size(), o.bind.c_str(), o.file.c_str(), secondsSince(start));
    return 0;
}

int vanishDownload(const Options& o) {
    std::uint64_t rounds = 0, vanished = 0, completedFirst = 0, checkersServed = 0;
    Histogram waits;
    const auto start = Clock::now();
    const auto end = start + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(o.seconds));
    while (Clock::now() < end) {
        Flooders all;
        if (!connectAll(all, o.peers, o.bind, o.port)) return std::fprintf(stderr, "flood: cannot connect\n"), 1;
        for (auto& f : all) f->send(kFileUpdateChannel, fileRequestMessage(o.file)), enet_host_flush(f->host);
        std::vector<bool> got(all.size(), false);
        const auto holdEnd = Clock::now() + std::chrono::milliseconds(o.holdMs);
        while (Clock::now() < holdEnd) {
            for (std::size_t i = 0; i < all.size(); ++i)
                all[i]->service(0, [&](std::uint8_t channel, const std::uint8_t* data, std::size_t length) {
                    if (channel == kFileUpdateChannel && parseFileData(data, length, o.file)) got[i] = true;
                });
            std::this_thread::sleep_for(std::chrono::microseconds(200));
        }
        for (std::size_t i = 0; i < all.size(); ++i) {
            all[i]->vanish();
            enet_host_flush(all[i]->host);
            got[i] ? ++completedFirst : ++vanished;
        }
        all.clear();
        ++rounds;

        // The next downloader.
        Flooders next;
        if (!connectAll(next, 1, o.bind, o.port)) return std::fprintf(stderr, "flood: cannot connect\n"), 1;
        Flooder& f = *next[0];
        const auto asked = Clock::now();
        f.send(kFileUpdateChannel, fileRequestMessage(o.file));
        bool served = false;
        while (!served && !f.cutOff && secondsSince(asked) < o.checkSeconds)
            f.service(2, [&](std::uint8_t channel, const std::uint8_t* data, std::size_t length) {
                if (channel == kFileUpdateChannel && parseFileData(data, length, o.file)) served = true;
            });
        if (served) {
            ++checkersServed;
            waits.add(static_cast<std::uint64_t>(secondsSince(asked) * 1e9));
        }
        f.leave();
    }
    std::printf("flood: mode vanish-download, %llu rounds of %zu peers from %s in %.1f s: %llu left in the middle of "
                "%s (%llu had it whole first); the next downloader got the file in %llu of %llu rounds within %.0f s "
                "(wait p50 %s ms, max %s ms)\n",
                static_cast<unsigned long long>(rounds), o.peers, o.bind.c_str(), secondsSince(start),
                static_cast<unsigned long long>(vanished), o.file.c_str(),
                static_cast<unsigned long long>(completedFirst), static_cast<unsigned long long>(checkersServed),
                static_cast<unsigned long long>(rounds), o.checkSeconds, ms(waits.quantile(0.5)).c_str(),
                ms(waits.max()).c_str());
    return 0;
}

int updater(const Options& o) {
    Flooders all;
    if (!connectAll(all, 1, o.bind, o.port)) return std::fprintf(stderr, "flood: cannot connect\n"), 1;
    Flooder& f = *all[0];
    const std::string manifest = "manifest.manifest";
    std::deque<Clock::time_point> asked;
    Histogram latency;
    std::uint64_t requests = 0, answers = 0, withinSecond = 0;
    const auto start = Clock::now();
    const auto end = start + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(o.seconds));
    while (Clock::now() < end && !f.cutOff) {
        if (requests < o.rate * secondsSince(start)) {
            f.send(kFileUpdateChannel, header(1));
            asked.push_back(Clock::now());
            ++requests;
        }
        f.service(1, [&](std::uint8_t channel, const std::uint8_t* data, std::size_t length) {
            if (channel != kFileUpdateChannel || !parseFileData(data, length, manifest) || asked.empty()) return;
            const double waited = secondsSince(asked.front());
            asked.pop_front();
            ++answers;
            if (waited <= 1.0) ++withinSecond;
            latency.add(static_cast<std::uint64_t>(waited * 1e9));
        });
    }
    std::printf("flood: mode updater from %s, %llu manifest requests in %.1f s, %llu answered (%llu within 1 s), "
                "latency p50 %s ms, p99 %s ms, max %s ms%s\n",
                o.bind.c_str(), static_cast<unsigned long long>(requests), secondsSince(start),
                static_cast<unsigned long long>(answers), static_cast<unsigned long long>(withinSecond),
                ms(latency.quantile(0.5)).c_str(), ms(latency.quantile(0.99)).c_str(), ms(latency.max()).c_str(),
                f.cutOff ? ", cut off by the server" : "");
    f.leave();
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app{"Clients that flood the server with one kind of message, or time its update service."};
    Options o;
    app.add_option("--port", o.port, "UDP port of the server on 127.0.0.1")->required();
    app.add_option("--mode", o.mode, "What to do (see the top of flood.cpp)")
        ->required()
        ->check(CLI::IsMember({"orders", "lobby", "reports", "chat", "churn", "update-check", "silent-download",
                               "vanish-download", "updater"}));
    app.add_option("--rate", o.rate, "Messages a second, per peer (0: the mode's default)");
    app.add_option("--seconds", o.seconds, "How long to flood");
    app.add_option("--peers", o.peers, "Clients (0: the mode's default)");
    app.add_option("--bind", o.bind, "Local address of the clients, in 127.0.0.0/8")
        ->check([](const std::string& a) { return a.rfind("127.", 0) == 0 ? "" : "loopback addresses only"; });
    app.add_option("--file", o.file, "Update file asked for by the download modes");
    app.add_option("--report-bytes", o.reportBytes, "Snapshot bytes of each report");
    app.add_option("--line-bytes", o.lineBytes, "Bytes of each chat line, its NUL included");
    app.add_option("--hold-ms", o.holdMs, "vanish-download: how long the peers take their file before leaving");
    app.add_option("--check-seconds", o.checkSeconds, "vanish-download: how long the next downloader waits");
    app.add_option("--start-after", o.startAfter,
                   "Message modes: connected but quiet for this long first (within --seconds), e.g. until the "
                   "loadbot's players have left the lobby for their rooms");
    app.add_option("--in-flight", o.inFlight, "Bytes sent and not yet acknowledged before a peer waits");
    CLI11_PARSE(app, argc, argv);
    const std::string& m = o.mode;
    if (o.rate <= 0)
        o.rate = m == "orders" ? 2000 : m == "lobby" ? 20000 : m == "reports" ? 20 : m == "chat" ? 20
               : m == "churn" ? 100 : m == "update-check" ? 200 : 4;
    if (o.peers == 0) o.peers = m == "chat" ? 31 : m == "churn" ? 60 : m == "vanish-download" ? 16 : 1;
    if ((m == "silent-download" || m == "vanish-download") && o.file.empty())
        return std::fprintf(stderr, "flood: --mode %s needs --file\n", m.c_str()), 2;

    if (enet_initialize() != 0) return 1;
    int status = m == "silent-download"   ? silentDownload(o)
                 : m == "vanish-download" ? vanishDownload(o)
                 : m == "updater"         ? updater(o)
                                          : floodMessages(o);
    enet_deinitialize();
    return status;
}
