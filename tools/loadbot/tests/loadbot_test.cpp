// The load generator: the latency histogram behind every quantile the
// benchmark prints, and the binary end to end against a relay that makes
// every kind of mistake on purpose (each must be counted exactly), against
// the bare relay it is measured with, and against the server; and the
// flooding clients of the flood benchmark against the server; the catch-up
// tool's reading of a match's stream, and the tool against the server.

#include <arpa/inet.h>
#include <atomic>
#include <regex>

#include "histogram.h"
#include "stream.h"
#include "support/e2e_support.h"

using namespace e2e;

namespace {

TEST(Histogram, QuantilesNeverUnderstateAndMaxIsExact) {
    loadbot::Histogram h;
    EXPECT_EQ(h.quantile(0.5), 0u);
    for (std::uint64_t us = 1; us <= 1000; ++us) h.add(us * 1000);  // 1..1000 microseconds
    EXPECT_EQ(h.count(), 1000u);
    EXPECT_EQ(h.max(), 1000000u);
    for (auto [q, exact] : {std::pair{0.5, 500000.0}, {0.99, 990000.0}, {0.999, 999000.0}})
        EXPECT_TRUE(h.quantile(q) >= exact && h.quantile(q) <= exact * 1.016) << q << ": " << h.quantile(q);
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
    EXPECT_EQ(jsonText(json, "setup_ok"), "true");
    EXPECT_EQ(jsonNumber(json, "steps"), steps);
    EXPECT_EQ(jsonNumber(json, "orders_sent"), 6 * steps);
    for (const char* key : {"relays_expected", "relays_received"}) EXPECT_EQ(jsonNumber(json, key), 12 * steps) << key;
    for (const char* key : {"notices_expected", "notices_received"}) EXPECT_EQ(jsonNumber(json, key), 6 * steps) << key;
    for (const char* key : {"relays_lost", "relays_duplicated", "relays_misrouted", "relays_corrupt", "notices_lost",
                            "notices_duplicated", "notices_misrouted", "notices_corrupt", "dropped_connections",
                            "errors", "other_text"})
        EXPECT_EQ(jsonNumber(json, key), 0u) << key;
    for (const char* key : {"relay_p50_ms", "step_max_ms"}) EXPECT_NE(jsonText(json, key), "0.000") << key;
    EXPECT_NE(jsonText(json, "server_cpu_s"), "null");
    EXPECT_GT(jsonNumber(json, "server_peak_rss_kib"), 0u);
}

// A relay with one mistake per step, until stop: orders of step 5 go to
// nobody, of step 7 twice, of step 9 to the sender too, of step 11 with one
// byte changed, of step 13 in the first room also to the second room; the
// notice of step 2 has a wrong first word, of step 3 comes twice, of step 4
// never, and step 20 is announced as step 21.
void faultyRelay(ENetHost* host, const std::atomic<bool>& stop) {
    std::vector<std::vector<ENetPeer*>> rooms;  // members by slot
    std::vector<int> startGames;
    std::map<ENetPeer*, std::pair<std::size_t, std::uint32_t>> seats;      // room, slot
    std::map<std::pair<std::size_t, std::uint32_t>, std::uint32_t> done;  // room, step -> slots
    auto send = [](ENetPeer* peer, std::uint8_t channel, const Bytes& bytes) {
        enet_peer_send(peer, channel, enet_packet_create(bytes.data(), bytes.size(), ENET_PACKET_FLAG_RELIABLE));
    };
    auto toRoom = [&](std::size_t room, std::uint8_t channel, const Bytes& bytes) {
        for (ENetPeer* p : rooms[room]) send(p, channel, bytes);
    };
    for (ENetEvent event; !stop;) {
        if (enet_host_service(host, &event, 2) <= 0 || event.type != ENET_EVENT_TYPE_RECEIVE) continue;
        Bytes data(event.packet->data, event.packet->data + event.packet->dataLength);
        enet_packet_destroy(event.packet);
        ENetPeer* peer = event.peer;
        if (data.size() < (event.channelID == 0 ? 8u : 12u)) continue;
        const std::uint32_t type = loadU32(data.data()), word2 = data.size() >= 12 ? loadU32(data.data() + 8) : 0;
        if (event.channelID == 0 && (type == 2 || type == 3)) {
            if (type == 2) rooms.emplace_back(), startGames.push_back(0);
            const std::size_t room = type == 2 ? rooms.size() - 1 : word2 - 1;
            seats[peer] = {room, static_cast<std::uint32_t>(rooms[room].size())};
            rooms[room].push_back(peer);
            send(peer, 0, words({6, 1, seats[peer].second, static_cast<std::uint32_t>(room + 1)}));
        } else if (event.channelID == 0 && type == 5) {
            toRoom(seats.at(peer).first, 0, data);
        } else if (event.channelID == 0 && type == 14) {
            // The request, then one confirmation per member.
            const std::size_t room = seats.at(peer).first;
            if (++startGames[room] == 1 || startGames[room] == 1 + static_cast<int>(rooms[room].size()))
                toRoom(room, 0, words({14, 1}));
        } else if (event.channelID == 3) {
            const auto [room, slot] = seats.at(peer);
            const std::uint32_t step = loadU32(data.data() + 4);
            if (data.size() == 12) {
                if ((done[{room, step}] |= 1u << word2) != (1u << rooms[room].size()) - 1 || step == 4) continue;
                for (int i = 0; i < (step == 3 ? 2 : 1); ++i)
                    toRoom(room, 3, words({step == 2 ? 2u : 1u, step == 20 ? 21u : step, slot}));
                continue;
            }
            if (step == 5) continue;
            if (step == 11) data[30] ^= 0x01;
            for (ENetPeer* p : rooms[room])
                for (int i = 0; i < (p == peer && step != 9 ? 0 : step == 7 ? 2 : 1); ++i) send(p, 3, data);
            if (step == 13 && room == 0 && rooms.size() > 1) toRoom(1, 3, data);
        }
    }
}

TEST(LoadbotRun, CountsEveryKindOfRelayMistakeExactlyAndNoneAgainstTheBareRelay) {
    {
        enet_initialize();
        ENetAddress address{htonl(INADDR_LOOPBACK), 0};
        ENetHost* host = enet_host_create(&address, 64, 7, 0, 0);
        std::atomic<bool> stop{false};
        std::thread relay(faultyRelay, host, std::cref(stop));
        auto [status, j, summary] = loadbot(host->address.port, {"--drain-seconds", "0.5"});
        stop = true;
        relay.join();
        enet_host_destroy(host);
        ASSERT_EQ(status, 1) << j << summary;
        // Step 5 is dropped (6 senders x 2 receivers) and the changed step 11
        // leaves a gap in every stream as well; step 9 is echoed to its 6
        // senders, step 13 of room 1 reaches the 3 of room 2; the notices of
        // steps 2 (corrupt), 4 (never sent) and 20 (announced as 21) are lost.
        for (const auto& [key, n] : std::map<std::string, std::uint64_t>{
                 {"relays_expected", 480}, {"relays_lost", 24}, {"relays_duplicated", 12}, {"relays_misrouted", 6 + 9},
                 {"relays_corrupt", 12}, {"relays_received", 456}, {"notices_expected", 240}, {"notices_corrupt", 6},
                 {"notices_duplicated", 6}, {"notices_misrouted", 6}, {"notices_lost", 18}, {"notices_received", 222},
                 {"errors", 24 + 12 + 15 + 12 + 6 + 6 + 6 + 18}})
            EXPECT_EQ(jsonNumber(j, key), n) << key;
    }
    const std::string port = std::to_string(freePort());
    ServerProcess bare(ServerOptions{.arguments = {"--port", port}, .program = BARE_RELAY_BIN});
    bare.launch();
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    auto [status, json, summary] =
        loadbot(std::stoi(port), {"--server-pid", std::to_string(bare.pid()), "--label", "bare"});
    ASSERT_EQ(status, 0) << json << summary;
    expectFlawless(json, 40);
    EXPECT_EQ(jsonNumber(json, "clean_disconnects"), 6u);
    EXPECT_EQ(jsonText(json, "label"), "\"bare\"");
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
    EXPECT_GE(jsonNumber(json, "downloads"), 2u);
    EXPECT_EQ(jsonNumber(json, "failed_downloads"), 0u);
    EXPECT_EQ(jsonNumber(json, "clean_disconnects"), 8u);
    EXPECT_TRUE(server.waitForLog("Joined room ", 6));
}

// One build/flood run against the server: its exit status and its line.
std::pair<int, std::string> flood(std::uint16_t port, std::vector<std::string> args) {
    args.insert(args.end(), {"--port", std::to_string(port)});
    ServerProcess client(ServerOptions{.arguments = args, .program = FLOOD_BIN});
    client.launch();
    int status = client.wait(30000);
    return {status, client.consoleOutput() + client.consoleErrors()};
}

std::uint64_t numberBefore(const std::string& line, const std::string& words) {
    std::smatch m;
    if (!std::regex_search(line, m, std::regex("([0-9]+) " + words))) return 0;
    return std::stoull(m[1]);
}

TEST(FloodRun, TheAttackModesAndTheUpdaterRunAgainstTheServer) {
    ServerProcess server;
    ASSERT_TRUE(server.start());
    server.writeFile("server_data/update_data/fill.bin", std::string(200000, 'f'));
    server.writeFile("server_data/update_data/manifest.manifest", std::string(16, 'm'));
    server.writeFile("server_data/announcements/news.txt", "news");
    const std::uint16_t port = server.port();

    auto [status, line] = flood(port, {"--mode", "updater", "--rate", "20", "--seconds", "1"});
    ASSERT_EQ(status, 0) << line;
    const std::uint64_t requests = numberBefore(line, "manifest requests"), answers = numberBefore(line, "answered");
    EXPECT_GE(requests, 19u) << line;
    EXPECT_GE(answers + 1, requests) << line;

    std::tie(status, line) = flood(port, {"--mode", "vanish-download", "--file", "fill.bin", "--peers", "2",
                                          "--hold-ms", "20", "--seconds", "0.3", "--check-seconds", "5"});
    ASSERT_EQ(status, 0) << line;
    const std::uint64_t rounds = numberBefore(line, "rounds of 2 peers");
    EXPECT_GE(rounds, 1u) << line;
    EXPECT_EQ(numberBefore(line, "of " + std::to_string(rounds) + " rounds within 5 s"), rounds) << line;

    std::tie(status, line) = flood(port, {"--mode", "chat", "--peers", "2", "--seconds", "0.5"});
    ASSERT_EQ(status, 0) << line;
    EXPECT_GT(numberBefore(line, "texts"), 0u) << line;
    EXPECT_EQ(numberBefore(line, "peers cut off"), 0u) << line;

    std::tie(status, line) = flood(port, {"--mode", "churn", "--peers", "2", "--seconds", "0.5"});
    ASSERT_EQ(status, 0) << line;
    EXPECT_GT(numberBefore(line, "rooms joined"), 0u) << line;

    std::tie(status, line) = flood(port, {"--mode", "update-check", "--seconds", "0.5"});
    ASSERT_EQ(status, 0) << line;
    EXPECT_GT(numberBefore(line, "messages \\("), 0u) << line;

    std::tie(status, line) = flood(port, {"--mode", "silent-download", "--file", "fill.bin", "--seconds", "0.2"});
    ASSERT_EQ(status, 0) << line;
    EXPECT_NE(line.find("took nothing"), std::string::npos) << line;
}

// One framed record as the server's recordings hold it.
loadbot::Bytes record(std::uint8_t type, const loadbot::Bytes& payload) {
    loadbot::Bytes out;
    loadbot::putU32(out, static_cast<std::uint32_t>(payload.size()));
    out.push_back(type);
    loadbot::putU32(out, 1234);
    out.insert(out.end(), payload.begin(), payload.end());
    loadbot::putU32(out, loadbot::crc32(out.data() + 4, out.size() - 4));
    return out;
}

loadbot::Bytes catchUpOf(const std::vector<loadbot::Bytes>& records) {
    loadbot::Bytes blob;
    for (const auto& r : records) blob.insert(blob.end(), r.begin(), r.end());
    loadbot::Bytes out;
    loadbot::putU32(out, loadbot::kCatchUp);
    loadbot::putU32(out, 1);
    loadbot::putU32(out, static_cast<std::uint32_t>(blob.size()));
    out.insert(out.end(), blob.begin(), blob.end());
    return out;
}

TEST(CatchUpStream, RecordsAreCheckedByFrameCrcAndSequence) {
    const std::string digits = "123456789";
    EXPECT_EQ(loadbot::crc32(reinterpret_cast<const std::uint8_t*>(digits.data()), digits.size()), 0xCBF43926u);

    auto order = [](std::uint32_t step, std::uint32_t slot) {
        return record(2, words({step, slot, 1, step, slot}));
    };
    loadbot::StreamCheck check;
    check.strict = 0b01;  // slot 0 played throughout, slot 1 did not
    const loadbot::Bytes first = catchUpOf({record(1, words({7})), order(1, 0), order(1, 1), record(3, words({1, 0}))});
    ASSERT_TRUE(check.takeMessage(first.data(), first.size()));
    const loadbot::Bytes second = catchUpOf({order(2, 0), order(5, 1), record(3, words({2, 0}))});
    ASSERT_TRUE(check.takeMessage(second.data(), second.size()));
    EXPECT_EQ(check.records, 7u);
    EXPECT_EQ(check.orders, 4u);
    EXPECT_EQ(check.completions, 2u);
    EXPECT_EQ(check.headers, 1u);
    EXPECT_EQ(check.errors(), 0u);
    // The live relay goes on where the stream ended; a step of slot 0 or a
    // completion missed, or one sent twice, is counted.
    check.takeLiveOrder(0, 3);
    check.takeLiveCompletion(3);
    check.takeLiveOrder(0, 5);
    check.takeLiveCompletion(3);
    EXPECT_EQ(check.gaps, 1u);
    EXPECT_EQ(check.repeats, 1u);

    loadbot::Bytes damaged = catchUpOf({order(6, 0)});
    damaged[20] ^= 1;
    loadbot::StreamCheck other;
    ASSERT_TRUE(other.takeMessage(damaged.data(), damaged.size()));
    EXPECT_EQ(other.badFrames, 1u);
    const loadbot::Bytes cut(second.begin(), second.end() - 3);
    ASSERT_TRUE(other.takeMessage(cut.data(), cut.size()));
    EXPECT_EQ(other.badFrames, 2u);
}

// A match of 4 players played fast, then one of them drops and rejoins twice:
// each time the whole stream comes, whole records with nothing missing or
// repeated up to the live relay, and the match goes on with it.
TEST(CatchUpRun, RejoinsTwiceIntoAFastPlayedMatch) {
    ServerProcess server(ServerOptions{.arguments = {"--rejoin", "30"}});
    ASSERT_TRUE(server.start());
    ServerProcess bot(ServerOptions{.arguments = {"--port", std::to_string(server.port()), "--players", "4", "--steps",
                                                  "300", "--rejoins", "2", "--rejoin-after", "0.3", "--between", "0.3",
                                                  "--server-pid", std::to_string(server.pid())},
                                    .program = CATCHUP_BIN});
    bot.launch();
    ASSERT_EQ(bot.wait(60000), 0) << bot.consoleOutput() << bot.consoleErrors();
    const std::string json = bot.consoleOutput();
    EXPECT_EQ(jsonNumber(json, "catchups_done"), 2u);
    EXPECT_EQ(jsonNumber(json, "errors"), 0u);
    EXPECT_GE(jsonNumber(json, "stream_orders"), 4u * 300);
    EXPECT_GT(jsonNumber(json, "last_live_orders"), 0u);
    EXPECT_EQ(jsonNumber(json, "backs"), 2u * 3);
    EXPECT_TRUE(server.waitForLog("Stream of room ", 2));
    EXPECT_TRUE(server.waitForLog("Player caught up in room ", 2));
}

}  // namespace
