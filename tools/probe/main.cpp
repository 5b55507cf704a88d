// lockstep-probe: asks a lockstep-server for its status, as a client would,
// and prints it with the round trip. Exit status: 0 the server answered,
// 1 no connection or no answer within the time-out, 2 bad arguments.
//
// It speaks the protocol on its own, from docs/protocol.md: ENet with 7
// channels, a RoomListRequest on the lobby channel, the ServerStatus reply.

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include <enet/enet.h>

namespace {

constexpr std::uint16_t kDefaultPort = 1984;
constexpr std::size_t kChannels = 7;
constexpr std::uint8_t kLobbyChannel = 0;
constexpr std::uint32_t kServerStatus = 1;
constexpr std::uint32_t kRoomListRequest = 10;

using Clock = std::chrono::steady_clock;

void usage(std::FILE* to) {
    std::fprintf(to,
                 "Usage: lockstep-probe [--timeout SECONDS] HOST[:PORT]\n"
                 "Connects to a lockstep-server (port %u unless given), asks for its status and\n"
                 "prints it with the round trip. Exit status 0 when it answered, 1 when it did\n"
                 "not within the time-out (default 5 seconds), 2 for bad arguments.\n",
                 kDefaultPort);
}

struct Status {
    std::string description;
    std::uint32_t runningRooms = 0, playersInRunningRooms = 0, playersInOtherRooms = 0, playersInNoRoom = 0;
    std::uint32_t protocolVersion = 0;
};

struct Cursor {
    const std::uint8_t* p;
    std::size_t left;
    bool ok = true;
    std::uint32_t u32() {
        if (left < 4) {
            ok = false;
            return 0;
        }
        std::uint32_t v = std::uint32_t(p[0]) | std::uint32_t(p[1]) << 8 | std::uint32_t(p[2]) << 16 |
                          std::uint32_t(p[3]) << 24;
        p += 4, left -= 4;
        return v;
    }
    std::string str() {
        const void* nul = std::memchr(p, 0, left);
        if (nul == nullptr) {
            ok = false;
            return {};
        }
        std::size_t n = static_cast<const std::uint8_t*>(nul) - p;
        std::string s(reinterpret_cast<const char*>(p), n);
        p += n + 1, left -= n + 1;
        return s;
    }
};

std::optional<Status> parseStatus(const std::uint8_t* data, std::size_t size) {
    Cursor c{data, size};
    if (c.u32() != kServerStatus || !c.ok) return std::nullopt;
    c.u32();  // the second header word
    Status s;
    s.description = c.str();
    s.runningRooms = c.u32();
    s.playersInRunningRooms = c.u32();
    s.playersInOtherRooms = c.u32();
    s.playersInNoRoom = c.u32();
    s.protocolVersion = c.u32();
    if (!c.ok) return std::nullopt;
    return s;
}

// Bytes below 0x20 and 0x7F as \xNN, so a description cannot steer a terminal.
std::string printable(const std::string& text) {
    std::string out;
    for (unsigned char ch : text) {
        if (ch < 0x20 || ch == 0x7F) {
            char buf[5];
            std::snprintf(buf, sizeof buf, "\\x%02x", ch);
            out += buf;
        } else {
            out += static_cast<char>(ch);
        }
    }
    return out;
}

double millisSince(Clock::time_point t) {
    return std::chrono::duration<double, std::milli>(Clock::now() - t).count();
}

}  // namespace

int main(int argc, char** argv) {
    double timeoutSeconds = 5;
    std::string target;
    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        if (arg == "-h" || arg == "--help") {
            usage(stdout);
            return 0;
        }
        if (arg == "--timeout" && i + 1 < argc) {
            char* end = nullptr;
            timeoutSeconds = std::strtod(argv[++i], &end);
            if (end == argv[i] || *end != '\0' || !(timeoutSeconds > 0) || timeoutSeconds > 3600) {
                std::fprintf(stderr, "lockstep-probe: --timeout wants a number of seconds, got %s\n", argv[i]);
                return 2;
            }
        } else if (!arg.empty() && arg[0] != '-' && target.empty()) {
            target = arg;
        } else {
            usage(stderr);
            return 2;
        }
    }
    if (target.empty()) {
        usage(stderr);
        return 2;
    }

    std::string host = target;
    unsigned long port = kDefaultPort;
    if (auto colon = target.rfind(':'); colon != std::string::npos) {
        host = target.substr(0, colon);
        std::string digits = target.substr(colon + 1);
        char* end = nullptr;
        port = std::strtoul(digits.c_str(), &end, 10);
        if (digits.empty() || *end != '\0' || port == 0 || port > 65535) {
            std::fprintf(stderr, "lockstep-probe: not a port: %s\n", digits.c_str());
            return 2;
        }
    }
    if (host.empty()) {
        std::fprintf(stderr, "lockstep-probe: no host in %s\n", target.c_str());
        return 2;
    }

    if (enet_initialize() != 0) {
        std::fprintf(stderr, "lockstep-probe: ENet cannot start\n");
        return 1;
    }
    std::atexit(enet_deinitialize);
    ENetAddress address{};
    if (enet_address_set_host(&address, host.c_str()) != 0) {
        std::fprintf(stderr, "lockstep-probe: cannot resolve %s\n", host.c_str());
        return 1;
    }
    address.port = static_cast<enet_uint16>(port);
    ENetHost* client = enet_host_create(nullptr, 1, kChannels, 0, 0);
    if (client == nullptr) {
        std::fprintf(stderr, "lockstep-probe: cannot open a UDP socket\n");
        return 1;
    }
    ENetPeer* peer = enet_host_connect(client, &address, kChannels, 0);
    if (peer == nullptr) {
        std::fprintf(stderr, "lockstep-probe: cannot connect\n");
        enet_host_destroy(client);
        return 1;
    }

    const auto start = Clock::now();
    const auto deadline = start + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(timeoutSeconds));
    bool connected = false;
    double connectMs = 0;
    Clock::time_point asked{};
    std::optional<Status> status;
    double roundTripMs = 0;
    while (!status && Clock::now() < deadline) {
        ENetEvent event;
        int waitMs = static_cast<int>(std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count());
        if (enet_host_service(client, &event, static_cast<enet_uint32>(std::max(1, std::min(waitMs, 50)))) <= 0) continue;
        if (event.type == ENET_EVENT_TYPE_CONNECT) {
            connected = true;
            connectMs = millisSince(start);
            // RoomListRequest: type 10, second word 1, room ID 0 (no room's details).
            const std::uint8_t request[12] = {kRoomListRequest, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0};
            enet_peer_send(peer, kLobbyChannel, enet_packet_create(request, sizeof request, ENET_PACKET_FLAG_RELIABLE));
            enet_host_flush(client);
            asked = Clock::now();
        } else if (event.type == ENET_EVENT_TYPE_RECEIVE) {
            if (event.channelID == kLobbyChannel) status = parseStatus(event.packet->data, event.packet->dataLength);
            if (status) roundTripMs = millisSince(asked);
            enet_packet_destroy(event.packet);
        } else if (event.type == ENET_EVENT_TYPE_DISCONNECT) {
            std::fprintf(stderr, "lockstep-probe: %s:%lu %s\n", host.c_str(), port,
                         connected ? "closed the connection before it answered" : "refused the connection");
            enet_host_destroy(client);
            return 1;
        }
    }
    if (!status) {
        std::fprintf(stderr, "lockstep-probe: %s:%lu: %s within %g s\n", host.c_str(), port,
                     connected ? "connected, but no status" : "no connection", timeoutSeconds);
        enet_peer_reset(peer);
        enet_host_destroy(client);
        return 1;
    }
    // A polite goodbye, so the server does not wait for the time-out.
    enet_peer_disconnect(peer, 0);
    ENetEvent event;
    for (auto until = Clock::now() + std::chrono::milliseconds(500); Clock::now() < until;) {
        if (enet_host_service(client, &event, 20) <= 0) continue;
        if (event.type == ENET_EVENT_TYPE_RECEIVE) enet_packet_destroy(event.packet);
        if (event.type == ENET_EVENT_TYPE_DISCONNECT) break;
    }
    enet_host_destroy(client);

    std::printf("%s:%lu answered: \"%s\"\n", host.c_str(), port, printable(status->description).c_str());
    std::printf("protocol version %u; %u matches running with %u players; %u players in other rooms; %u in no room\n",
                status->protocolVersion, status->runningRooms, status->playersInRunningRooms,
                status->playersInOtherRooms, status->playersInNoRoom);
    std::printf("round trip %.2f ms (connect %.2f ms)\n", roundTripMs, connectMs);
    return 0;
}
