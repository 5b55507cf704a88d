// The load generator: the latency histogram behind every quantile the
// benchmark prints, and the binary end to end against a relay that makes
// every kind of mistake on purpose (each must be counted exactly), against
// the bare relay it is measured with, and against the server.

#include <arpa/inet.h>
#include <atomic>

#include "histogram.h"
#include "support/e2e_support.h"

using e2e::words;

namespace {

TEST(Histogram, QuantilesNeverUnderstateAndMaxIsExact) {
    loadbot::Histogram h;
    EXPECT_EQ(h.quantile(0.5), 0u);
    for (std::uint64_t us = 1; us <= 1000; ++us) h.add(us * 1000);  // 1..1000 microseconds
    EXPECT_EQ(h.count(), 1000u);
    EXPECT_EQ(h.max(), 1000000u);
    for (auto [q, exact] : {std::pair{0.5, 500000.0}, {0.99, 990000.0}, {0.999, 999000.0}}) {
        EXPECT_GE(static_cast<double>(h.quantile(q)), exact) << q;
        EXPECT_LE(static_cast<double>(h.quantile(q)), exact * 1.016) << q;
    }
    EXPECT_EQ(h.quantile(1.0), 1000000u);

    // One outlier in 1000 samples shows in the max, not in p99.9; two do.
    loadbot::Histogram skewed;
    for (int i = 0; i < 999; ++i) skewed.add(100000);
    skewed.add(50000000);
    EXPECT_LE(skewed.quantile(0.999), 101600u);
    skewed.add(50000000);
    EXPECT_EQ(skewed.quantile(0.999), 50000000u);
    skewed.merge(h);
    EXPECT_EQ(skewed.count(), 2001u);
    EXPECT_EQ(skewed.max(), 50000000u);
}

// The raw text of a value in the flat JSON line ("" when the key is absent).
std::string field(const std::string& json, const std::string& key) {
    auto at = json.find("\"" + key + "\":");
    if (at == std::string::npos) return "";
    at += key.size() + 3;
    return json.substr(at, json.find_first_of(",}", at) - at);
}
std::uint64_t count(const std::string& json, const std::string& key) {
    EXPECT_NE(field(json, key), "") << key;
    return std::strtoull(field(json, key).c_str(), nullptr, 10);
}

// 2 rooms of 3 players at 20 steps a second; the exit status, the JSON
// line and the summary.
std::tuple<int, std::string, std::string> loadbot(std::uint16_t port, std::vector<std::string> extra,
                                                  const std::string& seconds = "2") {
    std::vector<std::string> args = {"--rooms", "2", "--players", "3", "--rate", "20", "--seconds", seconds,
                                     "--port", std::to_string(port)};
    args.insert(args.end(), extra.begin(), extra.end());
    ServerProcess bot(ServerOptions{.arguments = args, .program = LOADBOT_BIN});
    bot.launch();
    int status = bot.wait(60000);
    return {status, bot.consoleOutput(), bot.consoleErrors()};
}

// Every order reaches the 2 others of its room, every notice all 3.
void expectFlawless(const std::string& json, std::uint64_t steps) {
    EXPECT_EQ(field(json, "setup_ok"), "true");
    EXPECT_EQ(count(json, "steps"), steps);
    EXPECT_EQ(count(json, "orders_sent"), 6 * steps);
    for (const char* key : {"relays_expected", "relays_received"}) EXPECT_EQ(count(json, key), 12 * steps) << key;
    for (const char* key : {"notices_expected", "notices_received"}) EXPECT_EQ(count(json, key), 6 * steps) << key;
    for (const char* key : {"relays_lost", "relays_duplicated", "relays_misrouted", "relays_corrupt", "notices_lost",
                            "notices_duplicated", "notices_misrouted", "notices_corrupt", "dropped_connections",
                            "errors", "other_text"})
        EXPECT_EQ(count(json, key), 0u) << key;
    EXPECT_NE(field(json, "relay_p50_ms"), "0.000");
    EXPECT_NE(field(json, "step_max_ms"), "0.000");
    EXPECT_NE(field(json, "server_cpu_s"), "null");
    EXPECT_GT(count(json, "server_peak_rss_kib"), 0u);
}

// A relay with one mistake per step: orders of step 5 go to nobody, of step
// 7 twice, of step 9 to the sender too, of step 11 with one byte changed, of
// step 13 in the first room also to the second room; the notice of step 2
// has a wrong first word, of step 3 comes twice, of step 4 never, and step
// 20 is announced as step 21.
class FaultyRelay {
public:
    FaultyRelay() {
        enet_initialize();
        ENetAddress address{htonl(INADDR_LOOPBACK), 0};
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
    static void send(ENetPeer* peer, std::uint8_t channel, const Bytes& bytes) {
        enet_peer_send(peer, channel, enet_packet_create(bytes.data(), bytes.size(), ENET_PACKET_FLAG_RELIABLE));
    }
    void toRoom(std::size_t room, std::uint8_t channel, const Bytes& bytes) {
        for (ENetPeer* p : rooms_[room]) send(p, channel, bytes);
    }
    void join(std::size_t room, ENetPeer* peer) {
        seats_[peer] = {room, static_cast<std::uint32_t>(rooms_[room].size())};
        rooms_[room].push_back(peer);
        send(peer, 0, words({6, 1, seats_[peer].second, static_cast<std::uint32_t>(room + 1)}));
    }
    void onLobby(ENetPeer* peer, const Bytes& data) {
        const std::uint32_t type = loadU32(data.data());
        if (type == 2) {
            rooms_.emplace_back();
            starts_.push_back(0);
            join(rooms_.size() - 1, peer);
        } else if (type == 3) {
            join(loadU32(data.data() + 8) - 1, peer);
        } else if (type == 5) {
            toRoom(seats_.at(peer).first, 0, data);
        } else if (type == 14) {
            // The request, then one confirmation per member.
            const std::size_t room = seats_.at(peer).first;
            if (++starts_[room] == 1 || starts_[room] == 1 + static_cast<int>(rooms_[room].size()))
                toRoom(room, 0, words({14, 1}));
        }
    }
    void onOrder(ENetPeer* peer, Bytes data) {
        const auto [room, slot] = seats_.at(peer);
        const std::uint32_t step = loadU32(data.data() + 4);
        if (data.size() == 12) {
            std::uint32_t& reported = pending_[{room, step}];
            reported |= 1u << loadU32(data.data() + 8);
            if (reported != (1u << rooms_[room].size()) - 1 || step == 4) return;
            for (int i = 0; i < (step == 3 ? 2 : 1); ++i)
                toRoom(room, 3, words({step == 2 ? 2u : 1u, step == 20 ? 21u : step, slot}));
            return;
        }
        if (step == 5) return;
        if (step == 11) data[30] ^= 0x01;
        for (ENetPeer* p : rooms_[room])
            for (int i = 0; i < (p == peer && step != 9 ? 0 : step == 7 ? 2 : 1); ++i) send(p, 3, data);
        if (step == 13 && room == 0 && rooms_.size() > 1) toRoom(1, 3, data);
    }
    void loop() {
        ENetEvent event;
        while (!stop_) {
            while (enet_host_service(host_, &event, 2) > 0) {
                if (event.type != ENET_EVENT_TYPE_RECEIVE) continue;
                Bytes data(event.packet->data, event.packet->data + event.packet->dataLength);
                enet_packet_destroy(event.packet);
                if (event.channelID == 0 && data.size() >= 8) onLobby(event.peer, data);
                if (event.channelID == 3 && data.size() >= 12) onOrder(event.peer, data);
            }
        }
    }

    ENetHost* host_ = nullptr;
    std::thread thread_;
    std::atomic<bool> stop_{false};
    std::vector<std::vector<ENetPeer*>> rooms_;
    std::vector<int> starts_;
    std::map<ENetPeer*, std::pair<std::size_t, std::uint32_t>> seats_;  // room, slot
    std::map<std::pair<std::size_t, std::uint32_t>, std::uint32_t> pending_;  // room, step -> slots done
};

TEST(LoadbotRun, CountsEveryKindOfRelayMistakeExactlyAndNoneAgainstTheBareRelay) {
    {
        FaultyRelay faulty;
        auto [status, j, summary] = loadbot(faulty.port(), {"--drain-seconds", "0.5"});
        ASSERT_EQ(status, 1) << j << summary;
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
    }
    const std::string port = std::to_string(freePort());
    ServerProcess bare(ServerOptions{.arguments = {"--port", port}, .program = BARE_RELAY_BIN});
    bare.launch();
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    auto [status, json, summary] =
        loadbot(std::stoi(port), {"--server-pid", std::to_string(bare.pid()), "--label", "bare"});
    ASSERT_EQ(status, 0) << json << summary;
    expectFlawless(json, 40);
    EXPECT_EQ(count(json, "clean_disconnects"), 6u);
    EXPECT_EQ(field(json, "label"), "\"bare\"");
    EXPECT_NE(summary.find("errors: 0"), std::string::npos) << summary;
}

TEST(LoadbotRun, AgainstTheServerThroughTheRealLobbyWithDownloadsBeside) {
    ServerProcess server;
    ASSERT_TRUE(server.start());
    server.writeFile("server_data/update_data/fill.bin", std::string(200000, 'f'));
    auto [status, json, summary] = loadbot(server.port(),
                                           {"--server-pid", std::to_string(server.pid()), "--downloaders", "2",
                                            "--download-file", "fill.bin"},
                                           "2.5");
    ASSERT_EQ(status, 0) << json << summary;
    expectFlawless(json, 50);
    EXPECT_GE(count(json, "downloads"), 2u);
    EXPECT_EQ(count(json, "failed_downloads"), 0u);
    EXPECT_EQ(count(json, "clean_disconnects"), 8u);
    EXPECT_TRUE(server.waitForLog("Joined room ", 6));
}

}  // namespace
