// flood: one misbehaving client, to measure what it costs the honest ones.
//
//   flood --port P --mode orders|lobby|reports [--rate R] [--seconds S]
//         [--report-bytes B]
//
// orders:  takes a room of its own to a running match, then sends step-done
//          orders at R a second (default 2,000: a hundred times a player's
//          one order per step at 20 steps a second).
// lobby:   room-list requests at R a second (default 20,000).
// reports: feedback reports carrying a B-byte snapshot (default 1 MiB) at R
//          a second (default 20, above what the server lets one peer file).
//
// It acknowledges what it is sent, as a client would, so what it costs is
// its traffic rather than a queue the server holds for it. It hands ENet a
// new message only while less than --in-flight bytes of its own wait to be
// acknowledged: a client that queued a hundred 1 MiB reports a second
// regardless would spend a core walking its own queue of fragments and
// measure its own slowness, not the server's. Prints one line with what it
// sent and whether the server cut it off.

#include <chrono>
#include <cstdio>
#include <string>

#include <CLI/CLI.hpp>
#include <enet/enet.h>

#include "protocol.h"

namespace {

using namespace loadbot;
using Clock = std::chrono::steady_clock;

// Bytes handed to ENet and not yet acknowledged: ENet frees a reliable
// packet once every fragment of it is.
std::size_t bytesInFlight = 0;
void acknowledged(ENetPacket* packet) { bytesInFlight -= packet->dataLength; }

struct Flooder {
    ENetHost* host = nullptr;
    ENetPeer* peer = nullptr;
    bool connected = false;
    bool cutOff = false;

    void send(std::uint8_t channel, const Bytes& bytes) {
        if (peer == nullptr || cutOff) return;
        ENetPacket* packet = enet_packet_create(bytes.data(), bytes.size(), ENET_PACKET_FLAG_RELIABLE);
        packet->freeCallback = acknowledged;
        bytesInFlight += bytes.size();
        if (enet_peer_send(peer, channel, packet) != 0) enet_packet_destroy(packet);
    }
    // Services ENet for up to ms; returns the lobby messages seen.
    template <typename OnLobby>
    void service(int ms, OnLobby&& onLobby) {
        const auto end = Clock::now() + std::chrono::milliseconds(ms);
        ENetEvent event;
        do {
            for (int r = enet_host_service(host, &event, ms > 0 ? 1 : 0); r > 0;
                 r = enet_host_service(host, &event, 0)) {
                if (event.type == ENET_EVENT_TYPE_CONNECT) connected = true;
                if (event.type == ENET_EVENT_TYPE_DISCONNECT) cutOff = connected;
                if (event.type == ENET_EVENT_TYPE_RECEIVE) {
                    if (event.channelID == kLobbyChannel)
                        onLobby(parseLobbyMessage(event.packet->data, event.packet->dataLength));
                    enet_packet_destroy(event.packet);
                }
            }
        } while (Clock::now() < end && !cutOff);
    }
};

Bytes feedbackReport(std::size_t snapshotBytes) {
    Bytes out;
    putU32(out, 1);
    putU32(out, 1);
    for (const char* text : {"flood", "", "data", "a flood of reports"}) putString(out, text);
    putU32(out, static_cast<std::uint32_t>(snapshotBytes));
    out.resize(out.size() + snapshotBytes, 0x5A);
    putU32(out, 0);
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
        f.service(5, [&](const LobbyMessage& m) {
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

}  // namespace

int main(int argc, char** argv) {
    CLI::App app{"One client that floods the server with one kind of message."};
    std::uint16_t port = 0;
    std::string mode;
    double rate = 0, seconds = 10;
    std::size_t reportBytes = 1024 * 1024;
    std::size_t inFlight = 4 * 1024 * 1024;
    app.add_option("--port", port, "UDP port of the server on 127.0.0.1")->required();
    app.add_option("--mode", mode, "orders, lobby or reports")
        ->required()
        ->check(CLI::IsMember({"orders", "lobby", "reports"}));
    app.add_option("--rate", rate, "Messages a second (0: the mode's default)");
    app.add_option("--seconds", seconds, "How long to flood");
    app.add_option("--report-bytes", reportBytes, "Snapshot bytes of each report");
    app.add_option("--in-flight", inFlight, "Bytes sent and not yet acknowledged before it waits");
    CLI11_PARSE(app, argc, argv);
    if (rate <= 0) rate = mode == "orders" ? 2000 : mode == "lobby" ? 20000 : 20;

    if (enet_initialize() != 0) return 1;
    Flooder f;
    f.host = enet_host_create(nullptr, 1, kChannelCount, 0, 0);
    ENetAddress address{};
    enet_address_set_host(&address, "127.0.0.1");
    address.port = port;
    f.peer = f.host != nullptr ? enet_host_connect(f.host, &address, kChannelCount, 0) : nullptr;
    if (f.peer == nullptr) return 1;
    for (int i = 0; i < 300 && !f.connected; ++i) f.service(10, [](const LobbyMessage&) {});
    if (!f.connected) return std::fprintf(stderr, "flood: cannot connect\n"), 1;
    if (mode == "orders" && !startOwnMatch(f)) return std::fprintf(stderr, "flood: no match\n"), 1;

    const Bytes lobbyRequest = [] {
        Bytes b;
        putU32(b, 10), putU32(b, 1), putU32(b, 0);
        return b;
    }();
    const Bytes report = mode == "reports" ? feedbackReport(reportBytes) : Bytes{};
    const auto start = Clock::now();
    const auto end = start + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
    std::uint64_t sent = 0, skipped = 0;
    while (Clock::now() < end && !f.cutOff) {
        const double due = rate * std::chrono::duration<double>(Clock::now() - start).count();
        for (; sent + skipped < due && !f.cutOff; ++sent) {
            // Late messages are skipped, not sent in a burst once ENet catches up.
            if (bytesInFlight >= inFlight) {
                skipped = static_cast<std::uint64_t>(due) - sent;
                break;
            }
            if (mode == "orders") f.send(kOrderChannel, stepDoneMessage(static_cast<std::uint32_t>(1 + sent / 100), 0));
            if (mode == "lobby") f.send(kLobbyChannel, lobbyRequest);
            if (mode == "reports") f.send(4, report);
        }
        enet_host_flush(f.host);
        f.service(1, [](const LobbyMessage&) {});
    }
    std::printf("flood: mode %s, %llu messages in %.1f s (%llu not sent: too many unacknowledged), %s\n", mode.c_str(),
                static_cast<unsigned long long>(sent), std::chrono::duration<double>(Clock::now() - start).count(),
                static_cast<unsigned long long>(skipped),
                f.cutOff ? "cut off by the server" : "still connected");
    if (!f.cutOff) {
        enet_peer_disconnect(f.peer, 0);
        f.service(200, [](const LobbyMessage&) {});
    }
    enet_host_destroy(f.host);
    enet_deinitialize();
    return 0;
}
