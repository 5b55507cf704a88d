#include "support/harness.h"

#include <cstring>
#include <utility>

#include "app/dispatch.h"
#include "app/invariants.h"
#include "app/peers.h"
#include "app/service.h"
#include "lobby/lobby.h"
#include "log/log.h"
#include "platform/clock.h"
#include "platform/files.h"
#include "protocol/send.h"

void PrintTo(const Sent& s, std::ostream* os) {
    *os << "{peer " << s.peer << ", channel " << int(s.channel) << ", " << s.bytes.size() << " bytes:";
    for (std::uint8_t b : s.bytes) *os << ' ' << int(b);
    *os << '}';
}

Harness::Harness(std::size_t peerCount) {
    peers_.resize(peerCount);
    for (std::size_t i = 0; i < peerCount; ++i) {
        ENetPeer* p = &peers_[i];
        std::memset(p, 0, sizeof(ENetPeer));
        std::uint8_t ip[4] = {10, 0, 0, static_cast<std::uint8_t>(i + 1)};
        std::memcpy(&p->address.host, ip, 4);
        p->address.port = static_cast<enet_uint16>(5000 + i);
        // As a host numbers its peers.
        p->incomingPeerID = static_cast<enet_uint16>(i);
    }
    setPacketRecorder([this](ENetPeer* to, std::uint8_t channel, ByteView bytes) {
        std::size_t i = 0;
        while (i < peers_.size() && &peers_[i] != to) ++i;
        sent_.push_back(Sent{i, channel, Bytes(bytes.begin(), bytes.end())});
    });
    setDisconnectRecorder([this](ENetPeer* to) {
        std::size_t i = 0;
        while (i < peers_.size() && &peers_[i] != to) ++i;
        sent_.push_back(Sent{i, kDisconnectedMark, {}});
    });
    resetGlobalGenerator();
    takeQueuedLogTexts();
}

Harness::~Harness() {
    for (ENetPeer* p : server.peers) {
        delete recordOf(p);
        p->data = nullptr;
    }
    setPacketRecorder(nullptr);
    setDisconnectRecorder(nullptr);
    setSteadyClockForTests(std::nullopt);
    takeQueuedLogTexts();
}

void Harness::checkInvariants() { EXPECT_EQ(brokenInvariant(server), ""); }

void Harness::connect(std::size_t i) {
    handleConnect(server, peer(i));
    checkInvariants();
}

void Harness::disconnect(std::size_t i) {
    handleDisconnect(server, peer(i));
    checkInvariants();
}

void Harness::receive(std::size_t i, std::uint8_t channel, const Bytes& bytes) {
    dispatchPacket(server, peer(i), channel, ByteView(bytes), steadyMicros());
    checkInvariants();
}

void Harness::step() {
    runRoomWork(server, steadyMicros());
    checkInvariants();
}

std::vector<Sent> Harness::takeSent() { return std::exchange(sent_, {}); }

std::vector<std::string> Harness::takeLogs() { return takeQueuedLogTexts(); }

Room& Harness::roomOfReady(std::size_t n) {
    for (std::size_t i = 0; i < n; ++i) connect(i);
    lobby(0, CreateRoom{1, "", "data", 77});
    const std::uint32_t id = server.rooms.nextRoomId - 1;
    for (std::size_t i = 1; i < n; ++i) lobby(i, JoinRoom{1, id});
    for (std::size_t i = 0; i < n; ++i)
        lobby(i, setupOf(static_cast<std::uint32_t>(i), 1, "P" + std::to_string(i)));
    takeSent();
    takeLogs();
    return room(id);
}

void Harness::markRunning(Room& room) {
    room.open = false;
    room.started = room.running = true;
    server.rooms.newlyRunning.push_back(&room);
}

Room& Harness::runningRoom(std::size_t n) {
    Room& room = roomOfReady(n);
    markRunning(room);
    return room;
}

PlayerSetup setupOf(std::uint32_t slot, std::uint32_t ready, const std::string& name, std::uint32_t tag,
                    std::uint32_t location) {
    PlayerSetup s;
    s.slot = slot;
    s.ready = ready;
    s.playerTag = tag;
    s.startLocation = location;
    s.playerName = name;
    s.bytes = encode(s);
    return s;
}

std::vector<Sent> toEach(std::initializer_list<std::size_t> peers, std::uint8_t channel, const Bytes& bytes) {
    std::vector<Sent> out;
    for (std::size_t p : peers) out.push_back(Sent{p, channel, bytes});
    return out;
}

std::vector<Sent> operator+(std::vector<Sent> a, const std::vector<Sent>& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

Bytes words(std::initializer_list<std::uint32_t> values) {
    Writer w;
    for (auto v : values) w.u32(v);
    return w.take();
}

TempDataRoot::TempDataRoot() : savedPrefix_(dataRootPrefix()) {
    char tmpl[] = "/tmp/lockstep-unit-XXXXXX";
    root_ = mkdtemp(tmpl);
    setDataRootPrefix(root_.string() + "/");
}

TempDataRoot::~TempDataRoot() {
    setDataRootPrefix(savedPrefix_);
    setClockForTests(std::nullopt);
    std::error_code ec;
    std::filesystem::remove_all(root_, ec);
}

Bytes checksumOrder(std::uint32_t step, std::uint32_t value) {
    Order o;
    o.step = step;
    o.argument = value;
    o.firstList = {};
    o.orderType = kChecksumOrderType;
    return serializeOrder(o);
}
