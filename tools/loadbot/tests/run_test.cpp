// The loadbot binary end to end: against the bare relay (always there),
// against a relay that makes every kind of mistake on purpose (each must be
// counted exactly), and against the server once it has the lobby and match.

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <cstdio>
#include <map>
#include <string>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include <arpa/inet.h>
#include <enet/enet.h>

#include "protocol.h"
#include "support/program_run.h"
#include "support/server_process.h"
#include "support/test_client.h"

namespace {

// The raw text of a value in the flat JSON line ("" when the key is absent).
std::string field(const std::string& json, const std::string& key) {
    std::string needle = "\"" + key + "\":";
    auto at = json.find(needle);
    if (at == std::string::npos) return "";
    at += needle.size();
    auto end = json.find_first_of(",}", at);
    return json.substr(at, end - at);
}

std::uint64_t count(const std::string& json, const std::string& key) {
    std::string value = field(json, key);
    EXPECT_FALSE(value.empty()) << key;
    return std::strtoull(value.c_str(), nullptr, 10);
}

std::vector<std::string> loadbotArgs(std::uint16_t port, std::vector<std::string> extra,
                                     const std::string& seconds = "2") {
    std::vector<std::string> args = {LOADBOT_BIN, "--rooms", "2",      "--players",         "3", "--rate", "20",
                                     "--seconds", seconds,   "--port", std::to_string(port)};
    args.insert(args.end(), extra.begin(), extra.end());
    return args;
}

// 2 rooms x 3 players x 40 steps: every order reaches the 2 others, every
// notice all 3.
void expectFlawless(const std::string& json) {
    EXPECT_EQ(field(json, "setup_ok"), "true");
    EXPECT_EQ(count(json, "steps"), 40u);
    EXPECT_EQ(count(json, "orders_sent"), 240u);
    EXPECT_EQ(count(json, "relays_expected"), 480u);
    EXPECT_EQ(count(json, "relays_received"), 480u);
    EXPECT_EQ(count(json, "notices_expected"), 240u);
    EXPECT_EQ(count(json, "notices_received"), 240u);
    for (const char* key :
         {"relays_lost", "relays_duplicated", "relays_misrouted", "relays_corrupt", "notices_lost",
          "notices_duplicated", "notices_misrouted", "notices_corrupt", "dropped_connections", "errors"})
        EXPECT_EQ(count(json, key), 0u) << key;
    EXPECT_EQ(count(json, "clean_disconnects"), 6u);
    EXPECT_NE(field(json, "relay_p50_ms"), "0.000");
    EXPECT_NE(field(json, "step_max_ms"), "0.000");
}

class BareRelay {
public:
    BareRelay() {
        port_ = freePort();
        pid_ = fork();
        if (pid_ == 0) {
            int null = open("/dev/null", O_WRONLY);
            dup2(null, 1);
            execl(BARE_RELAY_BIN, BARE_RELAY_BIN, "--port", std::to_string(port_).c_str(), static_cast<char*>(nullptr));
            _exit(127);
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
    }
    ~BareRelay() {
        kill(pid_, SIGTERM);
        waitpid(pid_, nullptr, 0);
    }
    std::uint16_t port() const { return port_; }
    pid_t pid() const { return pid_; }

private:
    std::uint16_t port_ = 0;
    pid_t pid_ = -1;
};

// A relay with a fixed set of mistakes, each on its own step:
//   orders of step 5 go to nobody, of step 7 twice, of step 9 to the sender
//   too, of step 11 with one byte changed, of step 13 in the first room also
//   to the second room;
//   the notice of step 2 has a wrong first word, of step 3 comes twice, of
//   step 4 never, and step 20 is announced as step 21 (ahead of its sends).
class FaultyRelay {
public:
    FaultyRelay() {
        ENetAddress address{};
        address.host = htonl(INADDR_LOOPBACK);
        address.port = 0;
        host_ = enet_host_create(&address, 64, 7, 0, 0);
        thread_ = std::thread([this] { loop(); });
    }
    ~FaultyRelay() {
        stop_ = true;
        thread_.join();
        enet_host_destroy(host_);
    }
    std::uint16_t port() const { return host_->address.port; }

private:
    struct Room {
        std::uint32_t id = 0;
        std::vector<ENetPeer*> members;
        int startGames = 0;
        std::map<std::uint32_t, std::uint32_t> pending;
    };
    struct Seat {
        Room* room = nullptr;
        std::uint32_t slot = 0;
    };

    static void sendTo(ENetPeer* peer, std::uint8_t channel, const loadbot::Bytes& bytes) {
        enet_peer_send(peer, channel, enet_packet_create(bytes.data(), bytes.size(), ENET_PACKET_FLAG_RELIABLE));
    }
    static void sendAll(Room& room, std::uint8_t channel, const loadbot::Bytes& bytes) {
        for (ENetPeer* p : room.members) sendTo(p, channel, bytes);
    }
    static loadbot::Bytes words(std::initializer_list<std::uint32_t> values) {
        loadbot::Bytes out;
        for (auto v : values) loadbot::putU32(out, v);
        return out;
    }

    void join(Room& room, ENetPeer* peer) {
        seats_[peer] = Seat{&room, static_cast<std::uint32_t>(room.members.size())};
        room.members.push_back(peer);
        sendTo(peer, 0, words({6, 1, seats_[peer].slot, room.id}));
    }

    void onLobby(ENetPeer* peer, const loadbot::Bytes& data) {
        std::uint32_t type = loadbot::readU32(data.data());
        Seat* seat = seats_.count(peer) ? &seats_[peer] : nullptr;
        if (type == 2) {
            rooms_.push_back(std::make_unique<Room>());
            rooms_.back()->id = static_cast<std::uint32_t>(rooms_.size());
            join(*rooms_.back(), peer);
        } else if (type == 3) {
            join(*rooms_.at(loadbot::readU32(data.data() + 8) - 1), peer);
        } else if (type == 5 && seat) {
            sendAll(*seat->room, 0, data);
        } else if (type == 14 && seat) {
            Room& room = *seat->room;
            ++room.startGames;
            // The request, then one confirmation per member.
            if (room.startGames == 1 || room.startGames == 1 + static_cast<int>(room.members.size()))
                sendAll(room, 0, words({14, 1}));
        }
    }

    void onOrder(ENetPeer* peer, loadbot::Bytes data) {
        Seat& seat = seats_.at(peer);
        Room& room = *seat.room;
        std::uint32_t step = loadbot::readU32(data.data() + 4);
        if (data.size() == 12) {
            std::uint32_t& reported = room.pending[step];
            reported |= 1u << loadbot::readU32(data.data() + 8);
            if (reported != (1u << room.members.size()) - 1) return;
            room.pending.erase(step);
            if (step == 4) return;
            loadbot::Bytes notice = words({step == 2 ? 2u : 1u, step == 20 ? 21u : step, seat.slot});
            sendAll(room, 3, notice);
            if (step == 3) sendAll(room, 3, notice);
            return;
        }
        if (step == 5) return;
        if (step == 11) data[30] ^= 0x01;
        for (ENetPeer* p : room.members) {
            if (p == peer && step != 9) continue;
            sendTo(p, 3, data);
            if (step == 7) sendTo(p, 3, data);
        }
        if (step == 13 && room.id == 1 && rooms_.size() > 1)
            for (ENetPeer* p : rooms_[1]->members) sendTo(p, 3, data);
    }

    void loop() {
        while (!stop_) {
            ENetEvent event;
            while (enet_host_service(host_, &event, 2) > 0) {
                if (event.type != ENET_EVENT_TYPE_RECEIVE) continue;
                loadbot::Bytes data(event.packet->data, event.packet->data + event.packet->dataLength);
                enet_packet_destroy(event.packet);
                if (event.channelID == 0 && data.size() >= 8) onLobby(event.peer, data);
                if (event.channelID == 3 && data.size() >= 12) onOrder(event.peer, data);
            }
        }
    }

    ENetHost* host_ = nullptr;
    std::thread thread_;
    std::atomic<bool> stop_{false};
    std::vector<std::unique_ptr<Room>> rooms_;
    std::map<ENetPeer*, Seat> seats_;
};

}  // namespace

TEST(LoadbotRun, AgainstTheBareRelayEverythingArrivesOnce) {
    BareRelay relay;
    ProgramRun run =
        runProgram(loadbotArgs(relay.port(), {"--server-pid", std::to_string(relay.pid()), "--label", "bare"}), 30000);
    ASSERT_EQ(run.status, 0) << run.out << run.err;
    expectFlawless(run.out);
    EXPECT_EQ(field(run.out, "label"), "\"bare\"");
    EXPECT_NE(field(run.out, "server_cpu_s"), "null");
    EXPECT_GT(count(run.out, "server_peak_rss_kib"), 0u);
    EXPECT_NE(run.err.find("errors: 0"), std::string::npos) << run.err;
}

TEST(LoadbotRun, EveryKindOfRelayMistakeIsCountedExactly) {
    enet_initialize();
    FaultyRelay relay;
    ProgramRun run = runProgram(loadbotArgs(relay.port(), {"--drain-seconds", "0.5"}), 30000);
    ASSERT_EQ(run.status, 1) << run.out << run.err;
    const std::string& j = run.out;
    EXPECT_EQ(field(j, "setup_ok"), "true");
    EXPECT_EQ(count(j, "relays_expected"), 480u);
    // Step 5 dropped (6 senders x 2 receivers), and the changed step 11
    // leaves a gap in every stream as well.
    EXPECT_EQ(count(j, "relays_lost"), 24u);
    EXPECT_EQ(count(j, "relays_duplicated"), 12u);
    // Step 9 echoed to its 6 senders, step 13 of room 1 to the 3 of room 2.
    EXPECT_EQ(count(j, "relays_misrouted"), 6u + 9u);
    EXPECT_EQ(count(j, "relays_corrupt"), 12u);
    EXPECT_EQ(count(j, "relays_received"), 456u);
    EXPECT_EQ(count(j, "notices_expected"), 240u);
    EXPECT_EQ(count(j, "notices_corrupt"), 6u);
    EXPECT_EQ(count(j, "notices_duplicated"), 6u);
    EXPECT_EQ(count(j, "notices_misrouted"), 6u);
    // Steps 2 (corrupt), 4 (never sent) and 20 (announced under 21).
    EXPECT_EQ(count(j, "notices_lost"), 18u);
    EXPECT_EQ(count(j, "notices_received"), 222u);
    EXPECT_EQ(count(j, "errors"), 24u + 12u + 15u + 12u + 6u + 6u + 6u + 18u);
    enet_deinitialize();
}

TEST(LoadbotRun, AgainstTheServerThroughTheRealLobby) {
    ServerProcess server;
    ASSERT_TRUE(server.start());
    {
        // The lobby answers a CreateRoom with JoinAccepted before any load starts.
        TestClient probe;
        ASSERT_TRUE(probe.connect(server.port()));
        probe.send(0, Bytes(loadbot::createRoomMessage("probe", "loadbot", 1)));
        auto reply = probe.nextOn(0, 1500);
        ASSERT_TRUE(reply && messageType(*reply) == 6);
        probe.disconnect();
    }
    // Two clients outside the rooms fetch an update file meanwhile.
    server.writeFile("server_data/update_data/fill.bin", std::string(200000, 'f'));
    ProgramRun run = runProgram(loadbotArgs(server.port(),
                                            {"--server-pid", std::to_string(server.pid()), "--downloaders", "2",
                                             "--download-file", "fill.bin"},
                                            "2.5"),
                                60000);
    ASSERT_EQ(run.status, 0) << run.out << run.err;
    // 50 steps this time.
    EXPECT_EQ(count(run.out, "relays_expected"), 600u);
    EXPECT_EQ(count(run.out, "relays_received"), 600u);
    EXPECT_EQ(count(run.out, "notices_received"), 300u);
    EXPECT_EQ(count(run.out, "errors"), 0u);
    EXPECT_EQ(count(run.out, "other_text"), 0u);
    EXPECT_GE(count(run.out, "downloads"), 2u);
    EXPECT_EQ(count(run.out, "failed_downloads"), 0u);
    EXPECT_EQ(count(run.out, "clean_disconnects"), 8u);
    EXPECT_NE(field(run.out, "server_cpu_s"), "null");
    EXPECT_TRUE(server.waitForLog("Joined room ", 7));  // the probe's room and 2 x 3 players
}
