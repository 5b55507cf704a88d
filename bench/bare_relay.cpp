// bare_relay: the least a lockstep relay has to do, as the yardstick that the
// server's figures are compared with. Same ENet host as the server (all
// addresses, 1024 peers, 7 channels, no bandwidth limits), players grouped
// in rooms of up to 8, ordinary orders passed to the other members of the
// room in one shared packet, and the 12-byte notice once every member has
// finished a step. It waits on its socket between bursts of traffic.
//
// Of the lobby it speaks just enough for the load generator to reach a
// running match: CreateRoom and JoinRoom answered with JoinAccepted,
// PlayerSetup passed to the whole room, StartGame as request, start notice,
// confirmation and go notice. Everything else, and every refusal, is dropped
// without a word. It shares no code with the server on purpose.
//
// Usage: bare_relay [--port N] [--receive-latency] [--idle-threads N] [--slice MICROS]
// (port 0 or none: a free port; the chosen one is printed as "bare_relay:
// listening on port N"). With --receive-latency the server's own instrument
// times every order from the kernel's receive to the hand-over of its relay,
// printed at the end as "bare_relay: receive to send: ...", with the slowest
// batches traced turn by turn. It is the one piece of the server here: the
// same instrument on both sides, so their figures compare. --idle-threads N
// starts N threads that only wait, to tell whether being a process of
// several threads costs anything apart from the server's own work. --slice
// asks the kernel for requests of MICROS, as the server's --loop-slice does.

#include <csignal>
#include <future>
#include <thread>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <unordered_map>

#include <enet/enet.h>

#include "platform/process.h"
#include "platform/receive_stamps.h"

namespace {

constexpr std::size_t kMaxPeers = 1024;
constexpr std::size_t kChannels = 7;
constexpr std::uint8_t kLobby = 0;
constexpr std::uint8_t kOrders = 3;
constexpr int kSlots = 8;

volatile std::sig_atomic_t stopRequested = 0;
void onSignal(int) {
    stopRequested = 1;
}

std::uint32_t word(const std::uint8_t* p) {
    return static_cast<std::uint32_t>(p[0]) | static_cast<std::uint32_t>(p[1]) << 8 |
           static_cast<std::uint32_t>(p[2]) << 16 | static_cast<std::uint32_t>(p[3]) << 24;
}

void putWord(std::uint8_t* p, std::uint32_t v) {
    for (int i = 0; i < 4; ++i) p[i] = static_cast<std::uint8_t>(v >> (8 * i));
}

struct Room {
    std::uint32_t id = 0;
    ENetPeer* members[kSlots] = {};
    bool ready[kSlots] = {};
    bool confirmed[kSlots] = {};
    bool startRequested = false;
    bool started = false;
    bool running = false;
    std::map<std::uint32_t, std::uint8_t> pendingSteps;  // step -> slots that reported it

    std::uint8_t occupied() const {
        std::uint8_t mask = 0;
        for (int i = 0; i < kSlots; ++i)
            if (members[i] != nullptr) mask |= static_cast<std::uint8_t>(1u << i);
        return mask;
    }
};

struct Seat {
    Room* room = nullptr;
    int slot = -1;
};

struct Relay {
    ENetHost* host = nullptr;
    std::unordered_map<std::uint32_t, std::unique_ptr<Room>> rooms;
    std::uint32_t nextId = 1;
};

// One reference-counted packet for every member of the room except skip.
void sendToRoom(Room& room, std::uint8_t channel, const std::uint8_t* data, std::size_t length,
                ENetPeer* skip = nullptr) {
    ENetPacket* packet = enet_packet_create(data, length, ENET_PACKET_FLAG_RELIABLE);
    for (ENetPeer* member : room.members)
        if (member != nullptr && member != skip) enet_peer_send(member, channel, packet);
    if (packet->referenceCount == 0) enet_packet_destroy(packet);
}

void sendTo(ENetPeer* peer, std::uint8_t channel, const std::uint8_t* data, std::size_t length) {
    enet_peer_send(peer, channel, enet_packet_create(data, length, ENET_PACKET_FLAG_RELIABLE));
}

void seat(Room& room, ENetPeer* peer, int slot) {
    room.members[slot] = peer;
    room.ready[slot] = false;
    auto* s = static_cast<Seat*>(peer->data);
    s->room = &room;
    s->slot = slot;
    std::uint8_t accepted[16];
    putWord(accepted, 6);
    putWord(accepted + 4, 1);
    putWord(accepted + 8, static_cast<std::uint32_t>(slot));
    putWord(accepted + 12, room.id);
    sendTo(peer, kLobby, accepted, sizeof accepted);
}

void markStepDone(Room& room, std::uint32_t slot, std::uint32_t step) {
    if (slot >= kSlots) return;
    std::uint8_t& reported = room.pendingSteps[step];
    reported |= static_cast<std::uint8_t>(1u << slot);
    std::uint8_t occupied = room.occupied();
    if ((reported & occupied) != occupied) return;
    std::uint8_t notice[12];
    putWord(notice, 1);
    putWord(notice + 4, step);
    putWord(notice + 8, slot);
    sendToRoom(room, kOrders, notice, sizeof notice);
    room.pendingSteps.erase(step);
}

void onLobby(Relay& relay, ENetPeer* peer, const std::uint8_t* data, std::size_t length) {
    if (length < 8) return;
    auto* s = static_cast<Seat*>(peer->data);
    std::uint8_t header[8];
    switch (word(data)) {
        case 2: {  // CreateRoom
            if (s->room != nullptr) return;
            auto room = std::make_unique<Room>();
            room->id = relay.nextId++;
            Room& r = *room;
            relay.rooms.emplace(r.id, std::move(room));
            seat(r, peer, 0);
            return;
        }
        case 3: {  // JoinRoom
            if (s->room != nullptr || length < 12) return;
            auto it = relay.rooms.find(word(data + 8));
            if (it == relay.rooms.end() || it->second->started) return;
            for (int i = 0; i < kSlots; ++i) {
                if (it->second->members[i] == nullptr) {
                    seat(*it->second, peer, i);
                    return;
                }
            }
            return;
        }
        case 5:  // PlayerSetup for the sender's own slot: the room sees it
            if (s->room == nullptr || length < 16) return;
            if (word(data + 8) == static_cast<std::uint32_t>(s->slot)) s->room->ready[s->slot] = word(data + 12) != 0;
            sendToRoom(*s->room, kLobby, data, length);
            return;
        case 14: {  // StartGame
            if (s->room == nullptr) return;
            Room& r = *s->room;
            if (!r.startRequested)
                r.startRequested = true;
            else
                r.confirmed[s->slot] = true;
            putWord(header, 14);
            putWord(header + 4, 1);
            bool allReady = true, allConfirmed = true;
            for (int i = 0; i < kSlots; ++i) {
                if (r.members[i] == nullptr) continue;
                allReady = allReady && r.ready[i];
                allConfirmed = allConfirmed && r.confirmed[i];
            }
            if (!r.started) {
                if (!allReady) {
                    r.startRequested = false;
                    return;
                }
                r.started = true;
                sendToRoom(r, kLobby, header, sizeof header);  // start notice
                return;
            }
            if (!r.running && allConfirmed) {
                r.running = true;
                sendToRoom(r, kLobby, header, sizeof header);  // go notice
            }
            return;
        }
        default:
            return;
    }
}

void onOrder(ENetPeer* peer, const std::uint8_t* data, std::size_t length) {
    auto* s = static_cast<Seat*>(peer->data);
    if (s->room == nullptr || length < 12) return;
    bool stepDone = length == 12 || (length >= 20 && word(data + 12) != 0 && word(data + 16) == 0xFFFFFFFF);
    if (stepDone)
        markStepDone(*s->room, word(data + 8), word(data + 4));
    else
        sendToRoom(*s->room, kOrders, data, length, peer);
}

void leave(Relay& relay, ENetPeer* peer) {
    auto* s = static_cast<Seat*>(peer->data);
    if (s == nullptr) return;
    if (Room* room = s->room) {
        // Nobody waits for a player who has gone.
        if (room->running) {
            std::map<std::uint32_t, std::uint8_t> pending = room->pendingSteps;
            for (const auto& [step, reported] : pending) markStepDone(*room, static_cast<std::uint32_t>(s->slot), step);
        }
        room->members[s->slot] = nullptr;
        if (room->occupied() == 0) relay.rooms.erase(room->id);
    }
    delete s;
    peer->data = nullptr;
}

void handle(Relay& relay, ENetEvent& event) {
    switch (event.type) {
        case ENET_EVENT_TYPE_CONNECT:
            event.peer->data = new Seat;
            break;
        case ENET_EVENT_TYPE_DISCONNECT:
            leave(relay, event.peer);
            break;
        case ENET_EVENT_TYPE_RECEIVE:
            if (event.peer->data != nullptr) {
                if (event.channelID == kLobby)
                    onLobby(relay, event.peer, event.packet->data, event.packet->dataLength);
                else if (event.channelID == kOrders)
                    onOrder(event.peer, event.packet->data, event.packet->dataLength);
            }
            enet_packet_destroy(event.packet);
            break;
        default:
            break;
    }
}

}  // namespace

int main(int argc, char** argv) {
    unsigned long port = 0;
    bool receiveLatency = false;
    unsigned long idleThreads = 0;
    unsigned long sliceMicros = 0;
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--port") == 0 && i + 1 < argc) {
            port = std::strtoul(argv[++i], nullptr, 10);
        } else if (std::strcmp(argv[i], "--receive-latency") == 0) {
            receiveLatency = true;
        } else if (std::strcmp(argv[i], "--idle-threads") == 0 && i + 1 < argc) {
            idleThreads = std::strtoul(argv[++i], nullptr, 10);
        } else if (std::strcmp(argv[i], "--slice") == 0 && i + 1 < argc) {
            sliceMicros = std::strtoul(argv[++i], nullptr, 10);
        } else {
            std::fprintf(stderr,
                         "usage: bare_relay [--port N] [--receive-latency] [--idle-threads N] [--slice MICROS]\n");
            return 2;
        }
    }
    if (port > 65535) {
        std::fprintf(stderr, "bare_relay: bad port\n");
        return 2;
    }
    std::signal(SIGINT, onSignal);
    std::signal(SIGTERM, onSignal);
    if (enet_initialize() != 0) return 1;
    // Threads that only wait, as many as the server keeps beside its loop:
    // the C library and the kernel take slower paths in a process of several
    // threads (allocator locks, reference counts on descriptors), and these
    // tell that cost apart from the server's own work.
    std::promise<void> never;
    const std::shared_future<void> forever = never.get_future().share();
    for (unsigned long i = 0; i < idleThreads; ++i) std::thread([forever] { forever.wait(); }).detach();

    if (sliceMicros != 0 && !requestSchedulerSlice(static_cast<std::uint32_t>(sliceMicros))) {
        std::fprintf(stderr, "bare_relay: the kernel refused --slice\n");
        return 1;
    }

    Relay relay;
    ENetAddress address{};
    address.host = ENET_HOST_ANY;
    address.port = static_cast<enet_uint16>(port);
    relay.host = enet_host_create(&address, kMaxPeers, kChannels, 0, 0);
    if (relay.host == nullptr) {
        std::fprintf(stderr, "bare_relay: cannot open port %lu\n", port);
        return 1;
    }
    // The server's bounds, which are ENet's defaults spelt out.
    relay.host->maximumPacketSize = 32u * 1024 * 1024;
    relay.host->maximumWaitingData = 32u * 1024 * 1024;
    ReceiveStamps stamps(kOrders);
    if (receiveLatency) stamps.install(relay.host);
    std::printf("bare_relay: listening on port %u\n", static_cast<unsigned>(relay.host->address.port));
    std::fflush(stdout);

    while (!stopRequested) {
        ENetEvent event;
        if (receiveLatency) stamps.mark(TurnMark::turnBegin);
        std::uint32_t events = 0;
        for (; enet_host_service(relay.host, &event, 0) > 0; ++events) {
            const bool order = event.type == ENET_EVENT_TYPE_RECEIVE;
            const std::uint8_t channel = event.channelID;
            ENetPeer* peer = event.peer;
            handle(relay, event);
            if (receiveLatency && order) stamps.handled(channel, peer);
        }
        if (receiveLatency) {
            stamps.mark(TurnMark::drainEnd, static_cast<std::uint32_t>(events));
            stamps.sent();
        }
        enet_uint32 condition = ENET_SOCKET_WAIT_RECEIVE | ENET_SOCKET_WAIT_INTERRUPT;
        if (receiveLatency) stamps.mark(TurnMark::waitBegin, 10);
        enet_socket_wait(relay.host->socket, &condition, 10);
        if (receiveLatency) stamps.mark(TurnMark::waitEnd);
    }

    for (std::size_t i = 0; i < relay.host->peerCount; ++i) {
        ENetPeer* peer = &relay.host->peers[i];
        if (peer->state == ENET_PEER_STATE_CONNECTED) {
            leave(relay, peer);
            enet_peer_disconnect(peer, 0);
        }
    }
    if (receiveLatency) {
        stamps.uninstall();
        std::printf("bare_relay: receive to send: %s\n", stamps.summary().c_str());
        for (const std::string& line : stamps.slowestBatches()) std::printf("bare_relay: slow batch: %s\n", line.c_str());
        for (const std::string& line : stamps.anatomy()) std::printf("bare_relay: batches, %s\n", line.c_str());
        std::fflush(stdout);
    }
    enet_host_flush(relay.host);
    enet_host_destroy(relay.host);
    enet_deinitialize();
    return 0;
}
