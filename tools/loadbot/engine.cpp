#include "engine.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstring>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include <arpa/inet.h>
#include <enet/enet.h>
#include <sys/epoll.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include "protocol.h"

namespace loadbot {

std::uint64_t monotonicNs() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<std::uint64_t>(ts.tv_sec) * 1000000000ull + static_cast<std::uint64_t>(ts.tv_nsec);
}

namespace {

constexpr std::uint64_t kMs = 1000000ull;
constexpr std::uint64_t kSec = 1000000000ull;
// A host with nothing to read is still served this often, for ENet's own
// timers (retransmissions, pings, time-outs).
constexpr std::uint64_t kIdleServiceNs = 20 * kMs;
constexpr std::uint64_t kSweepNs = 5 * kMs;
// Steps remembered per room for the notice checks; far more than are ever in
// flight at once.
constexpr std::uint32_t kStepRing = 4096;

struct Room;

struct Client {
    enum class State { Connecting, Connected, Joining, InRoom, Confirming, Running, Closing, Closed, Failed };
    ENetHost* host = nullptr;
    ENetPeer* peer = nullptr;
    Room* room = nullptr;      // none for a downloader
    std::uint32_t member = 0;  // 0 creates the room
    std::uint32_t slot = 0xFFFFFFFF;
    State state = State::Connecting;
    int startNotices = 0;
    std::uint64_t lastServiceNs = 0;
    Sequence relaysFrom[8];
    Sequence notices;
    bool downloading = false;
};

struct StepMark {
    std::uint32_t step = 0;
    std::uint32_t reported = 0;  // members that sent their step-done
    std::uint64_t lastNs = 0;    // when the last of them did
};

struct Room {
    std::uint32_t index = 0;
    std::uint32_t serverId = 0;
    bool idAssigned = false;
    std::vector<Client*> members;
    std::uint32_t readyMask = 0;  // as the creator sees the setups
    bool startRequested = false;
    std::uint32_t running = 0;
    std::uint64_t offsetNs = 0;  // of its sends within each step period
    std::uint32_t lastStepSent = 0;
    std::vector<StepMark> marks = std::vector<StepMark>(kStepRing);
};

struct Shared {
    std::atomic<unsigned> setupDone{0};
    std::atomic<bool> setupFailed{false};
    std::atomic<std::uint64_t> playStartNs{0};
    std::atomic<unsigned> drained{0};
    std::atomic<bool> disconnect{false};
    std::mutex errorLock;
    std::string setupError;

    void fail(const std::string& error) {
        std::lock_guard<std::mutex> lock(errorLock);
        if (setupError.empty()) setupError = error;
        setupFailed = true;
    }
};

class Worker {
public:
    Worker(const Config& config, Shared& shared, const std::atomic<bool>& stop)
        : config_(config), shared_(shared), stop_(stop) {}

    void addRoom(std::uint32_t roomIndex) {
        auto room = std::make_unique<Room>();
        room->index = roomIndex;
        room->offsetNs = static_cast<std::uint64_t>(roomIndex) * periodNs() / config_.rooms;
        for (std::uint32_t m = 0; m < config_.players; ++m) {
            auto client = std::make_unique<Client>();
            client->room = room.get();
            client->member = m;
            room->members.push_back(client.get());
            clients_.push_back(std::move(client));
        }
        rooms_.push_back(std::move(room));
    }

    void addDownloader() { clients_.push_back(std::make_unique<Client>()); }

    void run();
    Result& result() { return result_; }

private:
    std::uint64_t periodNs() const { return static_cast<std::uint64_t>(std::llround(1e9 / config_.rate)); }
    bool openAll();
    void pump(std::uint64_t deadlineNs);
    void serve(Client& client, std::uint64_t arrivalNs);
    void onEvent(Client& client, const ENetEvent& event, std::uint64_t arrivalNs);
    void onLobby(Client& client, const std::uint8_t* data, std::size_t length);
    void onOrder(Client& client, const std::uint8_t* data, std::size_t length, std::uint64_t arrivalNs);
    void send(Client& client, std::uint8_t channel, const Bytes& bytes, bool flush = true);
    void maybeJoin(Client& client);
    void sendStep(Room& room, std::uint32_t step);
    void requestFile(Client& client);
    void onFileData(Client& client, const std::uint8_t* data, std::size_t length);
    bool setupComplete() const;
    bool allArrived() const;
    void finishAccounting();
    void closeAll();

    const Config& config_;
    Shared& shared_;
    const std::atomic<bool>& stop_;
    std::vector<std::unique_ptr<Room>> rooms_;
    std::vector<std::unique_ptr<Client>> clients_;
    int epoll_ = -1;
    int timer_ = -1;
    std::uint64_t armedNs_ = 0;
    std::uint64_t lastSweepNs_ = 0;
    bool playing_ = false;
    bool downloadsOpen_ = false;
    Result result_;
};

bool Worker::openAll() {
    epoll_ = epoll_create1(EPOLL_CLOEXEC);
    timer_ = timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC);
    if (epoll_ < 0 || timer_ < 0) {
        shared_.fail("cannot create epoll or timerfd");
        return false;
    }
    epoll_event ev{};
    ev.events = EPOLLIN;
    ev.data.ptr = nullptr;  // the timer
    epoll_ctl(epoll_, EPOLL_CTL_ADD, timer_, &ev);

    ENetAddress local{};
    local.host = htonl(INADDR_LOOPBACK);
    local.port = 0;
    ENetAddress server{};
    server.host = htonl(INADDR_LOOPBACK);  // the only address this tool ever talks to
    server.port = config_.port;
    for (auto& client : clients_) {
        client->host = enet_host_create(&local, 1, kChannelCount, 0, 0);
        if (client->host == nullptr) {
            shared_.fail("cannot create an ENet client host (file descriptors?)");
            return false;
        }
        client->peer = enet_host_connect(client->host, &server, kChannelCount, 0);
        if (client->peer == nullptr) {
            shared_.fail("cannot start an ENet connection");
            return false;
        }
        enet_host_flush(client->host);
        ev.events = EPOLLIN;
        ev.data.ptr = client.get();
        epoll_ctl(epoll_, EPOLL_CTL_ADD, client->host->socket, &ev);
    }
    return true;
}

void Worker::send(Client& client, std::uint8_t channel, const Bytes& bytes, bool flush) {
    ENetPacket* packet = enet_packet_create(bytes.data(), bytes.size(), ENET_PACKET_FLAG_RELIABLE);
    if (enet_peer_send(client.peer, channel, packet) != 0) enet_packet_destroy(packet);
    if (flush) enet_host_flush(client.host);
}

void Worker::serve(Client& client, std::uint64_t arrivalNs) {
    ENetEvent event;
    while (client.host != nullptr && enet_host_service(client.host, &event, 0) > 0) onEvent(client, event, arrivalNs);
    client.lastServiceNs = arrivalNs;
}

// Waits for traffic and serves it until deadlineNs, the next scheduled
// send, whichever is first.
void Worker::pump(std::uint64_t deadlineNs) {
    std::uint64_t now = monotonicNs();
    if (now - lastSweepNs_ >= kSweepNs) {
        for (auto& client : clients_)
            if (client->host != nullptr && now - client->lastServiceNs >= kIdleServiceNs) serve(*client, now);
        lastSweepNs_ = now;
        now = monotonicNs();
    }
    std::uint64_t wake = std::min(deadlineNs, lastSweepNs_ + kSweepNs);
    if (wake <= now) wake = now + 1;
    if (wake != armedNs_) {
        itimerspec when{};
        when.it_value.tv_sec = static_cast<time_t>(wake / kSec);
        when.it_value.tv_nsec = static_cast<long>(wake % kSec);
        timerfd_settime(timer_, TFD_TIMER_ABSTIME, &when, nullptr);
        armedNs_ = wake;
    }
    epoll_event events[256];
    int n = epoll_wait(epoll_, events, 256, 100);
    std::uint64_t arrival = monotonicNs();
    for (int i = 0; i < n; ++i) {
        auto* client = static_cast<Client*>(events[i].data.ptr);
        if (client == nullptr) {
            std::uint64_t expirations;
            [[maybe_unused]] ssize_t got = read(timer_, &expirations, sizeof expirations);
            armedNs_ = 0;
            continue;
        }
        serve(*client, arrival);
        // Later sockets of the same batch get a fresh stamp, so the time
        // spent on the earlier ones does not count as network latency.
        arrival = monotonicNs();
    }
}

void Worker::onEvent(Client& client, const ENetEvent& event, std::uint64_t arrivalNs) {
    switch (event.type) {
        case ENET_EVENT_TYPE_CONNECT:
            client.state = Client::State::Connected;
            if (config_.idle || client.room == nullptr) break;
            if (client.member == 0) {
                send(client, kLobbyChannel,
                     createRoomMessage("loadbot " + std::to_string(client.room->index), "loadbot", 0x10AD));
                client.state = Client::State::Joining;
            } else {
                maybeJoin(client);
            }
            break;
        case ENET_EVENT_TYPE_DISCONNECT:
            if (client.state == Client::State::Closing) {
                ++result_.cleanDisconnects;
            } else {
                ++result_.droppedConnections;
                if (!playing_) shared_.fail("the server dropped a connection during set-up");
            }
            client.state = Client::State::Closed;
            client.peer = nullptr;
            break;
        case ENET_EVENT_TYPE_RECEIVE: {
            const std::uint8_t* data = event.packet->data;
            std::size_t length = event.packet->dataLength;
            if (client.room == nullptr) {
                if (event.channelID == kFileUpdateChannel) onFileData(client, data, length);
            } else if (playing_ && event.channelID == kOrderChannel) {
                onOrder(client, data, length, arrivalNs);
            } else if (!playing_ && event.channelID == kLobbyChannel) {
                onLobby(client, data, length);
            } else if (event.channelID == kTextChannel && !playing_ && !config_.idle) {
                std::string text(reinterpret_cast<const char*>(data),
                                 strnlen(reinterpret_cast<const char*>(data), length));
                shared_.fail("text from the server during set-up: " + text);
            } else if (playing_) {
                ++result_.otherMessages[event.channelID & 7];
                if (event.channelID == kTextChannel && result_.firstText.empty())
                    result_.firstText.assign(reinterpret_cast<const char*>(data),
                                             strnlen(reinterpret_cast<const char*>(data), length));
            }
            enet_packet_destroy(event.packet);
            break;
        }
        default:
            break;
    }
}

void Worker::maybeJoin(Client& client) {
    if (client.state != Client::State::Connected || !client.room->idAssigned) return;
    send(client, kLobbyChannel, joinRoomMessage(client.room->serverId));
    client.state = Client::State::Joining;
}

void Worker::onLobby(Client& client, const std::uint8_t* data, std::size_t length) {
    Room& room = *client.room;
    LobbyMessage message = parseLobbyMessage(data, length);
    switch (message.kind) {
        case LobbyMessage::Kind::JoinAccepted: {
            if (message.slot >= 8) {
                shared_.fail("JoinAccepted with slot " + std::to_string(message.slot));
                return;
            }
            client.slot = message.slot;
            client.state = Client::State::InRoom;
            if (client.member == 0) {
                room.serverId = message.roomId;
                room.idAssigned = true;
                for (Client* other : room.members)
                    if (other != &client) maybeJoin(*other);
            }
            send(client, kLobbyChannel,
                 playerSetupMessage(client.slot, true,
                                    "bot" + std::to_string(room.index) + "-" + std::to_string(client.member)));
            break;
        }
        case LobbyMessage::Kind::PlayerSetup: {
            if (client.member != 0 || message.slot >= 8) break;
            std::uint32_t bit = 1u << message.slot;
            room.readyMask = message.ready != 0 ? (room.readyMask | bit) : (room.readyMask & ~bit);
            std::uint32_t all = (1u << config_.players) - 1;
            if (!room.startRequested && room.readyMask == all) {
                // Every member's ready setup has come back: ask for the start.
                room.startRequested = true;
                send(client, kLobbyChannel, startGameMessage());
            }
            break;
        }
        case LobbyMessage::Kind::StartGame:
            ++client.startNotices;
            if (client.startNotices == 1) {
                send(client, kLobbyChannel, startGameMessage());  // the confirmation
                client.state = Client::State::Confirming;
            } else if (client.startNotices == 2) {
                client.state = Client::State::Running;
                ++room.running;
            }
            break;
        default:
            break;
    }
}

void Worker::onOrder(Client& client, const std::uint8_t* data, std::size_t length, std::uint64_t arrivalNs) {
    Room& room = *client.room;
    if (auto notice = parseNotice(data, length)) {
        const StepMark& mark = room.marks[notice->step % kStepRing];
        if (mark.step != notice->step || mark.reported < config_.players) {
            // Every member must have sent its step-done before anyone hears
            // of the step's completion; otherwise it belongs elsewhere.
            ++result_.notices.misrouted;
        } else if (notice->slot >= config_.players) {
            ++result_.notices.corrupt;
        } else if (client.notices.accept(notice->step, result_.notices)) {
            result_.stepLatency.add(arrivalNs - mark.lastNs);
        }
        return;
    }
    ProbeResult probe = checkProbe(data, length);
    if (probe.check != ProbeCheck::Ok) {
        if (length <= 12)
            ++result_.notices.corrupt;
        else
            ++result_.relays.corrupt;
        return;
    }
    const Probe& p = probe.probe;
    if (p.room != room.index || p.slot == client.slot || p.slot >= config_.players) {
        ++result_.relays.misrouted;
        return;
    }
    if (client.relaysFrom[p.slot].accept(p.step, result_.relays)) result_.relayLatency.add(arrivalNs - p.sendNs);
}

void Worker::sendStep(Room& room, std::uint32_t step) {
    StepMark& mark = room.marks[step % kStepRing];
    mark = StepMark{step, 0, 0};
    for (Client* client : room.members) {
        if (client->peer == nullptr) continue;
        std::uint64_t now = monotonicNs();
        send(*client, kOrderChannel, encodeProbe(Probe{room.index, client->slot, step, now, config_.padding}), false);
        send(*client, kOrderChannel, stepDoneMessage(step, client->slot), false);
        enet_host_flush(client->host);
        ++result_.ordersSent;
        ++mark.reported;
        mark.lastNs = now;
    }
    room.lastStepSent = step;
}

void Worker::requestFile(Client& client) {
    if (client.peer == nullptr) return;
    send(client, kFileUpdateChannel, fileRequestMessage(config_.downloadFile));
    client.downloading = true;
}

void Worker::onFileData(Client& client, const std::uint8_t* data, std::size_t length) {
    client.downloading = false;
    auto size = parseFileData(data, length, config_.downloadFile);
    if (size && *size > 0) {
        ++result_.downloads;
        result_.downloadedBytes += *size;
    } else {
        ++result_.failedDownloads;
    }
    // Back to back for as long as the orders are being sent.
    if (downloadsOpen_) requestFile(client);
}

bool Worker::setupComplete() const {
    for (const auto& client : clients_) {
        if (config_.idle || client->room == nullptr ? client->state != Client::State::Connected
                                                    : client->state != Client::State::Running)
            return false;
    }
    return true;
}

bool Worker::allArrived() const {
    std::uint64_t expected = 0;
    for (const auto& room : rooms_) {
        std::uint64_t p = room->members.size();
        expected += static_cast<std::uint64_t>(room->lastStepSent) * p * p;  // p - 1 relays and 1 notice each
    }
    return result_.relays.received + result_.notices.received >= expected;
}

void Worker::finishAccounting() {
    for (const auto& room : rooms_) {
        std::uint64_t p = room->members.size();
        result_.stepsPerPlayer = std::max<std::uint64_t>(result_.stepsPerPlayer, room->lastStepSent);
        result_.relaysExpected += room->lastStepSent * p * (p - 1);
        result_.noticesExpected += room->lastStepSent * p;
        for (Client* client : room->members) {
            for (Client* sender : room->members)
                if (sender != client && sender->slot < 8)
                    client->relaysFrom[sender->slot].finish(room->lastStepSent, result_.relays);
            client->notices.finish(room->lastStepSent, result_.notices);
        }
    }
}

void Worker::closeAll() {
    for (auto& client : clients_) {
        if (client->peer != nullptr) {
            enet_peer_disconnect(client->peer, 0);
            enet_host_flush(client->host);
            client->state = Client::State::Closing;
        }
    }
    std::uint64_t deadline = monotonicNs() + 2 * kSec;
    auto open = [&] {
        return std::any_of(clients_.begin(), clients_.end(),
                           [](const auto& c) { return c->state == Client::State::Closing; });
    };
    while (open() && monotonicNs() < deadline) pump(deadline);
    for (auto& client : clients_) {
        if (client->host == nullptr) continue;
        if (client->peer != nullptr && client->state == Client::State::Closing) enet_peer_reset(client->peer);
        enet_host_destroy(client->host);
        client->host = nullptr;
    }
    if (timer_ >= 0) close(timer_);
    if (epoll_ >= 0) close(epoll_);
}

void Worker::run() {
    prctl(PR_SET_TIMERSLACK, 1ul);  // wake for the schedule to the microsecond
    if (openAll()) {
        // Connect and lobby.
        std::uint64_t setupDeadline = monotonicNs() + static_cast<std::uint64_t>(config_.setupSeconds * 1e9);
        bool counted = false;
        while (!shared_.setupFailed && !stop_) {
            if (!counted && setupComplete()) {
                counted = true;
                shared_.setupDone.fetch_add(1);
            }
            std::uint64_t start = shared_.playStartNs.load();
            if (start != 0 && monotonicNs() >= start) break;
            if (!counted && monotonicNs() >= setupDeadline) {
                std::size_t states[9] = {};
                for (auto& c : clients_) ++states[static_cast<int>(c->state)];
                shared_.fail("set-up not done in time: " + std::to_string(states[0]) + " connecting, " +
                             std::to_string(states[1]) + " connected, " + std::to_string(states[2]) + " joining, " +
                             std::to_string(states[3]) + " in a room, " + std::to_string(states[4]) + " confirming, " +
                             std::to_string(states[5]) + " running");
                break;
            }
            pump(start != 0 ? start : monotonicNs() + 10 * kMs);
        }
    }
    if (!shared_.setupFailed && !stop_ && shared_.playStartNs.load() != 0) {
        playing_ = true;
        std::uint64_t start = shared_.playStartNs.load();
        downloadsOpen_ = true;
        for (auto& client : clients_)
            if (client->room == nullptr) requestFile(*client);
        std::uint64_t period = periodNs();
        if (config_.idle) {
            std::uint64_t end = start + static_cast<std::uint64_t>(config_.seconds * 1e9);
            while (!stop_ && monotonicNs() < end) pump(end);
        } else {
            // Rooms send in order of their offsets within each period.
            std::vector<Room*> order;
            for (auto& room : rooms_) order.push_back(room.get());
            std::sort(order.begin(), order.end(), [](Room* a, Room* b) { return a->offsetNs < b->offsetNs; });
            auto steps = static_cast<std::uint32_t>(std::llround(config_.rate * config_.seconds));
            std::uint32_t step = 1;
            std::size_t next = 0;
            while (!stop_ && step <= steps && !order.empty()) {
                std::uint64_t due = start + (step - 1) * period + order[next]->offsetNs;
                std::uint64_t now = monotonicNs();
                if (now >= due) {
                    result_.sendLag.add(now - due);
                    sendStep(*order[next], step);
                    if (++next == order.size()) {
                        next = 0;
                        ++step;
                    }
                    continue;
                }
                pump(due);
            }
            downloadsOpen_ = false;
            std::uint64_t drainEnd = monotonicNs() + static_cast<std::uint64_t>(config_.drainSeconds * 1e9);
            while (!allArrived() && monotonicNs() < drainEnd) pump(drainEnd);
        }
        result_.windowSeconds = static_cast<double>(monotonicNs() - start) / 1e9;
        playing_ = false;
        finishAccounting();
    }
    shared_.drained.fetch_add(1);
    // Keep the connections served until every worker is done, so that no
    // server-side time-out or disconnect shows up in the others' figures.
    if (epoll_ < 0 || timer_ < 0) {
        while (!shared_.disconnect) std::this_thread::sleep_for(std::chrono::milliseconds(5));
    } else {
        while (!shared_.disconnect) pump(monotonicNs() + 10 * kMs);
    }
    closeAll();
}

void raiseFileLimit() {
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur < limit.rlim_max) {
        limit.rlim_cur = limit.rlim_max;
        setrlimit(RLIMIT_NOFILE, &limit);
    }
}

double cpuSecondsOfSelf() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
           static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

}  // namespace

Result runLoad(const Config& config, const std::atomic<bool>& stop) {
    raiseFileLimit();
    Shared shared;
    unsigned threads = std::max(1u, std::min<unsigned>(config.threads, config.rooms));
    std::vector<std::unique_ptr<Worker>> workers;
    for (unsigned t = 0; t < threads; ++t) workers.push_back(std::make_unique<Worker>(config, shared, stop));
    for (std::uint32_t r = 0; r < config.rooms; ++r) workers[r % threads]->addRoom(r);
    for (std::uint32_t d = 0; d < config.downloaders; ++d) workers[d % threads]->addDownloader();

    Result result;
    result.clients = config.rooms * config.players + config.downloaders;
    std::uint64_t setupStart = monotonicNs();
    std::vector<std::thread> pool;
    for (auto& worker : workers) pool.emplace_back([&worker] { worker->run(); });

    while (shared.setupDone.load() < threads && !shared.setupFailed && !stop)
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    double cpuAtStart = 0;
    std::uint64_t playStart = 0;
    if (shared.setupDone.load() == threads && !stop) {
        result.setupOk = true;
        result.setupSeconds = static_cast<double>(monotonicNs() - setupStart) / 1e9;
        playStart = monotonicNs() + 200 * kMs;
        shared.playStartNs = playStart;
        std::this_thread::sleep_for(std::chrono::nanoseconds(playStart - monotonicNs()));
        if (config.serverPid) result.serverStart = sampleProcess(*config.serverPid);
        result.machineStart = sampleMachine();
        cpuAtStart = cpuSecondsOfSelf();
    } else {
        std::lock_guard<std::mutex> lock(shared.errorLock);
        result.setupError = shared.setupError.empty() ? "stopped during set-up" : shared.setupError;
    }

    // While the load runs: the server's resident size once a second, for
    // growth after the first minute.
    std::uint64_t nextRssNs = 0;
    while (shared.drained.load() < threads) {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        std::uint64_t now = monotonicNs();
        if (playStart != 0 && config.serverPid && now >= nextRssNs && now >= playStart + 60 * kSec) {
            nextRssNs = now + kSec;
            if (auto sample = sampleProcess(*config.serverPid)) {
                if (result.serverRssAfterFirstMinuteKib == 0) result.serverRssAfterFirstMinuteKib = sample->rssKib;
                result.serverRssMaxAfterFirstMinuteKib =
                    std::max(result.serverRssMaxAfterFirstMinuteKib, sample->rssKib);
            }
        }
    }
    if (result.setupOk) {
        if (config.serverPid) result.serverEnd = sampleProcess(*config.serverPid);
        result.machineEnd = sampleMachine();
        result.loadbotCpuSeconds = cpuSecondsOfSelf() - cpuAtStart;
        result.sampledSeconds = static_cast<double>(monotonicNs() - playStart) / 1e9;
    }
    shared.disconnect = true;
    for (auto& thread : pool) thread.join();

    for (auto& worker : workers) {
        Result& part = worker->result();
        result.windowSeconds = std::max(result.windowSeconds, part.windowSeconds);
        result.stepsPerPlayer = std::max(result.stepsPerPlayer, part.stepsPerPlayer);
        result.ordersSent += part.ordersSent;
        result.relaysExpected += part.relaysExpected;
        result.noticesExpected += part.noticesExpected;
        result.relays.add(part.relays);
        result.notices.add(part.notices);
        result.relayLatency.merge(part.relayLatency);
        result.stepLatency.merge(part.stepLatency);
        result.sendLag.merge(part.sendLag);
        for (int c = 0; c < 8; ++c) result.otherMessages[c] += part.otherMessages[c];
        if (result.firstText.empty()) result.firstText = part.firstText;
        result.droppedConnections += part.droppedConnections;
        result.downloads += part.downloads;
        result.failedDownloads += part.failedDownloads;
        result.downloadedBytes += part.downloadedBytes;
        result.cleanDisconnects += part.cleanDisconnects;
    }
    return result;
}

}  // namespace loadbot
