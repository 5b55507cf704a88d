// Rejoin and spectators through the real binary, with the extensions'
// test client: a player that loses its connection and comes back with its
// token on a new one, caught up from the match's stream or from another
// player's snapshot; spectators that join a running match, live or some
// steps behind. Every order is checked byte for byte and in order, in the
// stream and live.

#include "support/e2e_support.h"
#include "support/extension_client.h"

#include "game/catchup.h"

using namespace e2e;

namespace {

constexpr std::uint8_t kLobby = 0, kText = 1, kControl = 2, kOrders = 3;
constexpr std::uint32_t kNoSnapshot = 0xFFFFFFFFu;

// The players of a match by slot, and what the match's stream should hold:
// its records in the order the server handled them (delay changes aside,
// which the server makes on its own time), each with the message a member of
// the audience is sent live for it (none for a player's drop or return), and
// every order it relayed.
struct Played {
    std::vector<std::pair<std::uint32_t, TestClient*>> players;  // who plays now, in slot order
    std::vector<std::pair<std::string, Bytes>> history;
    std::vector<RecordedOrder> orders;
    // Bytes added to each order's text, to make the stream long.
    std::size_t padding = 0;

    void note(std::string event, Bytes live = {}) { history.emplace_back(std::move(event), std::move(live)); }
    std::vector<std::string> events() const {
        std::vector<std::string> out;
        for (const auto& [event, live] : history) out.push_back(event);
        return out;
    }
    // What an audience member is sent live for the records from the nth on.
    std::vector<Bytes> liveFrom(std::size_t n) const {
        std::vector<Bytes> out;
        for (std::size_t i = n; i < history.size(); ++i)
            if (!history[i].second.empty()) out.push_back(history[i].second);
        return out;
    }
};

std::string slotEvent(const char* what, std::uint32_t a, std::uint32_t b) {
    return std::string(what) + " " + std::to_string(a) + " " + std::to_string(b);
}

// One record as the events of Played name it; "" for delay changes.
std::string eventOf(const Record& r) {
    Reader p(r.payload);
    // The payloads' first two words, read in their order.
    const std::uint32_t first = p.u32(), second = p.u32();
    switch (r.type) {
        case RecordType::header: return "header";
        case RecordType::order: return slotEvent("order", first, second);
        case RecordType::stepCompleted: return slotEvent("step", first, second);
        case RecordType::delay: return "";
        case RecordType::away: return "away " + std::to_string(first);
        case RecordType::rejoin: return slotEvent("rejoin", first, second) + " " + std::to_string(p.blob().size());
        case RecordType::left: return slotEvent("left", first, second);
        case RecordType::end: return slotEvent("end", first, second);
        default: return "record " + std::to_string(static_cast<int>(r.type));
    }
}
std::vector<std::string> eventsOf(const Stream& stream) {
    std::vector<std::string> out;
    for (const Record& r : stream.records)
        if (std::string e = eventOf(r); !e.empty()) out.push_back(e);
    return out;
}
std::vector<RecordedOrder> ordersOf(const Stream& stream) {
    std::vector<RecordedOrder> out;
    for (const Record& r : stream.ofType(RecordType::order)) out.push_back(*recordedOrder(r));
    return out;
}

// A stream that went live, and what came live after it: together, every
// record of the match once and in order, and every order exactly as sent.
// Where the stream ends depends on how fast it was read; nothing else does.
void expectStreamThenLive(const Played& m, const Stream& stream, const std::vector<Bytes>& live) {
    EXPECT_TRUE(stream.caughtUp);
    EXPECT_FALSE(stream.damaged);
    const std::vector<std::string> events = eventsOf(stream), expected = m.events();
    ASSERT_LE(events.size(), expected.size()) << ::testing::PrintToString(events);
    EXPECT_EQ(events, std::vector<std::string>(expected.begin(), expected.begin() + static_cast<std::ptrdiff_t>(events.size())));
    const std::vector<RecordedOrder> orders = ordersOf(stream);
    ASSERT_LE(orders.size(), m.orders.size());
    EXPECT_EQ(orders, std::vector<RecordedOrder>(m.orders.begin(), m.orders.begin() + static_cast<std::ptrdiff_t>(orders.size())));
    EXPECT_EQ(live, m.liveFrom(events.size()));
}

// An order no other order of the test has: its sender, step and a text.
Bytes orderOf(std::uint32_t slot, std::uint32_t step, std::size_t padding = 0) {
    const std::string text = "slot " + std::to_string(slot) + " step " + std::to_string(step);
    return order(step, slot, 7, text + std::string(padding, static_cast<char>('a' + step % 26)), {slot, step});
}

// Each player in slot order sends an order for the step, each once every
// other player has the one before it, so the server handles them in that
// order; then all report the step done and get its completion notice.
void playStep(Played& m, std::uint32_t step) {
    for (auto [slot, sender] : m.players) {
        const Bytes o = orderOf(slot, step, m.padding);
        sender->send(kOrders, o);
        for (auto [other, receiver] : m.players)
            if (receiver != sender) {
                EXPECT_EQ(receiver->nextOn(kOrders), o) << "slot " << other << ", step " << step;
            }
        m.note(slotEvent("order", step, slot), o);
        m.orders.push_back(RecordedOrder{step, slot, o});
    }
    for (auto [slot, sender] : m.players) sender->send(kOrders, words({1, step, slot}));
    std::optional<Bytes> notice;
    for (auto [slot, receiver] : m.players) {
        std::optional<Bytes> got = receiver->nextOn(kOrders);
        ASSERT_TRUE(got) << "no completion of step " << step << " for slot " << slot;
        if (notice) {
            EXPECT_EQ(got, notice);
        }
        notice = got;
    }
    ASSERT_EQ(wordAt(*notice, 1), step);
    m.note(slotEvent("step", step, wordAt(*notice, 2)), *notice);
}

// The next message on the channel that is not a delay change, which the
// server may send at any time.
std::optional<Bytes> nextControl(TestClient& c, int timeoutMs = 3000) {
    return awaitOn(c, kControl, [](const Bytes& b) { return b != words({1, 1}) && b != words({2, 1}); }, timeoutMs);
}

// The messages on the channel until nothing comes for a while.
std::vector<Bytes> drain(TestClient& c, std::uint8_t channel, int quietMs = 300) {
    std::vector<Bytes> out;
    for (std::optional<Bytes> m; (m = c.nextOn(channel, quietMs));) out.push_back(std::move(*m));
    return out;
}

// True once the server's own directory of streams holds `count` files.
bool streamsLeft(const ServerProcess& server, std::size_t count) {
    const std::filesystem::path directory = std::filesystem::path(server.root()) / "server_data/streams";
    for (int i = 0; i < 500; ++i) {
        std::error_code error;
        std::size_t n = 0;
        for (auto it = std::filesystem::directory_iterator(directory, error); !error && it != std::filesystem::directory_iterator(); ++it) ++n;
        if (n == count) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return false;
}

std::vector<std::string> features(std::initializer_list<const char*> names) { return {names.begin(), names.end()}; }

// Connected and granted the features, ready for startMatch.
void greet(ExtensionClient& c, std::uint16_t port, const std::vector<std::string>& wanted) {
    ASSERT_TRUE(c.connect(port));
    EXPECT_EQ(c.hello(wanted), wanted);
}

}  // namespace

TEST(RejoinBinary, APlayerDropsTheOthersPlayOnAndItComesBackThroughTheStream) {
    ServerProcess server(ServerOptions{.arguments = {"--rejoin", "30"}});
    ASSERT_TRUE(server.start());
    ExtensionClient a, b, c("127.0.0.3");
    for (ExtensionClient* p : {&a, &b, &c}) greet(*p, server.port(), features({"rejoin"}));
    const std::uint32_t room = startMatch(server.port(), {&a, &b, &c}, {"Ann", "Bob", "Cid"});
    ASSERT_NE(room, 0u);
    for (std::uint32_t slot = 0; ExtensionClient* p : {&a, &b, &c}) {
        ASSERT_TRUE(p->awaitTicket());
        EXPECT_EQ(p->ticket().roomId, room);
        EXPECT_EQ(p->ticket().slot, slot++);
        EXPECT_EQ(p->ticket().token.size(), kRejoinTokenSize);
    }
    EXPECT_NE(a.ticket().token, c.ticket().token);
    EXPECT_NE(b.ticket().token, c.ticket().token);

    Played m{{{0, &a}, {1, &b}, {2, &c}}};
    m.note("header");
    for (std::uint32_t step = 1; step <= 3; ++step) ASSERT_NO_FATAL_FAILURE(playStep(m, step));

    // Cid's connection drops: the others hear it is away, not gone, and play on.
    const Ticket ticket = c.ticket();
    c.disconnect();
    for (TestClient* p : {&a, &b}) EXPECT_EQ(nextControl(*p), words({109, 1, 2}));
    m.note("away 2");
    m.players = {{0, &a}, {1, &b}};
    for (std::uint32_t step = 4; step <= 6; ++step) ASSERT_NO_FATAL_FAILURE(playStep(m, step));

    // Back on a new connection, from the start of the stream.
    ExtensionClient back("127.0.0.3");
    greet(back, server.port(), features({"rejoin"}));
    const std::optional<Bytes> accepted = back.rejoin(ticket);
    ASSERT_TRUE(accepted);
    const std::optional<RejoinAccepted> seat = decode<RejoinAccepted>(*accepted);
    ASSERT_TRUE(seat) << "type " << wordAt(*accepted, 0);
    EXPECT_EQ(seat->roomId, room);
    EXPECT_EQ(seat->slot, 2u);
    EXPECT_NE(back.ticket().token, ticket.token);  // the one presented is spent
    for (TestClient* p : {&a, &b}) EXPECT_EQ(nextControl(*p), words({110, 1, 2}));
    m.note(slotEvent("rejoin", 2, kNoSnapshot) + " 0");
    const std::size_t rejoined = m.history.size();

    // The match goes on while Cid is sent the stream, without waiting for it.
    for (std::uint32_t step = 7; step <= 8; ++step) ASSERT_NO_FATAL_FAILURE(playStep(m, step));
    ASSERT_TRUE(back.readStream());
    const Stream& stream = back.stream();
    EXPECT_FALSE(stream.snapshotStep);
    EXPECT_TRUE(stream.others.empty());
    ASSERT_FALSE(stream.records.empty());
    ASSERT_EQ(stream.records[0].type, RecordType::header);
    const std::optional<RecordingHeader> header = decodeHeader(stream.records[0].payload);
    ASSERT_TRUE(header);
    EXPECT_EQ(header->roomId, room);
    ASSERT_EQ(header->players.size(), 3u);
    for (std::uint32_t slot = 0; const char* name : {"Ann", "Bob", "Cid"}) {
        EXPECT_EQ(header->players[slot].slot, slot);
        EXPECT_EQ(header->players[slot++].name, name);
    }
    // Everything the match did, in order, from the start and at least up to
    // the rejoin, with every order exactly as sent, Cid's own included; and
    // after the stream, live, the rest, nothing twice and nothing missed.
    EXPECT_GE(eventsOf(stream).size(), rejoined);
    ASSERT_NO_FATAL_FAILURE(expectStreamThenLive(m, stream, drain(back, kOrders)));

    // Live now, but not yet counted: the step completes without Cid.
    const std::size_t live = m.history.size();
    ASSERT_NO_FATAL_FAILURE(playStep(m, 9));
    EXPECT_EQ(drain(back, kOrders), m.liveFrom(live));

    // Caught up: the next step waits for Cid's report.
    back.caughtUp();
    ASSERT_TRUE(server.waitForLog("Player caught up in room " + std::to_string(room) + ": slot 2"));
    m.players = {{0, &a}, {1, &b}, {2, &back}};
    for (auto [slot, sender] : m.players) {
        const Bytes o = orderOf(slot, 10);
        sender->send(kOrders, o);
        for (auto [other, receiver] : m.players)
            if (receiver != sender) {
                EXPECT_EQ(receiver->nextOn(kOrders), o) << other;
            }
    }
    a.send(kOrders, words({1, 10, 0}));
    b.send(kOrders, words({1, 10, 1}));
    EXPECT_EQ(a.nextOn(kOrders, 500), std::nullopt) << "step 10 completed without slot 2";
    back.send(kOrders, words({1, 10, 2}));
    for (ExtensionClient* p : {&a, &b, &back}) EXPECT_EQ(p->nextOn(kOrders), words({1, 10, 2}));
    ASSERT_NO_FATAL_FAILURE(playStep(m, 11));

    // Nobody was told of a leave, on any channel.
    for (TestClient* p : {&a, &b}) {
        EXPECT_EQ(drain(*p, kText, 100), std::vector<Bytes>{});
        EXPECT_EQ(nextControl(*p, 100), std::nullopt);
    }
    EXPECT_EQ(countOf(server.log(), "has been disconnected"), 0u);
}

TEST(RejoinBinary, ASpectatorJoinsMidMatchAndIsSentExactlyTheOrdersPlayed) {
    ServerProcess server(ServerOptions{.arguments = {"--spectators", "2"}});
    ASSERT_TRUE(server.start());
    // The players know nothing of extensions.
    TestClient a, b;
    const std::uint32_t room = startMatch(server.port(), {&a, &b}, {"Ann", "Bob"});
    ASSERT_NE(room, 0u);
    Played m{{{0, &a}, {1, &b}}};
    m.note("header");
    for (std::uint32_t step = 1; step <= 3; ++step) ASSERT_NO_FATAL_FAILURE(playStep(m, step));

    ExtensionClient watcher("127.0.0.4");
    greet(watcher, server.port(), features({"spectate"}));
    const std::optional<Bytes> accepted = watcher.spectate(room);
    ASSERT_TRUE(accepted);
    EXPECT_EQ(decode<SpectateAccepted>(*accepted).value_or(SpectateAccepted{}).roomId, room);
    EXPECT_EQ(wordAt(*accepted, 3), 0u);  // live, no delay

    // The players play on while the stream is sent.
    for (std::uint32_t step = 4; step <= 5; ++step) ASSERT_NO_FATAL_FAILURE(playStep(m, step));
    ASSERT_TRUE(watcher.readStream());
    EXPECT_TRUE(watcher.stream().others.empty());
    // From the start, then live: every order of both players and every
    // completion, once each and in order.
    ASSERT_NO_FATAL_FAILURE(expectStreamThenLive(m, watcher.stream(), drain(watcher, kOrders)));
    std::size_t live = m.history.size();
    ASSERT_NO_FATAL_FAILURE(playStep(m, 6));
    EXPECT_EQ(drain(watcher, kOrders), m.liveFrom(live));

    // What a spectator orders goes nowhere, and costs one log line.
    watcher.send(kOrders, orderOf(5, 7));
    watcher.send(kOrders, words({1, 7, 0}));
    ASSERT_TRUE(server.waitForLog("sent an order to room " + std::to_string(room) + ": dropped"));
    live = m.history.size();
    ASSERT_NO_FATAL_FAILURE(playStep(m, 7));
    EXPECT_EQ(drain(watcher, kOrders), m.liveFrom(live));
    EXPECT_EQ(countOf(server.log(), "sent an order to room"), 1u);

    // The players never saw it: nothing in the lobby, no text, and the room's
    // details name only them. Nor is it sent what belongs to the room: chat,
    // delay changes.
    for (TestClient* p : {&a, &b}) {
        EXPECT_EQ(drain(*p, kLobby, 100), std::vector<Bytes>{});
        EXPECT_EQ(drain(*p, kText, 100), std::vector<Bytes>{});
    }
    a.send(kText, text("gg"));
    EXPECT_EQ(b.nextOn(kText), text("gg"));
    for (std::uint8_t channel : {kLobby, kText, kControl}) EXPECT_EQ(drain(watcher, channel, 100), std::vector<Bytes>{});
    TestClient lobby("127.0.0.5");
    ASSERT_TRUE(lobby.connect(server.port()));
    lobby.send(kLobby, words({10, 1, room}));
    EXPECT_EQ(awaitOn(lobby, kLobby, [](const Bytes& b) { return wordAt(b, 0) == 12; }),
              Writer().u32(12).u32(1).u32(2).str("Ann").str("Bob").take());

    // The match ends when both players have left, and the spectator is told.
    for (TestClient* p : {&a, &b}) p->send(kControl, words({3, 1}));
    const std::optional<Bytes> ended = awaitOn(watcher, kLobby, [](const Bytes& b) { return wordAt(b, 0) == 119; });
    EXPECT_EQ(ended, encode(WatchEnded{1, room, 0}));
    // Without --record, the recording was the server's own, and goes with
    // its match.
    EXPECT_TRUE(streamsLeft(server, 0));
}

TEST(RejoinBinary, ADelayedSpectatorIsSentEachStepOnlyOnceTheMatchIsThatFarAhead) {
    constexpr std::uint32_t kDelay = 2;
    ServerProcess server(ServerOptions{.arguments = {"--spectators", "1", "--spectator-delay", std::to_string(kDelay)}});
    ASSERT_TRUE(server.start());
    TestClient a, b;
    const std::uint32_t room = startMatch(server.port(), {&a, &b}, {"Ann", "Bob"});
    ASSERT_NE(room, 0u);
    Played m{{{0, &a}, {1, &b}}};
    m.note("header");
    for (std::uint32_t step = 1; step <= 4; ++step) ASSERT_NO_FATAL_FAILURE(playStep(m, step));

    ExtensionClient watcher("127.0.0.4");
    greet(watcher, server.port(), features({"spectate"}));
    const std::optional<Bytes> accepted = watcher.spectate(room);
    ASSERT_TRUE(accepted);
    EXPECT_EQ(*accepted, encode(SpectateAccepted{1, room, kDelay}));

    // The highest step of any record sent so far, and whether the completion
    // of a step has come.
    auto highestStep = [](const Stream& s) {
        std::uint32_t highest = 0;
        for (const Record& r : s.records)
            if (std::uint32_t step = 0; recordStep(static_cast<std::uint8_t>(r.type), r.payload, step))
                highest = std::max(highest, step);
        return highest;
    };
    auto completed = [](std::uint32_t step) {
        return [step](const Stream& s) {
            for (const Record& r : s.ofType(RecordType::stepCompleted))
                if (loadU32(r.payload.data()) == step) return true;
            return false;
        };
    };
    // Step 4 is complete: the records of steps up to 2 come, and none later
    // until the match has gone on.
    for (std::uint32_t last = 4; last <= 7; ++last) {
        if (last > 4) {
            ASSERT_NO_FATAL_FAILURE(playStep(m, last));
        }
        ASSERT_TRUE(watcher.readStream(10000, completed(last - kDelay))) << "step " << last - kDelay;
        EXPECT_EQ(highestStep(watcher.stream()), last - kDelay);
    }
    EXPECT_EQ(drain(watcher, kOrders, 100), std::vector<Bytes>{});  // never live

    // The match ends: the rest of the stream, and then the end of the watch.
    for (TestClient* p : {&a, &b}) p->send(kControl, words({3, 1}));
    ASSERT_TRUE(watcher.readStream());
    EXPECT_FALSE(watcher.stream().caughtUp);
    ASSERT_TRUE(watcher.stream().ended);
    EXPECT_EQ(watcher.stream().ended->reason, 0u);
    EXPECT_FALSE(watcher.stream().damaged);
    EXPECT_EQ(ordersOf(watcher.stream()), m.orders);
    std::vector<std::string> events = eventsOf(watcher.stream());
    ASSERT_GE(events.size(), m.history.size());
    EXPECT_EQ(std::vector<std::string>(events.begin(), events.begin() + static_cast<std::ptrdiff_t>(m.history.size())),
              m.events());
    EXPECT_EQ(events.back(), "end 0 7");
}

TEST(RejoinBinary, ARejoinFromAnotherPlayersSnapshotLeavesOutTheStepsItHolds) {
    ServerProcess server(ServerOptions{.arguments = {"--rejoin", "30"}});
    ASSERT_TRUE(server.start());
    ExtensionClient a, b, c("127.0.0.3");
    greet(a, server.port(), features({"rejoin", "snapshots"}));
    greet(b, server.port(), features({"rejoin"}));
    greet(c, server.port(), features({"rejoin", "snapshots"}));
    const std::uint32_t room = startMatch(server.port(), {&a, &b, &c}, {"Ann", "Bob", "Cid"});
    ASSERT_NE(room, 0u);
    for (ExtensionClient* p : {&a, &b, &c}) ASSERT_TRUE(p->awaitTicket());
    Played m{{{0, &a}, {1, &b}, {2, &c}}};
    m.note("header");
    for (std::uint32_t step = 1; step <= 3; ++step) ASSERT_NO_FATAL_FAILURE(playStep(m, step));

    const Ticket ticket = c.ticket();
    c.disconnect();
    for (TestClient* p : {&a, &b}) EXPECT_EQ(nextControl(*p), words({109, 1, 2}));
    m.players = {{0, &a}, {1, &b}};
    for (std::uint32_t step = 4; step <= 5; ++step) ASSERT_NO_FATAL_FAILURE(playStep(m, step));

    ExtensionClient back("127.0.0.3");
    greet(back, server.port(), features({"rejoin", "snapshots"}));
    const std::optional<Bytes> accepted = back.rejoin(ticket);
    ASSERT_TRUE(accepted);
    ASSERT_EQ(wordAt(*accepted, 0), RejoinAccepted::kType);
    // While the stream waits for the snapshot, what Cid orders is not its
    // game's present: nobody is sent it, and the stream does not hold it.
    back.send(kOrders, orderOf(2, 6));
    back.send(kOrders, words({1, 6, 2}));
    for (TestClient* p : {&a, &b}) EXPECT_EQ(p->nextOn(kOrders, 300), std::nullopt);
    // Ann is the lowest slot that can supply one; Bob cannot.
    const Bytes state = bytesOf("the world after step 5");
    const std::optional<StateRequest> request = a.answerStateRequest(5, state);
    ASSERT_TRUE(request);
    EXPECT_NE(request->requestId, 0u);
    EXPECT_EQ(request->slot, 2u);
    EXPECT_EQ(drain(b, kLobby, 100), std::vector<Bytes>{});

    ASSERT_TRUE(back.readStream());
    const Stream& stream = back.stream();
    EXPECT_TRUE(stream.caughtUp);
    EXPECT_FALSE(stream.damaged);
    EXPECT_EQ(stream.snapshotStep, 5u);
    EXPECT_EQ(stream.snapshot, state);
    // The header, and what is not orders or completions of the steps the
    // snapshot holds: the drop and the rejoin, with the snapshot.
    EXPECT_EQ(eventsOf(stream), (std::vector<std::string>{"header", "away 2", "rejoin 2 5 " + std::to_string(state.size())}));
    EXPECT_EQ(ordersOf(stream), std::vector<RecordedOrder>{});
    const std::vector<Record> rejoins = stream.ofType(RecordType::rejoin);
    ASSERT_EQ(rejoins.size(), 1u);
    EXPECT_EQ(rejoins[0].payload, Writer().u32(2).u32(5).blob(state).take());

    // Live from here: the next steps' orders, and then it plays again.
    const std::size_t live = m.history.size();
    ASSERT_NO_FATAL_FAILURE(playStep(m, 6));
    EXPECT_EQ(drain(back, kOrders), m.liveFrom(live));
    back.caughtUp();
    ASSERT_TRUE(server.waitForLog("Player caught up in room " + std::to_string(room) + ": slot 2"));
    m.players = {{0, &a}, {1, &b}, {2, &back}};
    ASSERT_NO_FATAL_FAILURE(playStep(m, 7));
}

// A stream many runs long, read by a player coming back and a spectator at
// once while the match goes on: the runs split records anywhere, and each
// receiver is paced on its own.
TEST(RejoinBinary, ALongStreamToAPlayerAndASpectatorAtOnceWhileTheMatchGoesOn) {
    ServerProcess server(ServerOptions{.arguments = {"--rejoin", "30", "--spectators", "2"}});
    ASSERT_TRUE(server.start());
    ExtensionClient a, b, c("127.0.0.3");
    for (ExtensionClient* p : {&a, &b, &c}) greet(*p, server.port(), features({"rejoin"}));
    const std::uint32_t room = startMatch(server.port(), {&a, &b, &c}, {"Ann", "Bob", "Cid"});
    ASSERT_NE(room, 0u);
    for (ExtensionClient* p : {&a, &b, &c}) ASSERT_TRUE(p->awaitTicket());
    // About 1 KiB an order: the match's stream is some 500 KiB, many runs
    // and more than a receiver's queue.
    Played m{{{0, &a}, {1, &b}, {2, &c}}};
    m.padding = 1000;
    m.note("header");
    ASSERT_NO_FATAL_FAILURE(playStep(m, 1));
    const Ticket ticket = c.ticket();
    c.disconnect();
    for (TestClient* p : {&a, &b}) EXPECT_EQ(nextControl(*p), words({109, 1, 2}));
    m.note("away 2");
    m.players = {{0, &a}, {1, &b}};
    for (std::uint32_t step = 2; step <= 250; ++step) ASSERT_NO_FATAL_FAILURE(playStep(m, step));

    ExtensionClient back("127.0.0.3"), watcher("127.0.0.4");
    greet(back, server.port(), features({"rejoin"}));
    greet(watcher, server.port(), features({"spectate"}));
    const std::optional<Bytes> accepted = back.rejoin(ticket);
    ASSERT_TRUE(accepted);
    ASSERT_EQ(wordAt(*accepted, 0), RejoinAccepted::kType);
    m.note(slotEvent("rejoin", 2, kNoSnapshot) + " 0");
    ASSERT_EQ(watcher.spectate(room), encode(SpectateAccepted{1, room, 0}));
    for (std::uint32_t step = 251; step <= 260; ++step) ASSERT_NO_FATAL_FAILURE(playStep(m, step));

    for (ExtensionClient* receiver : {&back, &watcher}) {
        ASSERT_TRUE(receiver->readStream(20000));
        EXPECT_GT(receiver->stream().records.size(), 500u);
        ASSERT_NO_FATAL_FAILURE(expectStreamThenLive(m, receiver->stream(), drain(*receiver, kOrders)));
    }
}

TEST(RejoinBinary, WrongSpentAndLateTokensAreRefusedAndTheSeatIsReleasedInTheEnd) {
    ServerProcess server(ServerOptions{.arguments = {"--rejoin", "4"}});
    ASSERT_TRUE(server.start());
    ExtensionClient a, b("127.0.0.2");
    for (ExtensionClient* p : {&a, &b}) greet(*p, server.port(), features({"rejoin"}));
    const std::uint32_t room = startMatch(server.port(), {&a, &b}, {"Ann", "Bob"});
    ASSERT_NE(room, 0u);
    for (ExtensionClient* p : {&a, &b}) ASSERT_TRUE(p->awaitTicket());
    const Ticket first = b.ticket();
    b.disconnect();
    EXPECT_EQ(nextControl(a), words({109, 1, 1}));

    const Bytes noSeat = encode(JoinRefused{1, room, 7, "Cannot rejoin: no seat waits for that token."});
    ExtensionClient guesser("127.0.0.6");
    greet(guesser, server.port(), features({"rejoin"}));
    Ticket wrong = first;
    wrong.token[0] ^= 1;
    EXPECT_EQ(guesser.rejoin(wrong), noSeat);
    // The right token for another room is as wrong.
    EXPECT_EQ(guesser.rejoin(Ticket{room + 1, 1, first.token}),
              encode(JoinRefused{1, room + 1, 7, "Cannot rejoin: no seat waits for that token."}));
    EXPECT_TRUE(server.waitForLog("|||| Rejoin refused from 127.0.0.6:" + std::to_string(guesser.localPort()) +
                                      ": no seat waits for that token\n",
                                  2));
    // A refusal costs nothing else: the connection stays and is answered.
    guesser.send(kLobby, words({10, 1, 0}));
    EXPECT_TRUE(awaitOn(guesser, kLobby, [](const Bytes& m) { return wordAt(m, 0) == 1; }));
    // Without rejoin granted, the message is unknown.
    TestClient legacy("127.0.0.7");
    ASSERT_TRUE(legacy.connect(server.port()));
    legacy.send(kLobby, encode(Rejoin{1, room, ByteView(first.token)}));
    ASSERT_TRUE(server.waitForLog("|||| Unknown lobby message 108"));
    EXPECT_EQ(legacy.nextOn(kLobby, 300), std::nullopt);

    // Back with the token; the one presented is spent.
    ExtensionClient back("127.0.0.2");
    greet(back, server.port(), features({"rejoin"}));
    ASSERT_EQ(wordAt(back.rejoin(first).value_or(Bytes{}), 0), RejoinAccepted::kType);
    EXPECT_EQ(nextControl(a), words({110, 1, 1}));
    ASSERT_TRUE(back.readStream());
    const Ticket second = back.ticket();
    back.disconnect();
    EXPECT_EQ(nextControl(a), words({109, 1, 1}));
    ExtensionClient again("127.0.0.2");
    greet(again, server.port(), features({"rejoin"}));
    EXPECT_EQ(again.rejoin(first), noSeat);

    // Past the time, the seat is released as a leave is, and the token is
    // worth nothing.
    EXPECT_EQ(nextControl(a, 10000), words({3, 1, 1}));
    EXPECT_EQ(a.nextOn(kText), text("Bob has been disconnected from server"));
    EXPECT_EQ(again.rejoin(second), noSeat);

    // The tokens are nowhere in the log, raw or in hex.
    const std::string log = server.log();
    for (const Ticket* t : {&first, &second, &a.ticket()}) {
        static const char lower[] = "0123456789abcdef", upper[] = "0123456789ABCDEF";
        std::string raw(t->token.begin(), t->token.end()), hexLower, hexUpper;
        for (std::uint8_t byte : t->token) {
            hexLower += {lower[byte >> 4], lower[byte & 15]};
            hexUpper += {upper[byte >> 4], upper[byte & 15]};
        }
        EXPECT_EQ(log.find(raw), std::string::npos);
        EXPECT_EQ(log.find(hexLower), std::string::npos);
        EXPECT_EQ(log.find(hexUpper), std::string::npos);
    }
}

TEST(RejoinBinary, PastTheAllowanceOfFailedRejoinsEvenTheRightTokenIsRefusedUnchecked) {
    ServerProcess server(ServerOptions{.arguments = {"--rejoin", "30"}});
    server.writeFile("settings/limits.conf", "rejoin_failures_per_address_per_minute = 2\n");
    ASSERT_TRUE(server.start());
    ExtensionClient a, b("127.0.0.2");
    for (ExtensionClient* p : {&a, &b}) greet(*p, server.port(), features({"rejoin"}));
    const std::uint32_t room = startMatch(server.port(), {&a, &b}, {"Ann", "Bob"});
    ASSERT_NE(room, 0u);
    for (ExtensionClient* p : {&a, &b}) ASSERT_TRUE(p->awaitTicket());
    const Ticket ticket = b.ticket();
    b.disconnect();
    EXPECT_EQ(nextControl(a), words({109, 1, 1}));

    ExtensionClient back("127.0.0.2");
    greet(back, server.port(), features({"rejoin"}));
    Ticket wrong = ticket;
    wrong.token[15] ^= 0x80;
    for (int i = 0; i < 2; ++i) EXPECT_EQ(wordAt(back.rejoin(wrong).value_or(Bytes{}), 3), 7u);
    EXPECT_EQ(back.rejoin(ticket),
              encode(JoinRefused{1, room, 3, "Cannot rejoin: too many failed attempts. Try again in a minute."}));
    EXPECT_TRUE(server.waitForLog("further rejoins from its address are refused unchecked for a minute"));
    EXPECT_EQ(countOf(server.log(), "|||| Rejoin refused from 127.0.0.2:"), 2u);
    // Another address is not held back, and the seat still waits.
    ExtensionClient elsewhere("127.0.0.8");
    greet(elsewhere, server.port(), features({"rejoin"}));
    EXPECT_EQ(wordAt(elsewhere.rejoin(ticket).value_or(Bytes{}), 0), RejoinAccepted::kType);
}

TEST(RejoinBinary, InARoomWithAPlayerThatKnowsNoRejoinADropIsALeave) {
    ServerProcess server(ServerOptions{.arguments = {"--rejoin", "30"}});
    ASSERT_TRUE(server.start());
    ExtensionClient a;
    TestClient b;
    greet(a, server.port(), features({"rejoin"}));
    const std::uint32_t room = startMatch(server.port(), {&a, &b}, {"Ann", "Bob"});
    ASSERT_NE(room, 0u);
    EXPECT_FALSE(a.awaitTicket(500));
    b.disconnect();
    EXPECT_EQ(nextControl(a), words({3, 1, 1}));
    EXPECT_EQ(a.nextOn(kText), text("Bob has been disconnected from server"));
}

TEST(RejoinBinary, SpectatorsAreRefusedWhereNoMatchRunsAndPastTheRoomsLimit) {
    ServerProcess server(ServerOptions{.arguments = {"--spectators", "1"}});
    ASSERT_TRUE(server.start());
    TestClient a, b;
    ExtensionClient first("127.0.0.4"), second("127.0.0.5");
    for (ExtensionClient* w : {&first, &second}) greet(*w, server.port(), features({"spectate"}));
    ASSERT_TRUE(a.connect(server.port()));
    a.send(kLobby, createRoom("den"));
    ASSERT_TRUE(awaitOn(a, kLobby, [](const Bytes& m) { return wordAt(m, 0) == 6; }));
    EXPECT_EQ(first.spectate(1), encode(JoinRefused{1, 1, 8, "Cannot watch: no match is running in that room."}));
    EXPECT_EQ(first.spectate(9), encode(JoinRefused{1, 9, 1, "Cannot join: room does no longer exist!"}));
    a.send(kLobby, words({4, 1}));
    ASSERT_TRUE(server.waitForLog("deleted."));

    const std::uint32_t room = startMatch(server.port(), {&a, &b}, {"Ann", "Bob"});
    ASSERT_NE(room, 0u);
    EXPECT_EQ(first.spectate(room), encode(SpectateAccepted{1, room, 0}));
    ASSERT_TRUE(first.readStream());
    EXPECT_EQ(second.spectate(room),
              encode(JoinRefused{1, room, 10, "Cannot watch: the room has all the spectators it may."}));
    // One that stops watching makes room for another.
    // (The answer to a room list request says the server has handled what
    // came before it on the channel.)
    first.send(kLobby, words({4, 1}));
    first.send(kLobby, words({10, 1, 0}));
    ASSERT_TRUE(awaitOn(first, kLobby, [](const Bytes& m) { return wordAt(m, 0) == 1; }));
    EXPECT_EQ(second.spectate(room), encode(SpectateAccepted{1, room, 0}));
}

TEST(RejoinBinary, WithoutASnapshotInTimeTheStreamStartsFromTheStart) {
    ServerProcess server(ServerOptions{.arguments = {"--rejoin", "30"}});
    server.writeFile("settings/limits.conf", "snapshot_wait_ms = 300\n");
    ASSERT_TRUE(server.start());
    ExtensionClient a, b, c("127.0.0.3");
    for (ExtensionClient* p : {&a, &b, &c}) greet(*p, server.port(), features({"rejoin", "snapshots"}));
    const std::uint32_t room = startMatch(server.port(), {&a, &b, &c}, {"Ann", "Bob", "Cid"});
    ASSERT_NE(room, 0u);
    for (ExtensionClient* p : {&a, &b, &c}) ASSERT_TRUE(p->awaitTicket());
    Played m{{{0, &a}, {1, &b}, {2, &c}}};
    m.note("header");
    for (std::uint32_t step = 1; step <= 2; ++step) ASSERT_NO_FATAL_FAILURE(playStep(m, step));
    const Ticket ticket = c.ticket();
    c.disconnect();
    for (TestClient* p : {&a, &b}) EXPECT_EQ(nextControl(*p), words({109, 1, 2}));
    m.note("away 2");
    m.players = {{0, &a}, {1, &b}};
    ASSERT_NO_FATAL_FAILURE(playStep(m, 3));

    ExtensionClient back("127.0.0.3");
    greet(back, server.port(), features({"rejoin", "snapshots"}));
    ASSERT_EQ(wordAt(back.rejoin(ticket).value_or(Bytes{}), 0), RejoinAccepted::kType);
    // Ann is asked and never answers in time.
    const std::optional<Bytes> asked = awaitOn(a, kLobby, [](const Bytes& msg) { return wordAt(msg, 0) == 117; });
    ASSERT_TRUE(asked);
    m.note(slotEvent("rejoin", 2, kNoSnapshot) + " 0");
    ASSERT_TRUE(back.readStream());
    EXPECT_FALSE(back.stream().snapshotStep);
    ASSERT_NO_FATAL_FAILURE(expectStreamThenLive(m, back.stream(), drain(back, kOrders)));
    EXPECT_TRUE(server.waitForLog("No snapshot came for slot 2 of room " + std::to_string(room)));

    // Its answer, late, is dropped.
    a.send(kLobby, encode(StateSnapshot{1, wordAt(*asked, 2), 3, bytesOf("late")}));
    ASSERT_NO_FATAL_FAILURE(playStep(m, 4));
    EXPECT_EQ(drain(back, kLobby, 100), std::vector<Bytes>{});
}

// A player whose connection drops again while it is sent the stream is away
// again, and comes back with the token it got the first time.
TEST(RejoinBinary, APlayerThatDropsDuringItsCatchUpComesBackWithItsNewToken) {
    ServerProcess server(ServerOptions{.arguments = {"--rejoin", "30"}});
    ASSERT_TRUE(server.start());
    ExtensionClient a, b, c("127.0.0.3");
    for (ExtensionClient* p : {&a, &b, &c}) greet(*p, server.port(), features({"rejoin"}));
    const std::uint32_t room = startMatch(server.port(), {&a, &b, &c}, {"Ann", "Bob", "Cid"});
    ASSERT_NE(room, 0u);
    for (ExtensionClient* p : {&a, &b, &c}) ASSERT_TRUE(p->awaitTicket());
    Played m{{{0, &a}, {1, &b}, {2, &c}}};
    m.padding = 1000;
    m.note("header");
    ASSERT_NO_FATAL_FAILURE(playStep(m, 1));
    const Ticket first = c.ticket();
    c.disconnect();
    for (TestClient* p : {&a, &b}) EXPECT_EQ(nextControl(*p), words({109, 1, 2}));
    m.note("away 2");
    m.players = {{0, &a}, {1, &b}};
    for (std::uint32_t step = 2; step <= 150; ++step) ASSERT_NO_FATAL_FAILURE(playStep(m, step));

    // Back, and gone again before it has read the stream.
    Ticket second;
    {
        ExtensionClient back("127.0.0.3");
        greet(back, server.port(), features({"rejoin"}));
        ASSERT_EQ(wordAt(back.rejoin(first).value_or(Bytes{}), 0), RejoinAccepted::kType);
        second = back.ticket();
        back.disconnect();
    }
    for (TestClient* p : {&a, &b}) {
        EXPECT_EQ(nextControl(*p), words({110, 1, 2}));
        EXPECT_EQ(nextControl(*p), words({109, 1, 2}));
    }
    m.note(slotEvent("rejoin", 2, kNoSnapshot) + " 0");
    m.note("away 2");
    ASSERT_NO_FATAL_FAILURE(playStep(m, 151));

    ExtensionClient again("127.0.0.3");
    greet(again, server.port(), features({"rejoin"}));
    EXPECT_EQ(wordAt(again.rejoin(first).value_or(Bytes{}), 3), 7u);  // spent
    const std::optional<Bytes> accepted = again.rejoin(second);
    ASSERT_TRUE(accepted);
    ASSERT_EQ(wordAt(*accepted, 0), RejoinAccepted::kType);
    m.note(slotEvent("rejoin", 2, kNoSnapshot) + " 0");
    for (TestClient* p : {&a, &b}) EXPECT_EQ(nextControl(*p), words({110, 1, 2}));
    ASSERT_NO_FATAL_FAILURE(playStep(m, 152));
    ASSERT_TRUE(again.readStream(20000));
    ASSERT_NO_FATAL_FAILURE(expectStreamThenLive(m, again.stream(), drain(again, kOrders)));

    again.caughtUp();
    ASSERT_TRUE(server.waitForLog("Player caught up in room " + std::to_string(room) + ": slot 2"));
    m.players = {{0, &a}, {1, &b}, {2, &again}};
    ASSERT_NO_FATAL_FAILURE(playStep(m, 153));
}

TEST(RejoinBinary, ASpectatorOfAPrivateRoomNeedsItsPassword) {
    ServerProcess server(ServerOptions{.arguments = {"--private-rooms", "--spectators", "1"}});
    ASSERT_TRUE(server.start());
    ExtensionClient a, b;
    for (ExtensionClient* p : {&a, &b}) greet(*p, server.port(), features({"private-rooms"}));
    const Bytes create = encode(CreatePrivateRoom{1, "den", "data", 77, "Quartz", 0});
    // startMatch joins with JoinRoom, which a room with a password refuses:
    // Bob joins with the password first.
    a.send(kLobby, create);
    const std::optional<Bytes> created = awaitOn(a, kLobby, [](const Bytes& m) { return wordAt(m, 0) == 6; });
    ASSERT_TRUE(created);
    const std::uint32_t room = wordAt(*created, 3);
    b.send(kLobby, encode(JoinPrivateRoom{1, room, "Quartz"}));
    ASSERT_TRUE(awaitOn(b, kLobby, [](const Bytes& m) { return wordAt(m, 0) == 6; }));
    a.send(kLobby, setup(0, 1, "Ann"));
    b.send(kLobby, setup(1, 1, "Bob"));
    for (TestClient* p : {&a, &b})
        for (int n = 0; n < 2; ++n)
            ASSERT_TRUE(awaitOn(*p, kLobby, [](const Bytes& m) { return wordAt(m, 0) == 5 && wordAt(m, 3) == 1; }));
    a.send(kLobby, words({14, 1}));
    for (TestClient* p : {&a, &b}) {
        ASSERT_TRUE(awaitOn(*p, kLobby, [](const Bytes& m) { return wordAt(m, 0) == 14; }));
        p->send(kLobby, words({14, 1}));
    }
    for (TestClient* p : {&a, &b}) ASSERT_TRUE(awaitOn(*p, kLobby, [](const Bytes& m) { return wordAt(m, 0) == 14; }));
    Played m{{{0, &a}, {1, &b}}};
    m.note("header");
    ASSERT_NO_FATAL_FAILURE(playStep(m, 1));

    ExtensionClient watcher("127.0.0.4");
    greet(watcher, server.port(), features({"spectate"}));
    EXPECT_EQ(wordAt(watcher.spectate(room, "quartz").value_or(Bytes{}), 3), 2u);
    EXPECT_EQ(watcher.spectate(room, "Quartz"), encode(SpectateAccepted{1, room, 0}));
    ASSERT_TRUE(watcher.readStream());
    ASSERT_NO_FATAL_FAILURE(expectStreamThenLive(m, watcher.stream(), drain(watcher, kOrders)));
}

// A receiver that reads nothing holds up its own stream: the server hands
// ENet a share of it at a time, and the rest waits on disk until the
// receiver has taken what went before. (The stream is larger than the share,
// and most of it is still to be written when the player comes back.)
TEST(RejoinBinary, AReceiverThatReadsNothingIsNotHandedTheWholeStream) {
    ServerProcess server(ServerOptions{.arguments = {"--rejoin", "30"}});
    ASSERT_TRUE(server.start());
    ExtensionClient a, b, c("127.0.0.3");
    for (ExtensionClient* p : {&a, &b, &c}) greet(*p, server.port(), features({"rejoin"}));
    const std::uint32_t room = startMatch(server.port(), {&a, &b, &c}, {"Ann", "Bob", "Cid"});
    ASSERT_NE(room, 0u);
    for (ExtensionClient* p : {&a, &b, &c}) ASSERT_TRUE(p->awaitTicket());
    Played m{{{0, &a}, {1, &b}, {2, &c}}};
    m.padding = 1000;
    m.note("header");
    ASSERT_NO_FATAL_FAILURE(playStep(m, 1));
    const Ticket ticket = c.ticket();
    c.disconnect();
    for (TestClient* p : {&a, &b}) EXPECT_EQ(nextControl(*p), words({109, 1, 2}));
    m.note("away 2");
    m.players = {{0, &a}, {1, &b}};
    ExtensionClient back("127.0.0.3");
    greet(back, server.port(), features({"rejoin"}));
    for (std::uint32_t step = 2; step <= 250; ++step) ASSERT_NO_FATAL_FAILURE(playStep(m, step));

    // The Rejoin goes out, and the client then reads nothing for a second.
    back.send(kLobby, encode(Rejoin{1, room, ByteView(ticket.token)}));
    m.note(slotEvent("rejoin", 2, kNoSnapshot) + " 0");
    ASSERT_TRUE(server.waitForLog("Player back in room " + std::to_string(room) + ": slot 2"));
    std::this_thread::sleep_for(std::chrono::seconds(1));
    const std::string sent = "Stream of room " + std::to_string(room) + " sent to slot 2: ";
    EXPECT_EQ(countOf(server.log(), sent), 0u);

    // Read, it is whole.
    ASSERT_TRUE(back.readStream(20000));
    ASSERT_EQ(back.stream().others.size(), 1u);
    EXPECT_EQ(wordAt(back.stream().others[0], 0), RejoinAccepted::kType);
    ASSERT_NO_FATAL_FAILURE(expectStreamThenLive(m, back.stream(), drain(back, kOrders)));
    EXPECT_TRUE(server.waitForLog(sent));
}

// Every player away: the room waits for them. One comes back, catches up and
// plays on alone; the other's seat is released when its time is up, and the
// match ends with the last player's leave.
TEST(RejoinBinary, ARoomWhosePlayersAreAllAwayWaitsForThem) {
    ServerProcess server(ServerOptions{.arguments = {"--rejoin", "4"}});
    ASSERT_TRUE(server.start());
    ExtensionClient a, b("127.0.0.2");
    for (ExtensionClient* p : {&a, &b}) greet(*p, server.port(), features({"rejoin"}));
    const std::uint32_t room = startMatch(server.port(), {&a, &b}, {"Ann", "Bob"});
    ASSERT_NE(room, 0u);
    for (ExtensionClient* p : {&a, &b}) ASSERT_TRUE(p->awaitTicket());
    Played m{{{0, &a}, {1, &b}}};
    m.note("header");
    ASSERT_NO_FATAL_FAILURE(playStep(m, 1));
    const Ticket ticket = a.ticket();
    b.disconnect();
    EXPECT_EQ(nextControl(a), words({109, 1, 1}));
    m.note("away 1");
    a.disconnect();
    ASSERT_TRUE(server.waitForLog("Player away from room " + std::to_string(room) + ": slot 0"));
    m.note("away 0");
    EXPECT_TRUE(streamsLeft(server, 1));

    ExtensionClient back;
    greet(back, server.port(), features({"rejoin"}));
    ASSERT_EQ(wordAt(back.rejoin(ticket).value_or(Bytes{}), 0), RejoinAccepted::kType);
    m.note(slotEvent("rejoin", 0, kNoSnapshot) + " 0");
    ASSERT_TRUE(back.readStream());
    ASSERT_NO_FATAL_FAILURE(expectStreamThenLive(m, back.stream(), drain(back, kOrders)));
    back.caughtUp();
    ASSERT_TRUE(server.waitForLog("Player caught up in room " + std::to_string(room) + ": slot 0"));
    m.players = {{0, &back}};
    ASSERT_NO_FATAL_FAILURE(playStep(m, 2));

    EXPECT_EQ(nextControl(back, 10000), words({3, 1, 1}));
    EXPECT_EQ(back.nextOn(kText), text("Bob has been disconnected from server"));
    back.send(kControl, words({3, 1}));
    ASSERT_TRUE(server.waitForLog("deleted."));
    EXPECT_TRUE(streamsLeft(server, 0));
}

// The player asked for a snapshot loses its connection before it answers:
// the stream starts from the start at once, with no snapshot.
TEST(RejoinBinary, WhenThePlayerAskedForASnapshotDropsTheStreamStartsFromTheStart) {
    ServerProcess server(ServerOptions{.arguments = {"--rejoin", "30"}});
    // Only the drop can end the wait.
    server.writeFile("settings/limits.conf", "snapshot_wait_ms = 600000\n");
    ASSERT_TRUE(server.start());
    ExtensionClient a, b, c("127.0.0.3");
    greet(a, server.port(), features({"rejoin", "snapshots"}));
    greet(b, server.port(), features({"rejoin"}));
    greet(c, server.port(), features({"rejoin", "snapshots"}));
    const std::uint32_t room = startMatch(server.port(), {&a, &b, &c}, {"Ann", "Bob", "Cid"});
    ASSERT_NE(room, 0u);
    for (ExtensionClient* p : {&a, &b, &c}) ASSERT_TRUE(p->awaitTicket());
    Played m{{{0, &a}, {1, &b}, {2, &c}}};
    m.note("header");
    ASSERT_NO_FATAL_FAILURE(playStep(m, 1));
    const Ticket ticket = c.ticket();
    c.disconnect();
    for (TestClient* p : {&a, &b}) EXPECT_EQ(nextControl(*p), words({109, 1, 2}));
    m.note("away 2");

    ExtensionClient back("127.0.0.3");
    greet(back, server.port(), features({"rejoin", "snapshots"}));
    ASSERT_EQ(wordAt(back.rejoin(ticket).value_or(Bytes{}), 0), RejoinAccepted::kType);
    ASSERT_TRUE(awaitOn(a, kLobby, [](const Bytes& msg) { return wordAt(msg, 0) == StateRequest::kType; }));
    a.disconnect();
    EXPECT_EQ(nextControl(b), words({110, 1, 2}));
    EXPECT_EQ(nextControl(b), words({109, 1, 0}));
    m.note("away 0");
    m.note(slotEvent("rejoin", 2, kNoSnapshot) + " 0");
    ASSERT_TRUE(back.readStream());
    EXPECT_FALSE(back.stream().snapshotStep);
    ASSERT_NO_FATAL_FAILURE(expectStreamThenLive(m, back.stream(), drain(back, kOrders)));
    EXPECT_TRUE(server.waitForLog("No snapshot came for slot 2 of room " + std::to_string(room)));
}
