#include "soak.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <deque>
#include <filesystem>
#include <fstream>
#include <memory>
#include <random>
#include <sstream>

#include <arpa/inet.h>
#include <enet/enet.h>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <unistd.h>

#include "junk.h"
#include "procfs.h"
#include "protocol.h"

namespace soak {

using loadbot::Bytes;

namespace {

constexpr std::uint64_t kMs = 1000000ull;
constexpr std::uint64_t kSec = 1000000000ull;
// Idle hosts are still served this often, for ENet's pings and resends.
constexpr std::uint64_t kSweepNs = 50 * kMs;
constexpr std::uint64_t kTickNs = 100 * kMs;
// Kept free below the peer limit: the status probe, the final client and
// peers whose end the server has not noticed yet when the status was taken.
constexpr std::uint32_t kHeadroom = 10;
// A vanished client holds its server peer until the server times it out,
// 40 s after its first unanswered packet at the least.
constexpr std::uint64_t kVanishedHoldNs = 45 * kSec;
constexpr std::uint64_t kStartStallNs = 15 * kSec;
constexpr std::uint64_t kJoinGiveUpNs = 10 * kSec;
constexpr std::uint64_t kCloseGraceNs = 3 * kSec;

std::uint64_t nowNs() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<std::uint64_t>(ts.tv_sec) * kSec + static_cast<std::uint64_t>(ts.tv_nsec);
}

struct Room;

struct Client {
    enum class State { Connecting, Lobby, Joining, InRoom, Confirming, Running, Closing, Closed };
    ENetHost* host = nullptr;
    ENetPeer* peer = nullptr;
    State state = State::Connecting;
    Room* room = nullptr;
    std::uint32_t slot = 0;
    std::uint32_t name = 0;
    int startNotices = 0;
    std::uint64_t sinceNs = 0;     // of the current state
    std::uint64_t idleUntilNs = 0;  // no new room before this
    std::uint64_t leaveAtNs = 0;    // a scheduled leave; 0: none
    std::uint64_t lastServiceNs = 0;
    bool probe = false;
};

struct Room {
    enum class Phase { Forming, Starting, Running, Ending };
    std::uint32_t index = 0;
    std::uint32_t serverId = 0;
    bool idKnown = false;
    std::uint32_t target = 2;
    std::vector<Client*> members;
    std::uint32_t pending = 0;  // joins and the creation under way
    Phase phase = Phase::Forming;
    std::uint64_t phaseNs = 0;
    bool ran = false;
    bool allPresent = true;
    bool stalled = false;
    std::uint32_t stepsSent = 0;
    std::uint32_t completed = 0;
    std::uint64_t progressNs = 0;
    std::uint64_t endAtNs = 0;
};

bool inRoomState(Client::State s) {
    return s == Client::State::InRoom || s == Client::State::Confirming || s == Client::State::Running;
}

class Soak {
public:
    Soak(const Config& config, const std::atomic<bool>& stop) : config_(config), stop_(stop), rng_(config.seed) {
        junk_ = junkCatalogue();
        result_.junkKinds = static_cast<std::uint32_t>(junk_.size());
    }
    Result run();

private:
    Client* open(bool probe);
    void close(Client& c);
    void vanish(Client& c);
    void send(Client& c, std::uint8_t channel, const Bytes& bytes);
    void serve(Client& c);
    void onEvent(Client& c, const ENetEvent& e);
    void onLobby(Client& c, const std::uint8_t* data, std::size_t length);
    void onText(Client& c, const std::string& text);
    void onOrder(Client& c, const std::uint8_t* data, std::size_t length);
    void pump(std::uint64_t untilNs);
    void detach(Client& c, bool vanished);
    void retireIfEmpty(Room* room);
    void leave(Client& c);
    void everySecond(std::uint64_t now);
    void everyTick(std::uint64_t now);
    void stepMatches(std::uint64_t now);
    void sendJunk(std::uint32_t count);
    void sample(double at);
    bool finalCheck();
    void reap();
    std::uint32_t live() const;
    std::uint32_t wanted(std::uint64_t now);
    template <typename Pred>
    Client* pick(Pred pred);
    std::uint64_t uniform(std::uint64_t lo, std::uint64_t hi) {
        return std::uniform_int_distribution<std::uint64_t>(lo, hi)(rng_);
    }

    const Config& config_;
    const std::atomic<bool>& stop_;
    std::mt19937 rng_;
    std::vector<JunkPacket> junk_;
    std::size_t nextJunk_ = 0;
    std::vector<std::unique_ptr<Client>> clients_;
    std::vector<std::unique_ptr<Room>> rooms_;
    std::uint32_t nextRoomIndex_ = 0;
    std::uint32_t nextName_ = 0;
    int epoll_ = -1;
    Client* status_ = nullptr;  // asks for the server's counts every second
    std::uint32_t serverPeers_ = 0;
    std::uint32_t connectedAtRequest_ = 0;
    std::deque<std::uint64_t> vanishedAt_;
    bool finalAnswered_ = false;
    Result result_;
};

Client* Soak::open(bool probe) {
    ENetAddress local{};
    local.host = htonl(INADDR_LOOPBACK);
    ENetAddress server{};
    server.host = htonl(INADDR_LOOPBACK);  // the only address this tool talks to
    server.port = config_.port;
    auto c = std::make_unique<Client>();
    c->host = enet_host_create(&local, 1, loadbot::kChannelCount, 0, 0);
    if (c->host == nullptr) return nullptr;
    c->peer = enet_host_connect(c->host, &server, loadbot::kChannelCount, 0);
    if (c->peer == nullptr) {
        enet_host_destroy(c->host);
        return nullptr;
    }
    enet_host_flush(c->host);
    c->probe = probe;
    c->name = nextName_++;
    c->sinceNs = c->lastServiceNs = nowNs();
    epoll_event ev{};
    ev.events = EPOLLIN;
    ev.data.ptr = c.get();
    epoll_ctl(epoll_, EPOLL_CTL_ADD, c->host->socket, &ev);
    clients_.push_back(std::move(c));
    return clients_.back().get();
}

void Soak::send(Client& c, std::uint8_t channel, const Bytes& bytes) {
    if (c.peer == nullptr) return;
    ENetPacket* packet = enet_packet_create(bytes.empty() ? nullptr : bytes.data(), bytes.size(),
                                            ENET_PACKET_FLAG_RELIABLE);
    if (enet_peer_send(c.peer, channel, packet) != 0) enet_packet_destroy(packet);
    enet_host_flush(c.host);
}

std::uint32_t Soak::live() const {
    std::uint32_t n = 0;
    for (const auto& c : clients_) n += c->state != Client::State::Closed && !c->probe;
    return n;
}

// How many soak clients the server can take now: the peer limit less the
// headroom and the vanished peers it still holds. Those are estimated from
// the last status (its peers beyond ours) and, until they have surely been
// timed out, from our own record of them.
std::uint32_t Soak::wanted(std::uint64_t now) {
    while (!vanishedAt_.empty() && now - vanishedAt_.front() > kVanishedHoldNs) vanishedAt_.pop_front();
    std::uint32_t held = static_cast<std::uint32_t>(vanishedAt_.size());
    if (serverPeers_ > connectedAtRequest_) held = std::max(held, serverPeers_ - connectedAtRequest_);
    std::uint32_t limit = config_.peers > kHeadroom ? config_.peers - kHeadroom : 1;
    return limit > held ? limit - held : 0;
}

void Soak::serve(Client& c) {
    ENetEvent event;
    while (c.host != nullptr && enet_host_service(c.host, &event, 0) > 0) onEvent(c, event);
    c.lastServiceNs = nowNs();
}

void Soak::pump(std::uint64_t untilNs) {
    epoll_event events[256];
    while (true) {
        std::uint64_t now = nowNs();
        for (auto& c : clients_)
            if (c->host != nullptr && now - c->lastServiceNs >= kSweepNs) serve(*c);
        now = nowNs();
        if (now >= untilNs) return;
        int waitMs = static_cast<int>(std::min<std::uint64_t>((untilNs - now) / kMs + 1, kSweepNs / kMs));
        int n = epoll_wait(epoll_, events, 256, waitMs);
        for (int i = 0; i < n; ++i) serve(*static_cast<Client*>(events[i].data.ptr));
    }
}

void Soak::onEvent(Client& c, const ENetEvent& e) {
    switch (e.type) {
        case ENET_EVENT_TYPE_CONNECT:
            if (c.state == Client::State::Connecting) {
                c.state = Client::State::Lobby;
                c.sinceNs = nowNs();
                c.idleUntilNs = c.sinceNs + uniform(0, 2000) * kMs;
                ++result_.connects;
            }
            break;
        case ENET_EVENT_TYPE_DISCONNECT:
            if (c.state != Client::State::Closing) {
                if (c.state == Client::State::Connecting)
                    ++result_.connectFailures;
                else
                    ++result_.serverDrops;
                detach(c, false);
            }
            c.peer = nullptr;
            c.state = Client::State::Closed;
            break;
        case ENET_EVENT_TYPE_RECEIVE: {
            const std::uint8_t* data = e.packet->data;
            std::size_t length = e.packet->dataLength;
            if (c.probe) {
                StatusCounts counts;
                if (e.channelID == loadbot::kLobbyChannel && parseServerStatus(data, length, counts)) {
                    serverPeers_ = counts.total();
                    result_.peakServerPeers = std::max(result_.peakServerPeers, serverPeers_);
                    if (&c != status_) finalAnswered_ = true;
                }
            } else if (e.channelID == loadbot::kLobbyChannel) {
                onLobby(c, data, length);
            } else if (e.channelID == loadbot::kTextChannel) {
                onText(c, std::string(reinterpret_cast<const char*>(data),
                                      strnlen(reinterpret_cast<const char*>(data), length)));
            } else if (e.channelID == loadbot::kOrderChannel) {
                onOrder(c, data, length);
            }
            enet_packet_destroy(e.packet);
            break;
        }
        default:
            break;
    }
}

void Soak::onLobby(Client& c, const std::uint8_t* data, std::size_t length) {
    loadbot::LobbyMessage m = loadbot::parseLobbyMessage(data, length);
    Room* room = c.room;
    using Kind = loadbot::LobbyMessage::Kind;
    if (room == nullptr) return;  // news of a room already left
    switch (m.kind) {
        case Kind::JoinAccepted:
            if (c.state != Client::State::Joining) return;
            if (!room->idKnown) {
                room->serverId = m.roomId;
                room->idKnown = true;
                ++result_.roomsCreated;
            }
            --room->pending;
            c.slot = m.slot;
            c.state = Client::State::InRoom;
            c.sinceNs = nowNs();
            room->members.push_back(&c);
            ++result_.joins;
            break;
        case Kind::PlayerSetup:
            // Our own slot shown as not ready (a fresh join, or the host
            // role that came to us): say ready again.
            if (c.state == Client::State::InRoom && room->phase == Room::Phase::Forming && m.slot == c.slot &&
                m.ready == 0)
                send(c, loadbot::kLobbyChannel,
                     loadbot::playerSetupMessage(c.slot, true, "soak" + std::to_string(c.name)));
            break;
        case Kind::StartGame:
            if (!inRoomState(c.state)) return;
            ++c.startNotices;
            if (room->phase == Room::Phase::Forming) {
                room->phase = Room::Phase::Starting;
                room->phaseNs = nowNs();
            }
            if (c.startNotices == 1) {
                send(c, loadbot::kLobbyChannel, loadbot::startGameMessage());  // the confirmation
                c.state = Client::State::Confirming;
            } else if (c.startNotices == 2) {
                c.state = Client::State::Running;
                bool all = std::all_of(room->members.begin(), room->members.end(),
                                       [](Client* m) { return m->state == Client::State::Running; });
                if (all && room->phase == Room::Phase::Starting) {
                    std::vector<std::uint32_t> slots;
                    std::sort(room->members.begin(), room->members.end(),
                              [](Client* a, Client* b) { return a->slot < b->slot; });
                    for (Client* member : room->members) slots.push_back(member->slot);
                    slots = compactedSlots(slots);
                    for (std::size_t i = 0; i < slots.size(); ++i) room->members[i]->slot = slots[i];
                    std::uint64_t now = nowNs();
                    room->phase = Room::Phase::Running;
                    room->phaseNs = room->progressNs = now;
                    room->ran = true;
                    room->endAtNs = now + uniform(15, 60) * kSec;
                    ++result_.matchesStarted;
                }
            }
            break;
        default:
            break;
    }
}

void Soak::onText(Client& c, const std::string& text) {
    Room* room = c.room;
    if (room == nullptr) return;
    if (c.state == Client::State::Joining && text.rfind("Cannot join", 0) == 0) {
        ++result_.joinRefusals;
        detach(c, false);
        c.state = Client::State::Lobby;
        c.sinceNs = nowNs();
    } else if (room->phase == Room::Phase::Starting && text.rfind("Cannot start game because", 0) == 0 &&
               c.startNotices == 0) {
        // A member's ready setup had not arrived when the start was checked:
        // the next request is a new one.
        ++result_.startRefusals;
        room->phase = Room::Phase::Forming;
        room->phaseNs = nowNs();
    }
}

void Soak::onOrder(Client& c, const std::uint8_t* data, std::size_t length) {
    Room* room = c.room;
    if (room == nullptr || c.state != Client::State::Running) return;
    if (auto notice = loadbot::parseNotice(data, length)) {
        if (notice->step > room->completed && notice->step <= room->stepsSent) {
            result_.stepsCompleted += notice->step - room->completed;
            room->completed = notice->step;
            room->progressNs = nowNs();
        }
        return;
    }
    ++result_.relaysReceived;
}

// Takes the client out of its room in our books. A match that loses a player
// ends: the others follow it out. A room still forming that loses a player
// who vanished is given up, since the server keeps that player in it until
// the time-out and would wait for it at the start.
void Soak::detach(Client& c, bool vanished) {
    Room* room = c.room;
    if (room == nullptr) return;
    if (c.state == Client::State::Joining) {
        --room->pending;
    } else {
        room->members.erase(std::remove(room->members.begin(), room->members.end(), &c), room->members.end());
    }
    c.room = nullptr;
    c.startNotices = 0;
    std::uint64_t now = nowNs();
    bool giveUp = room->phase == Room::Phase::Running || room->phase == Room::Phase::Starting ||
                  (vanished && c.state != Client::State::Joining);
    if (giveUp && room->phase != Room::Phase::Ending) {
        room->allPresent = false;
        room->phase = Room::Phase::Ending;
        room->phaseNs = now;
        for (Client* m : room->members) m->leaveAtNs = now + uniform(300, 4000) * kMs;
    }
    retireIfEmpty(room);
}

void Soak::retireIfEmpty(Room* room) {
    if (!room->members.empty() || room->pending != 0) return;
    if (room->ran) ++result_.matchesEnded;
    rooms_.erase(std::remove_if(rooms_.begin(), rooms_.end(), [room](const auto& r) { return r.get() == room; }),
                 rooms_.end());
}

void Soak::leave(Client& c) {
    if (c.room == nullptr || !inRoomState(c.state)) return;
    if (c.state == Client::State::Running)
        send(c, 2, leaveMatchMessage());
    else
        send(c, loadbot::kLobbyChannel, leaveRoomMessage());
    ++result_.leaves;
    detach(c, false);
    c.state = Client::State::Lobby;
    c.leaveAtNs = 0;
    c.sinceNs = nowNs();
    c.idleUntilNs = c.sinceNs + kSec;
}

void Soak::close(Client& c) {
    detach(c, false);
    if (c.peer != nullptr) enet_peer_disconnect(c.peer, 0);
    enet_host_flush(c.host);
    c.state = Client::State::Closing;
    c.sinceNs = nowNs();
    ++result_.disconnects;
}

// The client stops answering: the server hears nothing more from it and
// has to time it out.
void Soak::vanish(Client& c) {
    detach(c, true);
    enet_peer_reset(c.peer);
    c.peer = nullptr;
    c.state = Client::State::Closed;
    vanishedAt_.push_back(nowNs());
    ++result_.timeoutsProvoked;
}

template <typename Pred>
Client* Soak::pick(Pred pred) {
    std::vector<Client*> candidates;
    for (auto& c : clients_)
        if (!c->probe && c->peer != nullptr && pred(*c)) candidates.push_back(c.get());
    if (candidates.empty()) return nullptr;
    return candidates[uniform(0, candidates.size() - 1)];
}

void Soak::reap() {
    std::uint64_t now = nowNs();
    for (auto& c : clients_) {
        if (c->state == Client::State::Closing && now - c->sinceNs > kCloseGraceNs) {
            if (c->peer != nullptr) enet_peer_reset(c->peer);
            c->peer = nullptr;
            c->state = Client::State::Closed;
        }
        if (c->state == Client::State::Connecting && now - c->sinceNs > 10 * kSec) {
            ++result_.connectFailures;
            enet_peer_reset(c->peer);
            c->peer = nullptr;
            c->state = Client::State::Closed;
        }
        if (c->state == Client::State::Closed && c->host != nullptr) {
            epoll_ctl(epoll_, EPOLL_CTL_DEL, c->host->socket, nullptr);
            enet_host_destroy(c->host);
            c->host = nullptr;
        }
    }
    clients_.erase(std::remove_if(clients_.begin(), clients_.end(),
                                  [this](const auto& c) { return c->host == nullptr && c.get() != status_; }),
                   clients_.end());
}

void Soak::everyTick(std::uint64_t now) {
    // Scheduled leaves, and joins that were never answered.
    for (auto& c : clients_) {
        if (c->leaveAtNs != 0 && now >= c->leaveAtNs) {
            c->leaveAtNs = 0;
            leave(*c);
        }
        if (c->state == Client::State::Joining && now - c->sinceNs > kJoinGiveUpNs) {
            detach(*c, false);
            c->state = Client::State::Lobby;
            c->sinceNs = now;
        }
    }
    // Rooms: start the full ones, fill the forming ones, give up stuck starts.
    std::vector<Room*> rooms;
    for (auto& r : rooms_) rooms.push_back(r.get());
    for (Room* room : rooms) {
        if (room->phase == Room::Phase::Forming && room->idKnown) {
            bool ready = room->members.size() == room->target && room->pending == 0 &&
                         std::all_of(room->members.begin(), room->members.end(), [&](Client* m) {
                             return m->state == Client::State::InRoom && now - m->sinceNs > 300 * kMs;
                         });
            if (ready) {
                room->phase = Room::Phase::Starting;
                room->phaseNs = now;
                send(*room->members.front(), loadbot::kLobbyChannel, loadbot::startGameMessage());
                continue;
            }
            while (room->members.size() + room->pending < room->target) {
                Client* joiner = pick([&](const Client& c) {
                    return c.state == Client::State::Lobby && c.leaveAtNs == 0 && now >= c.idleUntilNs;
                });
                if (joiner == nullptr) break;
                joiner->room = room;
                joiner->state = Client::State::Joining;
                joiner->sinceNs = now;
                ++room->pending;
                send(*joiner, loadbot::kLobbyChannel, loadbot::joinRoomMessage(room->serverId));
            }
        } else if (room->phase == Room::Phase::Starting && now - room->phaseNs > kStartStallNs) {
            ++result_.stalledStarts;
            std::fprintf(stderr, "soak: room %u (server ID %u) did not start within %llu s\n", room->index,
                         room->serverId, static_cast<unsigned long long>(kStartStallNs / kSec));
            room->phase = Room::Phase::Ending;
            room->allPresent = false;
            for (Client* m : room->members) m->leaveAtNs = now;
        }
    }
    reap();
    // Replacements, a burst at a time.
    std::uint32_t want = wanted(now);
    for (int k = 0; k < 64 && live() < want; ++k)
        if (open(false) == nullptr) break;
}

void Soak::everySecond(std::uint64_t now) {
    std::uint32_t population = std::max<std::uint32_t>(config_.peers, 8);
    auto inRoom = [](const Client& c) {
        return (c.state == Client::State::InRoom && c.room->phase == Room::Phase::Forming) ||
               (c.state == Client::State::Running && c.room->phase == Room::Phase::Running);
    };
    auto settled = [&](const Client& c) { return c.state == Client::State::Lobby || inRoom(c); };
    // A player stays about a minute in a room; a match ends with its first
    // leaver, so matches last several seconds to a minute.
    std::uint32_t members = 0;
    for (auto& c : clients_) members += !c->probe && c->peer != nullptr && c->room != nullptr && inRoom(*c);
    for (std::uint32_t k = 0; k < std::max<std::uint32_t>(1, members / 64); ++k)
        if (Client* c = pick(inRoom)) leave(*c);
    for (std::uint32_t k = 0; k < std::max<std::uint32_t>(1, population / 256); ++k)
        if (Client* c = pick(settled)) close(*c);
    for (std::uint32_t k = 0; k < std::max<std::uint32_t>(1, population / 512); ++k)
        if (Client* c = pick([](const Client& c) {
                return c.state == Client::State::Lobby ||
                       (c.state == Client::State::Running && c.room->phase == Room::Phase::Running);
            }))
            vanish(*c);
    // Matches that have run their course: one player leaves, the rest follow.
    for (auto& room : rooms_)
        if (room->phase == Room::Phase::Running && now >= room->endAtNs && !room->members.empty())
            room->members.front()->leaveAtNs = now;
    // New rooms while there are players in the lobby to fill them.
    std::uint32_t lobby = 0, forming = 0;
    for (auto& c : clients_) lobby += c->state == Client::State::Lobby && !c->probe;
    for (auto& r : rooms_) forming += r->phase == Room::Phase::Forming;
    for (std::uint32_t k = 0; k < 32 && forming * 4 < lobby; ++k) {
        Client* creator =
            pick([&](const Client& c) { return c.state == Client::State::Lobby && now >= c.idleUntilNs; });
        if (creator == nullptr) break;
        auto room = std::make_unique<Room>();
        room->index = nextRoomIndex_++;
        room->target = static_cast<std::uint32_t>(uniform(2, 6));
        room->pending = 1;
        room->phaseNs = now;
        creator->room = room.get();
        creator->state = Client::State::Joining;
        creator->sinceNs = now;
        send(*creator, loadbot::kLobbyChannel,
             loadbot::createRoomMessage("soak " + std::to_string(room->index), "soak", 0x50A4));
        rooms_.push_back(std::move(room));
        ++forming;
    }
    sendJunk(config_.junkPerSecond != 0 ? config_.junkPerSecond : std::max<std::uint32_t>(1, population / 32));
    if (status_ != nullptr && status_->peer != nullptr && status_->state == Client::State::Lobby) {
        connectedAtRequest_ = 1;
        for (auto& c : clients_) connectedAtRequest_ += !c->probe && c->peer != nullptr && c->state != Client::State::Connecting;
        send(*status_, loadbot::kLobbyChannel, roomListRequestMessage(0));
    }
}

void Soak::sendJunk(std::uint32_t count) {
    for (std::uint32_t k = 0; k < count; ++k) {
        const JunkPacket& packet = junk_[nextJunk_];
        nextJunk_ = (nextJunk_ + 1) % junk_.size();
        Client* sender = nullptr;
        if (packet.wantsMember)
            sender = pick([](const Client& c) { return c.state == Client::State::Running; });
        if (sender == nullptr)
            sender = pick([](const Client& c) {
                return c.state != Client::State::Connecting && c.state != Client::State::Closing;
            });
        if (sender == nullptr) continue;
        send(*sender, packet.channel, packet.bytes);
        ++result_.junkSent;
    }
}

void Soak::stepMatches(std::uint64_t now) {
    for (auto& room : rooms_) {
        if (room->phase != Room::Phase::Running || !room->allPresent) continue;
        if (!room->stalled && room->stepsSent > room->completed &&
            now - room->progressNs > static_cast<std::uint64_t>(config_.stallSeconds * 1e9)) {
            room->stalled = true;
            ++result_.stalledMatches;
            std::fprintf(stderr, "soak: match in room %u (server ID %u) stalled at step %u of %u sent\n",
                         room->index, room->serverId, room->completed, room->stepsSent);
        }
        std::uint32_t step = ++room->stepsSent;
        ++result_.stepsSent;
        for (Client* m : room->members) {
            send(*m, loadbot::kOrderChannel, loadbot::encodeProbe(loadbot::Probe{room->index, m->slot, step, now, 0}));
            send(*m, loadbot::kOrderChannel, loadbot::stepDoneMessage(step, m->slot));
        }
    }
}

void Soak::sample(double at) {
    if (!config_.serverPid) return;
    std::error_code ec;
    std::string dir = "/proc/" + std::to_string(*config_.serverPid);
    std::uint64_t fds = 0;
    for (auto it = std::filesystem::directory_iterator(dir + "/fd", ec); !ec && it != std::filesystem::directory_iterator();
         it.increment(ec))
        ++fds;
    std::ifstream in(dir + "/status");
    std::stringstream text;
    text << in.rdbuf();
    auto rss = loadbot::parseStatusField(text.str(), "VmRSS");
    if (!rss || fds == 0) return;
    Sample s{at, fds, *rss};
    result_.samples.push_back(s);
    if (!result_.warm && at >= 0.2 * config_.seconds) result_.warm = s;
    result_.last = s;
}

bool Soak::finalCheck() {
    Client* fresh = open(true);
    if (fresh == nullptr) return false;
    std::uint64_t deadline = nowNs() + 10 * kSec;
    bool asked = false;
    while (!finalAnswered_ && nowNs() < deadline) {
        pump(nowNs() + 20 * kMs);
        if (!asked && fresh->state == Client::State::Lobby) {
            send(*fresh, loadbot::kLobbyChannel, roomListRequestMessage(0));
            asked = true;
        }
    }
    return finalAnswered_;
}

Result Soak::run() {
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur < limit.rlim_max) {
        limit.rlim_cur = limit.rlim_max;
        setrlimit(RLIMIT_NOFILE, &limit);
    }
    epoll_ = epoll_create1(EPOLL_CLOEXEC);
    status_ = open(true);
    std::uint64_t start = nowNs();
    std::uint64_t end = start + static_cast<std::uint64_t>(config_.seconds * 1e9);
    std::uint64_t stepPeriod = static_cast<std::uint64_t>(1e9 / std::max(0.1, config_.stepRate));
    double samplePeriod = std::min(config_.sampleSeconds, std::max(1.0, config_.seconds / 10));
    std::uint64_t nextTick = start, nextSecond = start + kSec, nextStep = start, nextSample = start;
    double sampledAt = 0;
    while (!stop_) {
        std::uint64_t now = nowNs();
        if (now >= end) break;
        if (now >= nextSample) {
            sample(static_cast<double>(now - start) / 1e9);
            sampledAt += samplePeriod;
            nextSample = start + static_cast<std::uint64_t>(sampledAt * 1e9);
        }
        if (now >= nextTick) {
            everyTick(now);
            nextTick += kTickNs;
        }
        if (now >= nextSecond) {
            everySecond(now);
            nextSecond += kSec;
        }
        if (now >= nextStep) {
            stepMatches(now);
            nextStep += stepPeriod;
        }
        pump(std::min({nextTick, nextSecond, nextStep, nextSample, end}));
    }
    sample(static_cast<double>(nowNs() - start) / 1e9);
        for (auto& room : rooms_) result_.matchesRunningAtEnd += room->ran;
    result_.finalAnswer = finalCheck();
    result_.flatVerdict = flatness(result_.warm, result_.last, config_.judgeMemory);
    // The goodbyes below are not churn: the figures stop here.
    Result figures = result_;
    for (auto& c : clients_)
        if (c->peer != nullptr) {
            enet_peer_disconnect(c->peer, 0);
            enet_host_flush(c->host);
        }
    std::uint64_t closeEnd = nowNs() + 500 * kMs;
    pump(closeEnd);
    for (auto& c : clients_) {
        if (c->host == nullptr) continue;
        if (c->peer != nullptr && c->state != Client::State::Closed) enet_peer_reset(c->peer);
        enet_host_destroy(c->host);
        c->host = nullptr;
    }
    ::close(epoll_);
    return figures;
}

}  // namespace

std::string flatness(const std::optional<Sample>& warm, const std::optional<Sample>& last, bool judgeMemory) {
    if (!warm || !last || last->at <= warm->at) return "skipped";
    bool fdsFlat = last->fds <= warm->fds + 16;
    bool rssFlat = !judgeMemory || static_cast<double>(last->rssKib) <= static_cast<double>(warm->rssKib) * 1.10;
    return fdsFlat && rssFlat ? "flat" : "growing";
}

std::vector<std::uint32_t> compactedSlots(const std::vector<std::uint32_t>& slots) {
    std::vector<std::uint32_t> sorted = slots;
    std::sort(sorted.begin(), sorted.end());
    std::vector<std::uint32_t> out;
    for (std::uint32_t s : slots)
        out.push_back(static_cast<std::uint32_t>(std::lower_bound(sorted.begin(), sorted.end(), s) - sorted.begin()));
    return out;
}

Result runSoak(const Config& config, const std::atomic<bool>& stop) { return Soak(config, stop).run(); }

std::string resultJson(const Config& config, const Result& r) {
    std::ostringstream o;
    auto sampleJson = [](const std::optional<Sample>& s) {
        if (!s) return std::string("null");
        return "{\"at\":" + std::to_string(s->at) + ",\"fds\":" + std::to_string(s->fds) +
               ",\"rss_kib\":" + std::to_string(s->rssKib) + "}";
    };
    o << "{\"pass\":" << (r.pass() ? "true" : "false") << ",\"seconds\":" << config.seconds
      << ",\"peers\":" << config.peers << ",\"peak_server_peers\":" << r.peakServerPeers
      << ",\"connects\":" << r.connects << ",\"connect_failures\":" << r.connectFailures
      << ",\"rooms_created\":" << r.roomsCreated << ",\"joins\":" << r.joins
      << ",\"join_refusals\":" << r.joinRefusals << ",\"start_refusals\":" << r.startRefusals
      << ",\"matches_started\":" << r.matchesStarted << ",\"matches_ended\":" << r.matchesEnded << ",\"matches_running_at_end\":" << r.matchesRunningAtEnd
      << ",\"steps_sent\":" << r.stepsSent << ",\"steps_completed\":" << r.stepsCompleted
      << ",\"relays_received\":" << r.relaysReceived << ",\"leaves\":" << r.leaves
      << ",\"disconnects\":" << r.disconnects << ",\"timeouts_provoked\":" << r.timeoutsProvoked
      << ",\"server_drops\":" << r.serverDrops << ",\"malformed_sent\":" << r.junkSent
      << ",\"malformed_kinds\":" << r.junkKinds << ",\"stalled_matches\":" << r.stalledMatches
      << ",\"stalled_starts\":" << r.stalledStarts << ",\"final_answer\":" << (r.finalAnswer ? "true" : "false")
      << ",\"flat\":\"" << r.flatVerdict << "\",\"warm\":" << sampleJson(r.warm)
      << ",\"end\":" << sampleJson(r.last) << "}";
    return o.str();
}

std::string resultSummary(const Config& config, const Result& r) {
    std::ostringstream o;
    auto verdict = [](bool ok) { return ok ? "pass" : "FAIL"; };
    o << "soak: " << config.seconds << " s, up to " << config.peers << " peers (server saw at most "
      << r.peakServerPeers << ")\n"
      << "  connects " << r.connects << " (failed " << r.connectFailures << "), leaves " << r.leaves
      << ", disconnects " << r.disconnects << ", time-outs provoked " << r.timeoutsProvoked << ", dropped by server "
      << r.serverDrops << "\n"
      << "  rooms created " << r.roomsCreated << ", joins " << r.joins << " (refused " << r.joinRefusals
      << "), start refusals " << r.startRefusals << "\n"
      << "  matches started " << r.matchesStarted << ", ended " << r.matchesEnded << " (" << r.matchesRunningAtEnd << " still running at the end)" << ", steps sent "
      << r.stepsSent << ", completed " << r.stepsCompleted << ", relays received " << r.relaysReceived << "\n"
      << "  malformed packets sent " << r.junkSent << " (" << r.junkKinds << " kinds)\n";
    if (r.warm && r.last)
        o << "  server fds " << r.warm->fds << " -> " << r.last->fds << ", RSS " << r.warm->rssKib << " -> "
          << r.last->rssKib << " KiB (at " << static_cast<int>(r.warm->at) << " s and "
          << static_cast<int>(r.last->at) << " s)\n";
    o << "  steps keep completing: " << verdict(r.stalledMatches == 0) << " (" << r.stalledMatches
      << " stalled matches)\n"
      << "  starts complete: " << verdict(r.stalledStarts == 0) << " (" << r.stalledStarts << " stalled)\n"
      << "  new client answered at the end: " << verdict(r.finalAnswer) << "\n"
      << (config.judgeMemory ? "  fds and RSS flat after warm-up: " : "  fds flat after warm-up (RSS not judged): ")
      << (r.flatVerdict == "skipped" ? "skipped" : verdict(r.flatVerdict == "flat")) << "\n"
      << "  overall: " << verdict(r.pass()) << "\n";
    return o.str();
}

}  // namespace soak
