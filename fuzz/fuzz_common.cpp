#include "fuzz_common.h"

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>

#include "app/dispatch.h"
#include "app/peers.h"
#include "lobby/lobby.h"
#include "log/log.h"
#include "platform/clock.h"
#include "platform/files.h"
#include "protocol/send.h"

namespace {
std::string scratchRoot;
void removeScratchRoot() {
    std::error_code ec;
    std::filesystem::remove_all(scratchRoot, ec);
}
}  // namespace

void fuzzProcessSetup() {
    static bool done = false;
    if (done) return;
    done = true;
    char tmpl[] = "/tmp/lockstep-fuzz-XXXXXX";
    if (mkdtemp(tmpl) == nullptr) std::abort();
    scratchRoot = tmpl;
    std::atexit(removeScratchRoot);
    setDataRootPrefix(scratchRoot + "/");
    setClockForTests(1764000000);
}

FuzzServer::FuzzServer(std::size_t peerCount) {
    fuzzProcessSetup();
    resetGlobalGenerator();
    for (std::size_t i = 0; i < peerCount; ++i) {
        auto p = std::make_unique<ENetPeer>();
        std::memset(p.get(), 0, sizeof(ENetPeer));
        std::uint8_t ip[4] = {127, 0, 0, static_cast<std::uint8_t>(i + 1)};
        std::memcpy(&p->address.host, ip, 4);
        p->address.port = static_cast<enet_uint16>(4000 + i);
        // As a host numbers its peers.
        p->incomingPeerID = static_cast<enet_uint16>(i);
        peers_.push_back(std::move(p));
    }
    setPacketRecorder([this](ENetPeer*, std::uint8_t, ByteView) { ++sentPackets; });
    // Every extension on, and matches recorded, so that rejoins, snapshots
    // and spectators are reachable from the inputs.
    server.features = kFeaturePrivateRooms | kFeatureRejoin | kFeatureSnapshots | kFeatureSpectate;
    server.rooms.recordings = &server.recordings;
    server.rooms.storage = &server.storage;
    server.recordings.directory = scratchRoot + "/streams";
    server.recordings.temporary = true;
    server.rooms.access.awayMicros = 30'000'000;
    server.rooms.access.spectatorsPerRoom = 2;
}

FuzzServer::~FuzzServer() {
    for (ENetPeer* p : server.peers) {
        delete recordOf(p);
        p->data = nullptr;
    }
    setPacketRecorder(nullptr);
    takeQueuedLogTexts();
    // Reports and dumps written by the inputs would pile up (and same-second
    // names would get ever longer suffix searches): start afresh now and then.
    static unsigned inputs = 0;
    if (++inputs % 512 == 0) {
        std::error_code ec;
        std::filesystem::remove_all(scratchRoot + "/server_data", ec);
    }
}

void FuzzServer::connect(std::size_t i) { handleConnect(server, peer(i)); }
void FuzzServer::disconnect(std::size_t i) { handleDisconnect(server, peer(i)); }

void FuzzServer::receive(std::size_t i, std::uint8_t channel, const std::uint8_t* data, std::size_t size) {
    server.bytesReceived += static_cast<std::uint32_t>(size);
    dispatchPacket(server, peer(i), channel, ByteView(data, size), steadyMicros());
}
