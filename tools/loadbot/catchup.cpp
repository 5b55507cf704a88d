// catchup: one room of players on 127.0.0.1, granted rejoin, that plays a
// long match faster than real time (the server does not hold a match to its
// clock), then on at --rate in real time while one player drops and comes
// back with its token, again and again: each time it is sent the whole match
// as the stream, which is checked record by record and timed from the Rejoin
// to the CatchUpDone. With --server-pid it reads what the server held in
// memory meanwhile.
// Exit status: 0 no errors, 1 errors counted, 2 bad options, 3 set-up failed.

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstring>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>
#include <arpa/inet.h>
#include <enet/enet.h>
#include <sys/epoll.h>
#include <sys/prctl.h>
#include <time.h>
#include <unistd.h>

#include "engine.h"
#include "procfs.h"
#include "protocol.h"
#include "stream.h"

using namespace loadbot;

namespace {

std::atomic<bool> stopRequested{false};
void onSignal(int) { stopRequested = true; }

constexpr std::uint64_t kMs = 1000000ull;
constexpr std::uint64_t kSec = 1000000000ull;

double ms(std::uint64_t ns) { return static_cast<double>(ns) / 1e6; }

std::uint64_t threadCpuNs() {
    timespec ts;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
    return static_cast<std::uint64_t>(ts.tv_sec) * kSec + static_cast<std::uint64_t>(ts.tv_nsec);
}

struct Options {
    std::uint16_t port = 0;
    std::uint32_t players = 8;
    std::uint32_t steps = 36000;  // played as fast as the server completes them
    std::uint32_t window = 32;    // steps sent ahead of the last completed one
    double rate = 20;             // steps per second afterwards
    double rejoinAfter = 1;       // seconds of real-time play before the first drop
    std::uint32_t rejoins = 1;    // 0: play on without a drop
    double between = 1;           // seconds played between catching up and the next drop
    double hold = 0;              // seconds of real-time play in all; 0: until the rejoins are done
    double setupSeconds = 30;
    double catchUpSeconds = 600;  // one catch-up must be done by then
    // The rejoining connection is served only this often (0: whenever it has
    // something): a player that takes its stream slowly.
    std::uint32_t slowReaderMs = 0;
    std::optional<pid_t> serverPid;
    std::string label;
    bool quiet = false;
};

struct Client {
    enum class State { Connecting, Hello, Joining, InRoom, Confirming, Running, Dropping, Rejoining, Streaming, Live };
    ENetHost* host = nullptr;
    ENetPeer* peer = nullptr;
    std::uint32_t member = 0;
    std::uint32_t slot = 0xFFFFFFFF;
    State state = State::Connecting;
    int startNotices = 0;
    Bytes token;
    bool playing = false;  // sends orders and step-done orders
    std::uint32_t lastNotice = 0;
    std::uint64_t relays = 0;
    std::uint64_t lastServiceNs = 0;
    bool slow = false;  // served every --slow-reader milliseconds only
};

struct Cycle {
    std::uint64_t dropNs = 0, rejoinNs = 0, acceptedNs = 0, firstNs = 0, doneNs = 0;
    std::uint32_t liveStep = 0;  // the last completed step the stream held
    StreamCheck check;
    std::uint64_t parseCpuNs = 0;
    std::uint64_t liveOrders = 0;
};

std::uint64_t statusKib(pid_t pid, const char* field) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/status");
    std::stringstream text;
    text << in.rdbuf();
    return parseStatusField(text.str(), field).value_or(0);
}

// Sets the peak RSS back to the current RSS (Linux 4.0 on), so that the peak
// read afterwards is the peak of what follows.
bool resetPeak(pid_t pid) {
    std::ofstream out("/proc/" + std::to_string(pid) + "/clear_refs");
    out << "5";
    out.flush();
    return static_cast<bool>(out);
}

class Run {
public:
    explicit Run(const Options& o) : o_(o) {}
    int run();

private:
    bool open(Client& client, bool slow = false);
    void close(Client& client);
    void send(Client& client, std::uint8_t channel, const Bytes& bytes, bool flush = true);
    void pump(std::uint64_t deadlineNs);
    void serve(Client& client, std::uint64_t now);
    void onEvent(Client& client, const ENetEvent& event, std::uint64_t now);
    void onLobby(Client& client, const std::uint8_t* data, std::size_t length, std::uint64_t now);
    void onOrder(Client& client, const std::uint8_t* data, std::size_t length);
    void sendStep(std::uint32_t step);
    std::uint32_t completedByAll() const;
    void fail(const std::string& why) {
        if (error_.empty()) error_ = why;
    }
    void report(std::uint64_t prepareNs);

    const Options& o_;
    std::vector<std::unique_ptr<Client>> clients_;
    int epoll_ = -1;
    std::uint32_t roomId_ = 0;
    bool roomKnown_ = false;
    std::uint32_t readyMask_ = 0;
    bool startRequested_ = false;
    std::uint32_t running_ = 0;
    std::uint32_t lastStepSent_ = 0;
    std::string error_;
    std::uint64_t errors_ = 0;  // besides the streams'
    std::uint64_t texts_ = 0, aways_ = 0, backs_ = 0, unexpectedDrops_ = 0;
    std::string firstText_;
    Client* rejoiner_ = nullptr;
    std::vector<Cycle> cycles_;
    std::uint64_t prepareNs_ = 0;
    std::uint64_t rssBeforeKib_ = 0, peakDuringKib_ = 0, rssAfterKib_ = 0, rssMaxSampledKib_ = 0;
    bool peakReset_ = false;
    std::uint64_t resumedNs_ = 0;  // when the rejoined player last played again
};

bool Run::open(Client& client, bool slow) {
    ENetAddress local{};
    local.host = htonl(INADDR_LOOPBACK);
    ENetAddress server{};
    server.host = htonl(INADDR_LOOPBACK);  // the only address this tool ever talks to
    server.port = o_.port;
    client.host = enet_host_create(&local, 1, kChannelCount, 0, 0);
    if (client.host == nullptr) return false;
    client.peer = enet_host_connect(client.host, &server, kChannelCount, 0);
    if (client.peer == nullptr) return false;
    enet_host_flush(client.host);
    client.state = Client::State::Connecting;
    client.slow = slow;
    // A slow reader is served only on its own schedule, not when its socket
    // has something.
    if (slow) return true;
    epoll_event ev{};
    ev.events = EPOLLIN;
    ev.data.ptr = &client;
    epoll_ctl(epoll_, EPOLL_CTL_ADD, client.host->socket, &ev);
    return true;
}

void Run::close(Client& client) {
    if (client.host == nullptr) return;
    if (!client.slow) epoll_ctl(epoll_, EPOLL_CTL_DEL, client.host->socket, nullptr);
    enet_host_destroy(client.host);
    client.host = nullptr;
    client.peer = nullptr;
}

void Run::send(Client& client, std::uint8_t channel, const Bytes& bytes, bool flush) {
    if (client.peer == nullptr) return;
    ENetPacket* packet = enet_packet_create(bytes.data(), bytes.size(), ENET_PACKET_FLAG_RELIABLE);
    if (enet_peer_send(client.peer, channel, packet) != 0) enet_packet_destroy(packet);
    if (flush) enet_host_flush(client.host);
}

void Run::serve(Client& client, std::uint64_t now) {
    ENetEvent event;
    while (client.host != nullptr && enet_host_service(client.host, &event, 0) > 0) onEvent(client, event, now);
    client.lastServiceNs = now;
}

void Run::pump(std::uint64_t deadlineNs) {
    std::uint64_t now = monotonicNs();
    for (auto& c : clients_)
        if (c->host != nullptr && now - c->lastServiceNs >= (c->slow ? o_.slowReaderMs : 10) * kMs) serve(*c, now);
    int timeout = deadlineNs > now ? static_cast<int>(std::min<std::uint64_t>((deadlineNs - now + kMs - 1) / kMs, 10)) : 0;
    epoll_event events[16];
    int n = epoll_wait(epoll_, events, 16, timeout);
    for (int i = 0; i < n; ++i) serve(*static_cast<Client*>(events[i].data.ptr), monotonicNs());
}

void Run::onEvent(Client& client, const ENetEvent& event, std::uint64_t now) {
    switch (event.type) {
        case ENET_EVENT_TYPE_CONNECT:
            send(client, kLobbyChannel, extensionsHelloMessage({"rejoin"}));
            client.state = client.state == Client::State::Rejoining ? Client::State::Rejoining : Client::State::Hello;
            break;
        case ENET_EVENT_TYPE_DISCONNECT:
            client.peer = nullptr;
            if (client.state != Client::State::Dropping) {
                ++unexpectedDrops_;
                fail("the server dropped member " + std::to_string(client.member));
            }
            break;
        case ENET_EVENT_TYPE_RECEIVE: {
            const std::uint8_t* data = event.packet->data;
            const std::size_t length = event.packet->dataLength;
            if (event.channelID == kLobbyChannel) {
                onLobby(client, data, length, now);
            } else if (event.channelID == kOrderChannel) {
                onOrder(client, data, length);
            } else if (event.channelID == kMatchControlChannel && length >= 12) {
                const std::uint32_t type = readU32(data);
                if (type == kPlayerAway) ++aways_;
                if (type == kPlayerBack) ++backs_;
            } else if (event.channelID == kTextChannel) {
                ++texts_;
                if (firstText_.empty())
                    firstText_.assign(reinterpret_cast<const char*>(data),
                                      strnlen(reinterpret_cast<const char*>(data), length));
            }
            enet_packet_destroy(event.packet);
            break;
        }
        default:
            break;
    }
}

void Run::onLobby(Client& client, const std::uint8_t* data, std::size_t length, std::uint64_t now) {
    if (length < 8) return;
    const std::uint32_t type = readU32(data);
    if (type == kExtensions) {
        bool ok = false;
        const auto features = parseGranted(data, length, ok);
        if (!ok || std::find(features.begin(), features.end(), "rejoin") == features.end())
            return fail("rejoin not granted (start the server with --rejoin SECONDS)");
        if (client.state == Client::State::Rejoining) {
            cycles_.back().rejoinNs = monotonicNs();
            send(client, kLobbyChannel, rejoinMessage(roomId_, client.token));
        } else if (client.member == 0) {
            send(client, kLobbyChannel, createRoomMessage("catchup", "loadbot", 0x10AD));
            client.state = Client::State::Joining;
        } else if (roomKnown_) {
            send(client, kLobbyChannel, joinRoomMessage(roomId_));
            client.state = Client::State::Joining;
        }
        return;
    }
    if (client.state == Client::State::Rejoining || client.state == Client::State::Streaming) {
        Cycle& cycle = cycles_.back();
        std::uint32_t room = 0, slot = 0;
        if (type == kRejoinAccepted && parseTokenMessage(data, length, room, slot, client.token)) {
            cycle.acceptedNs = monotonicNs();
            if (slot != client.slot) fail("rejoined into slot " + std::to_string(slot));
            client.state = Client::State::Streaming;
        } else if (type == kCatchUp) {
            if (cycle.firstNs == 0) cycle.firstNs = now;
            const std::uint64_t before = threadCpuNs();
            cycle.check.takeMessage(data, length);
            cycle.parseCpuNs += threadCpuNs() - before;
        } else if (type == kCatchUpDone) {
            cycle.doneNs = monotonicNs();
            cycle.liveStep = cycle.check.lastCompletedStep;
            client.state = Client::State::Live;
            // At the live match: steps wait for this player again from the
            // first one it has not seen completed, so it reports those at
            // once, behind the CaughtUp that makes them count.
            send(client, kLobbyChannel, caughtUpMessage(), false);
            for (std::uint32_t s = cycle.liveStep + 1; s <= lastStepSent_; ++s) {
                send(client, kOrderChannel, encodeProbe(Probe{0, client.slot, s, monotonicNs(), 0}), false);
                send(client, kOrderChannel, stepDoneMessage(s, client.slot), false);
            }
            enet_host_flush(client.host);
            client.playing = true;
            client.lastNotice = cycle.liveStep;
            resumedNs_ = cycle.doneNs;
        } else if (type == kJoinRefused) {
            fail("rejoin refused, reason " + std::to_string(length >= 16 ? readU32(data + 12) : 0));
        }
        return;
    }
    if (type == kRejoinTicket) {
        std::uint32_t room = 0, slot = 0;
        if (!parseTokenMessage(data, length, room, slot, client.token)) fail("malformed RejoinTicket");
        return;
    }
    if (type == kJoinRefused) return fail("join refused");
    const LobbyMessage message = parseLobbyMessage(data, length);
    switch (message.kind) {
        case LobbyMessage::Kind::JoinAccepted:
            client.slot = message.slot;
            client.state = Client::State::InRoom;
            if (client.member == 0) {
                roomId_ = message.roomId;
                roomKnown_ = true;
                for (auto& other : clients_)
                    if (other.get() != &client && other->state == Client::State::Hello) {
                        send(*other, kLobbyChannel, joinRoomMessage(roomId_));
                        other->state = Client::State::Joining;
                    }
            }
            send(client, kLobbyChannel, playerSetupMessage(client.slot, true, "catchup-" + std::to_string(client.member)));
            break;
        case LobbyMessage::Kind::PlayerSetup:
            if (client.member != 0 || message.slot >= 8) break;
            readyMask_ = message.ready != 0 ? readyMask_ | 1u << message.slot : readyMask_ & ~(1u << message.slot);
            if (!startRequested_ && readyMask_ == (1u << o_.players) - 1) {
                startRequested_ = true;
                send(client, kLobbyChannel, startGameMessage());
            }
            break;
        case LobbyMessage::Kind::StartGame:
            if (++client.startNotices == 1) {
                send(client, kLobbyChannel, startGameMessage());
                client.state = Client::State::Confirming;
            } else if (client.startNotices == 2) {
                client.state = Client::State::Running;
                client.playing = true;
                ++running_;
            }
            break;
        default:
            break;
    }
}

void Run::onOrder(Client& client, const std::uint8_t* data, std::size_t length) {
    const bool checking = &client == rejoiner_ && !cycles_.empty();
    if (checking && client.state != Client::State::Live && client.state != Client::State::Dropping) {
        // Nothing live may come before the stream has been sent.
        ++errors_;
        fail("live relay before CatchUpDone");
        return;
    }
    if (auto notice = parseNotice(data, length)) {
        client.lastNotice = std::max(client.lastNotice, notice->step);
        if (checking && client.state == Client::State::Live) cycles_.back().check.takeLiveCompletion(notice->step);
        return;
    }
    ++client.relays;
    if (checking && client.state == Client::State::Live) {
        ProbeResult probe = checkProbe(data, length);
        if (probe.check != ProbeCheck::Ok) {
            ++errors_;
            return;
        }
        cycles_.back().check.takeLiveOrder(probe.probe.slot, probe.probe.step);
        ++cycles_.back().liveOrders;
    }
}

void Run::sendStep(std::uint32_t step) {
    for (auto& c : clients_) {
        if (!c->playing || c->peer == nullptr) continue;
        send(*c, kOrderChannel, encodeProbe(Probe{0, c->slot, step, monotonicNs(), 0}), false);
        send(*c, kOrderChannel, stepDoneMessage(step, c->slot), false);
        enet_host_flush(c->host);
    }
    lastStepSent_ = step;
}

std::uint32_t Run::completedByAll() const {
    std::uint32_t least = 0xFFFFFFFF;
    for (const auto& c : clients_)
        if (c->playing) least = std::min(least, c->lastNotice);
    return least == 0xFFFFFFFF ? 0 : least;
}

int Run::run() {
    prctl(PR_SET_TIMERSLACK, 1ul);
    epoll_ = epoll_create1(EPOLL_CLOEXEC);
    for (std::uint32_t m = 0; m < o_.players; ++m) {
        auto client = std::make_unique<Client>();
        client->member = m;
        clients_.push_back(std::move(client));
    }
    for (auto& c : clients_)
        if (!open(*c)) {
            std::fprintf(stderr, "catchup: cannot create an ENet client host\n");
            return 3;
        }

    // The lobby, with every player granted rejoin.
    const std::uint64_t setupEnd = monotonicNs() + static_cast<std::uint64_t>(o_.setupSeconds * 1e9);
    while (error_.empty() && !stopRequested && running_ < o_.players && monotonicNs() < setupEnd)
        pump(monotonicNs() + 5 * kMs);
    for (auto& c : clients_)
        if (c->token.size() != kTokenSize && error_.empty()) fail("no RejoinTicket for member " + std::to_string(c->member));
    if (running_ < o_.players || !error_.empty()) {
        if (error_.empty()) error_ = stopRequested ? "stopped during set-up" : "set-up not done in time";
        report(0);
        return 3;
    }

    // The match so far, as fast as the server completes its steps.
    const std::uint64_t prepareStart = monotonicNs();
    std::uint32_t step = 1;
    while (error_.empty() && !stopRequested && step <= o_.steps) {
        if (step <= completedByAll() + o_.window) {
            sendStep(step++);
            if (step % 8 == 0) pump(0);
        } else {
            pump(monotonicNs() + kMs);
        }
    }
    while (error_.empty() && !stopRequested && completedByAll() < lastStepSent_) pump(monotonicNs() + kMs);
    prepareNs_ = monotonicNs() - prepareStart;
    if (!o_.quiet)
        std::fprintf(stderr, "catchup: prepared %u steps in %.1f s\n", lastStepSent_, static_cast<double>(prepareNs_) / 1e9);
    std::fprintf(stderr, "catchup: prepared\n");  // what a script waits for
    std::fflush(stderr);

    if (o_.serverPid) {
        peakReset_ = resetPeak(*o_.serverPid);
        rssBeforeKib_ = statusKib(*o_.serverPid, "VmRSS");
    }

    // Real time from here: every step at its time, and one player dropping
    // and coming back, again and again.
    rejoiner_ = clients_.back().get();
    const std::uint64_t period = static_cast<std::uint64_t>(1e9 / o_.rate);
    const std::uint64_t holdStart = monotonicNs();
    const std::uint32_t firstLiveStep = step;
    const std::uint64_t holdEnd =
        o_.hold > 0 ? holdStart + static_cast<std::uint64_t>(o_.hold * 1e9) : UINT64_MAX;
    std::uint64_t nextDrop = holdStart + static_cast<std::uint64_t>(o_.rejoinAfter * 1e9);
    std::uint64_t playAgain = 0;
    std::uint64_t nextRss = 0;
    Client& r = *rejoiner_;
    while (error_.empty() && !stopRequested) {
        if (resumedNs_ != 0) {
            playAgain = resumedNs_ + static_cast<std::uint64_t>(o_.between * 1e9);
            nextDrop = playAgain;
            resumedNs_ = 0;
        }
        const std::uint64_t now = monotonicNs();
        if (now >= holdEnd) break;
        if (o_.hold <= 0 && cycles_.size() >= o_.rejoins && (o_.rejoins == 0 || (r.playing && now >= playAgain))) break;
        if (o_.serverPid && now >= nextRss) {
            rssMaxSampledKib_ = std::max(rssMaxSampledKib_, statusKib(*o_.serverPid, "VmRSS"));
            nextRss = now + 10 * kMs;
        }
        const std::uint64_t due = holdStart + (step - firstLiveStep) * period;
        if (now >= due) {
            sendStep(step++);
            continue;
        }
        if (cycles_.size() < o_.rejoins && now >= nextDrop &&
            (r.state == Client::State::Running || (r.state == Client::State::Live && r.playing))) {
            // A lost connection, as the server sees one; the member stops playing at once.
            cycles_.emplace_back();
            cycles_.back().dropNs = now;
            cycles_.back().check.strict = ((1u << o_.players) - 1) & ~(1u << r.slot);
            r.playing = false;
            r.state = Client::State::Dropping;
            enet_peer_disconnect_now(r.peer, 0);
            close(r);
            r.state = Client::State::Rejoining;
            if (!open(r, o_.slowReaderMs != 0)) fail("cannot create an ENet client host");
            r.state = Client::State::Rejoining;
            continue;
        }
        if ((r.state == Client::State::Rejoining || r.state == Client::State::Streaming) &&
            now - cycles_.back().dropNs > static_cast<std::uint64_t>(o_.catchUpSeconds * 1e9))
            fail("a catch-up took longer than --catchup-seconds");
        pump(cycles_.size() < o_.rejoins && nextDrop > now ? std::min(due, nextDrop) : due);
    }
    // The last arrivals of the live relay.
    const std::uint64_t drainEnd = monotonicNs() + 2 * kSec;
    while (error_.empty() && completedByAll() < lastStepSent_ && monotonicNs() < drainEnd) pump(drainEnd);
    if (o_.serverPid) {
        peakDuringKib_ = statusKib(*o_.serverPid, "VmHWM");
        rssAfterKib_ = statusKib(*o_.serverPid, "VmRSS");
    }
    for (auto& c : clients_)
        if (c->peer != nullptr) {
            c->state = Client::State::Dropping;
            enet_peer_disconnect(c->peer, 0);
            enet_host_flush(c->host);
        }
    const std::uint64_t closeEnd = monotonicNs() + kSec;
    while (monotonicNs() < closeEnd &&
           std::any_of(clients_.begin(), clients_.end(), [](const auto& c) { return c->peer != nullptr; }))
        pump(closeEnd);
    for (auto& c : clients_) close(*c);
    ::close(epoll_);
    report(prepareNs_);
    std::uint64_t streamErrors = 0;
    std::uint64_t done = 0;
    for (const Cycle& c : cycles_) streamErrors += c.check.errors(), done += c.doneNs != 0 ? 1 : 0;
    if (o_.rejoins != 0 && done == 0) return 1;
    return error_.empty() && errors_ == 0 && streamErrors == 0 ? 0 : 1;
}

double quantileOf(std::vector<double> v, double q) {
    if (v.empty()) return 0;
    std::sort(v.begin(), v.end());
    return v[static_cast<std::size_t>(q * static_cast<double>(v.size() - 1) + 0.5)];
}

void Run::report(std::uint64_t prepareNs) {
    std::vector<double> total, first, accepted, parse, mbs;
    std::uint64_t streamErrors = 0, bytes = 0, records = 0, orders = 0, done = 0;
    for (const Cycle& c : cycles_) {
        streamErrors += c.check.errors();
        if (c.doneNs == 0) continue;
        ++done;
        total.push_back(ms(c.doneNs - c.rejoinNs));
        first.push_back(ms(c.firstNs - c.rejoinNs));
        accepted.push_back(ms(c.acceptedNs - c.rejoinNs));
        parse.push_back(ms(c.parseCpuNs));
        mbs.push_back(static_cast<double>(c.check.bytes) / 1048576.0 / (static_cast<double>(c.doneNs - c.rejoinNs) / 1e9));
        bytes = c.check.bytes;
        records = c.check.records;
        orders = c.check.orders;
    }
    const Cycle* last = cycles_.empty() ? nullptr : &cycles_.back();
    char line[4096];
    std::snprintf(
        line, sizeof line,
        "{\"label\":\"%s\",\"players\":%u,\"steps_prepared\":%u,\"prepare_s\":%.3f,\"steps_sent\":%u,"
        "\"rejoins\":%zu,\"catchups_done\":%llu,\"stream_bytes\":%llu,\"stream_records\":%llu,\"stream_orders\":%llu,"
        "\"catchup_ms_min\":%.1f,\"catchup_ms_median\":%.1f,\"catchup_ms_max\":%.1f,\"first_catchup_ms_median\":%.1f,"
        "\"accepted_ms_median\":%.2f,\"stream_mib_s_median\":%.1f,\"parse_cpu_ms_median\":%.1f,"
        "\"last_live_step\":%u,\"last_live_orders\":%llu,\"stream_errors\":%llu,\"errors\":%llu,\"aways\":%llu,"
        "\"backs\":%llu,\"texts\":%llu,"
        "\"server_rss_before_kib\":%llu,\"server_peak_during_kib\":%s,\"server_rss_max_sampled_kib\":%llu,"
        "\"server_rss_after_kib\":%llu,\"error\":\"%s\"}",
        o_.label.c_str(), o_.players, o_.steps, static_cast<double>(prepareNs) / 1e9, lastStepSent_, cycles_.size(),
        static_cast<unsigned long long>(done), static_cast<unsigned long long>(bytes),
        static_cast<unsigned long long>(records), static_cast<unsigned long long>(orders), quantileOf(total, 0),
        quantileOf(total, 0.5), quantileOf(total, 1), quantileOf(first, 0.5), quantileOf(accepted, 0.5),
        quantileOf(mbs, 0.5), quantileOf(parse, 0.5), last ? last->liveStep : 0,
        static_cast<unsigned long long>(last ? last->liveOrders : 0), static_cast<unsigned long long>(streamErrors),
        static_cast<unsigned long long>(errors_ + streamErrors + unexpectedDrops_ + (error_.empty() ? 0 : 1)),
        static_cast<unsigned long long>(aways_), static_cast<unsigned long long>(backs_),
        static_cast<unsigned long long>(texts_), static_cast<unsigned long long>(rssBeforeKib_),
        peakReset_ ? std::to_string(peakDuringKib_).c_str() : "null",
        static_cast<unsigned long long>(rssMaxSampledKib_), static_cast<unsigned long long>(rssAfterKib_),
        error_.c_str());
    std::cout << line << std::endl;
    if (o_.quiet) return;
    for (std::size_t i = 0; i < cycles_.size(); ++i) {
        const Cycle& c = cycles_[i];
        std::fprintf(stderr,
                     "catchup: rejoin %zu: accepted %.2f ms, first CatchUp %.1f ms, CatchUpDone %.1f ms after the "
                     "Rejoin; %llu bytes, %llu records (%llu orders, %llu completions, %llu headers) in %llu "
                     "messages, parsed in %.1f ms of CPU; live from step %u, %llu live orders; %llu bad frames, "
                     "%llu gaps, %llu repeats\n",
                     i + 1, c.acceptedNs ? ms(c.acceptedNs - c.rejoinNs) : -1.0,
                     c.firstNs ? ms(c.firstNs - c.rejoinNs) : -1.0, c.doneNs ? ms(c.doneNs - c.rejoinNs) : -1.0,
                     static_cast<unsigned long long>(c.check.bytes), static_cast<unsigned long long>(c.check.records),
                     static_cast<unsigned long long>(c.check.orders),
                     static_cast<unsigned long long>(c.check.completions),
                     static_cast<unsigned long long>(c.check.headers),
                     static_cast<unsigned long long>(c.check.messages), ms(c.parseCpuNs), c.liveStep,
                     static_cast<unsigned long long>(c.liveOrders), static_cast<unsigned long long>(c.check.badFrames),
                     static_cast<unsigned long long>(c.check.gaps), static_cast<unsigned long long>(c.check.repeats));
    }
    for (std::size_t i = 0; i < cycles_.size(); ++i)
        for (const std::string& a : cycles_[i].check.anomalies) std::fprintf(stderr, "catchup: rejoin %zu: %s\n", i + 1, a.c_str());
    if (!firstText_.empty()) std::fprintf(stderr, "catchup: first text: %s\n", firstText_.c_str());
    if (!error_.empty()) std::fprintf(stderr, "catchup: %s\n", error_.c_str());
}

}  // namespace

int main(int argc, char** argv) {
    Options o;
    int pid = 0;
    CLI::App app{
        "One room of players granted rejoin that plays a long match faster than real time, then on in real time "
        "while one player drops and rejoins with its token, again and again; times and checks every catch-up."};
    app.add_option("--port", o.port, "UDP port of the server on 127.0.0.1")->required()->check(CLI::Range(1, 65535));
    app.add_option("-p,--players", o.players, "Players in the room")->check(CLI::Range(2u, 8u));
    app.add_option("--steps", o.steps, "Steps played as fast as the server completes them (36000: 30 minutes at 20/s)")
        ->check(CLI::Range(1u, 10000000u));
    app.add_option("--window", o.window, "Steps sent ahead of the last one completed, while fast")
        ->check(CLI::Range(1u, 1000u));
    app.add_option("-s,--rate", o.rate, "Steps per second after that")->check(CLI::Range(0.1, 1000.0));
    app.add_option("--rejoin-after", o.rejoinAfter, "Seconds of play at --rate before the first drop");
    app.add_option("--rejoins", o.rejoins, "Drops and rejoins, one after the other (0: none)");
    app.add_option("--between", o.between, "Seconds the rejoined player plays before it drops again");
    app.add_option("--hold", o.hold, "Seconds of play at --rate in all (0: until the rejoins are done)");
    app.add_option("--setup-seconds", o.setupSeconds, "Time allowed to reach the running match");
    app.add_option("--catchup-seconds", o.catchUpSeconds, "Time allowed for one catch-up");
    app.add_option("--slow-reader", o.slowReaderMs,
                   "Serve the rejoining player's connection only every this many milliseconds (a slow reader; 0: at once)")
        ->check(CLI::Range(0u, 1000u));
    app.add_option("--server-pid", pid, "Process to read the resident size of (its peak is reset after the fast play)");
    app.add_option("--label", o.label, "Copied into the JSON line");
    app.add_flag("-q,--quiet", o.quiet, "Only the JSON line (and the line \"catchup: prepared\")");
    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp& e) {
        return app.exit(e);
    } catch (const CLI::ParseError& e) {
        std::fprintf(stderr, "catchup: %s (see --help)\n", e.what());
        return 2;
    }
    if (pid > 0) o.serverPid = pid;
    std::signal(SIGINT, onSignal);
    std::signal(SIGTERM, onSignal);
    if (enet_initialize() != 0) {
        std::fprintf(stderr, "catchup: cannot initialise ENet\n");
        return 3;
    }
    Run run(o);
    const int status = run.run();
    enet_deinitialize();
    return status;
}
