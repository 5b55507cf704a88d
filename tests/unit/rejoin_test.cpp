// Back into a match after a lost connection, and spectators: tokens, the
// seat kept and released, refusals and their budget, snapshots, the stream
// read back from the recording, and what legacy clients see meanwhile.

#include <gtest/gtest.h>

#include <map>

#include "lobby/lobby.h"
#include "log/metrics.h"
#include "platform/clock.h"
#include "support/harness.h"

namespace {

std::string error(const std::string& text) { return "#### ERROR \n" + text + "\n####"; }

Bytes stepDone(std::uint32_t step, std::uint32_t slot) { return words({1, step, slot}); }

// An ordinary order (type 5) with its text, laid out as a client sends it.
Bytes ordinaryOrder(std::uint32_t step, const std::string& text) {
    return Writer().u32(1).u32(step).u32(0).u32(0).u32(5).u32(0).u32(1).u32(2).u32(3).u32(4).u32(0).u8(0).str(text)
        .take();
}

constexpr std::uint64_t kStart = 1'000'000'000;
constexpr std::uint64_t kAway = 30'000'000;

// A server with rejoin and spectators on, recording into a temporary data
// root, with its clock in the test's hands.
struct Rejoinable {
    TempDataRoot root;
    Harness h{12};
    std::uint32_t roomId = 0;

    explicit Rejoinable(std::uint32_t spectators = 2, std::uint32_t delay = 0) {
        setSteadyClockForTests(kStart);
        h.server.features = kFeatureRejoin | kFeatureSnapshots | kFeatureSpectate;
        h.server.rooms.recordings = &h.server.recordings;
        h.server.rooms.storage = &h.server.storage;
        h.server.recordings.directory = (root / "streams").string();
        h.server.recordings.temporary = true;
        h.server.rooms.access.awayMicros = kAway;
        h.server.rooms.access.spectatorsPerRoom = spectators;
        h.server.rooms.access.spectatorDelaySteps = delay;
    }
    ~Rejoinable() { setSteadyClockForTests(std::nullopt); }

    void hello(std::size_t peer, std::vector<std::string> features) {
        h.lobby(peer, ExtensionsHello{1, 1, std::move(features)});
    }
    // Peers 0..n-1 in a running match; who asks for what before the start.
    Room& match(std::size_t n, const std::vector<std::string>& features = {"rejoin"}, int legacy = -1) {
        for (std::size_t i = 0; i < n; ++i) h.connect(i);
        for (std::size_t i = 0; i < n; ++i)
            if (static_cast<int>(i) != legacy) hello(i, features);
        h.lobby(0, CreateRoom{1, "r", "d", 1});
        roomId = h.server.rooms.nextRoomId - 1;
        for (std::size_t i = 1; i < n; ++i) h.lobby(i, JoinRoom{1, roomId});
        for (std::size_t i = 0; i < n; ++i) h.lobby(i, setupOf(static_cast<std::uint32_t>(i), 1, "P" + std::to_string(i)));
        h.lobby(0, StartGame{});
        h.step();
        for (std::size_t i = 0; i < n; ++i) h.lobby(i, StartGame{});
        h.step();
        Room& room = h.room(roomId);
        EXPECT_TRUE(room.running);
        return room;
    }
    // The token each player was handed at the start, by peer.
    std::map<std::size_t, Bytes> tickets(const std::vector<Sent>& sent) {
        std::map<std::size_t, Bytes> tokens;
        for (const Sent& s : sent)
            if (s.channel == kLobbyChannel && s.bytes.size() >= 4 && s.bytes[0] == RejoinTicket::kType)
                if (auto t = decode<RejoinTicket>(s.bytes)) tokens[s.peer] = Bytes(t->token.begin(), t->token.end());
        return tokens;
    }
    // The worker is not running in these tests: a flush writes at once.
    void flush() { flushRecording(h.server.storage, h.room(roomId).match.recording); }
    // A turn per loop iteration: one to read, one to send, and so on.
    void turn() {
        for (int i = 0; i < 64; ++i) turnStreams(h.server.rooms, steadyMicros());
    }
};

// The records of the CatchUps sent to peer, and whether a CatchUpDone came
// after them; every other message to the peer is left in rest.
struct Stream {
    std::vector<Record> records;
    bool done = false;
    std::vector<Sent> rest;
};
Stream streamTo(const std::vector<Sent>& sent, std::size_t peer) {
    Stream stream;
    for (const Sent& s : sent) {
        if (s.peer == peer && s.channel == kLobbyChannel && s.bytes[0] == CatchUp::kType) {
            EXPECT_FALSE(stream.done) << "a run after CatchUpDone";
            const auto run = decode<CatchUp>(s.bytes);
            Bytes file = recordingPreamble();
            file.insert(file.end(), run->records.begin(), run->records.end());
            const RecordingRead read = readRecording(file);
            EXPECT_EQ(read.problem, "");
            stream.records.insert(stream.records.end(), read.records.begin(), read.records.end());
        } else if (s.peer == peer && s.channel == kLobbyChannel && s.bytes[0] == CatchUpDone::kType) {
            stream.done = true;
        } else {
            stream.rest.push_back(s);
        }
    }
    return stream;
}

// The orders of a stream, as (step, slot, bytes).
std::vector<std::tuple<std::uint32_t, std::uint32_t, Bytes>> ordersOf(const std::vector<Record>& records) {
    std::vector<std::tuple<std::uint32_t, std::uint32_t, Bytes>> orders;
    for (const Record& r : records)
        if (r.type == RecordType::order) {
            Reader in(r.payload);
            const std::uint32_t step = in.u32(), slot = in.u32();
            orders.emplace_back(step, slot, Bytes(r.payload.begin() + 8, r.payload.end()));
        }
    return orders;
}

std::vector<Sent> onChannel(const std::vector<Sent>& sent, std::uint8_t channel) {
    std::vector<Sent> out;
    for (const Sent& s : sent)
        if (s.channel == channel) out.push_back(s);
    return out;
}

}  // namespace

TEST(Rejoin, APlayerBackInTimeIsSentTheMatchThenTheLiveRelayAndCountsOnceCaughtUp) {
    Rejoinable r;
    Room& room = r.match(3);
    const auto tokens = r.tickets(r.h.takeSent());
    ASSERT_EQ(tokens.size(), 3u);
    for (const auto& [peer, token] : tokens) EXPECT_EQ(token.size(), kRejoinTokenSize);
    EXPECT_NE(tokens.at(0), tokens.at(2));
    for (const std::string& line : r.h.takeLogs())
        for (const auto& [peer, token] : tokens) EXPECT_EQ(line.find(std::string(token.begin(), token.end())), std::string::npos);

    const Bytes a = ordinaryOrder(3, "a"), b = ordinaryOrder(3, "b"), c = ordinaryOrder(4, "c");
    r.h.receive(0, kOrderChannel, a);
    r.h.receive(2, kOrderChannel, b);
    r.h.receive(2, kOrderChannel, stepDone(1, 2));
    r.h.takeSent();
    r.flush();

    // The drop: the others are told the player is away, nothing more.
    r.h.disconnect(2);
    EXPECT_EQ(r.h.takeSent(), toEach({0, 1}, kMatchControlChannel, encode(PlayerAway{1, 2})));
    EXPECT_EQ(room.slots[2].state, PlayerState::away);
    ASSERT_NE(room.slots[2].info, nullptr);
    // Steps complete without it.
    r.h.receive(0, kOrderChannel, stepDone(2, 0));
    r.h.receive(1, kOrderChannel, stepDone(2, 1));
    EXPECT_EQ(onChannel(r.h.takeSent(), kOrderChannel), toEach({0, 1}, kOrderChannel, stepDone(2, 1)));
    r.h.receive(1, kOrderChannel, c);  // recorded, not yet on disk
    r.h.takeSent();
    r.h.takeLogs();

    // Back on a new connection with its token.
    r.h.connect(5);
    r.hello(5, {"rejoin"});
    r.h.takeSent();
    r.h.takeLogs();
    r.h.lobby(5, Rejoin{1, r.roomId, tokens.at(2)});
    std::vector<Sent> sent = r.h.takeSent();
    ASSERT_GE(sent.size(), 3u);
    const auto accepted = decode<RejoinAccepted>(sent[0].bytes);
    ASSERT_TRUE(accepted);
    EXPECT_EQ(sent[0].peer, 5u);
    EXPECT_EQ(accepted->slot, 2u);
    EXPECT_EQ(accepted->roomId, r.roomId);
    const Bytes newToken(accepted->token.begin(), accepted->token.end());
    EXPECT_NE(newToken, tokens.at(2));
    EXPECT_EQ(std::vector<Sent>(sent.begin() + 1, sent.begin() + 3),
              toEach({0, 1}, kMatchControlChannel, encode(PlayerBack{1, 2})));
    EXPECT_EQ(r.h.takeLogs(), std::vector<std::string>{"Player back in room " + std::to_string(r.roomId) + ": slot 2"});

    // While it reads the stream, the relay passes it by and steps do not wait for it.
    r.turn();
    Stream stream = streamTo(r.h.takeSent(), 5);
    EXPECT_TRUE(stream.done);
    ASSERT_FALSE(stream.records.empty());
    EXPECT_EQ(stream.records.front().type, RecordType::header);
    using O = std::tuple<std::uint32_t, std::uint32_t, Bytes>;
    EXPECT_EQ(ordersOf(stream.records), (std::vector<O>{{3, 0, a}, {3, 2, b}, {4, 1, c}}));
    EXPECT_EQ(room.slots[2].state, PlayerState::catchingUp);

    // Live now: sent the relay, not yet counted.
    const Bytes d = ordinaryOrder(5, "d");
    r.h.receive(0, kOrderChannel, d);
    EXPECT_EQ(r.h.takeSent(), toEach({1, 5}, kOrderChannel, d));
    r.h.receive(0, kOrderChannel, stepDone(3, 0));
    r.h.receive(1, kOrderChannel, stepDone(3, 1));
    EXPECT_EQ(r.h.takeSent(), toEach({0, 1, 5}, kOrderChannel, stepDone(3, 1)));
    r.h.lobby(5, CaughtUp{});
    r.h.receive(0, kOrderChannel, stepDone(4, 0));
    r.h.receive(1, kOrderChannel, stepDone(4, 1));
    EXPECT_TRUE(r.h.takeSent().empty());  // step 4 waits for the player back
    r.h.receive(5, kOrderChannel, stepDone(4, 2));
    EXPECT_EQ(r.h.takeSent(), toEach({0, 1, 5}, kOrderChannel, stepDone(4, 2)));
}

TEST(Rejoin, TooLateTheSeatIsReleasedAsALeaveAndTheTokenIsRefused) {
    Rejoinable r;
    Room& room = r.match(3);
    const auto tokens = r.tickets(r.h.takeSent());
    r.h.disconnect(2);
    r.h.takeSent();
    setSteadyClockForTests(kStart + kAway - 1);
    r.h.step();
    EXPECT_TRUE(r.h.takeSent().empty());
    setSteadyClockForTests(kStart + kAway);
    r.h.takeLogs();
    r.h.step();
    const std::vector<Sent> sent = r.h.takeSent();
    ASSERT_GE(sent.size(), 4u);
    EXPECT_EQ(std::vector<Sent>(sent.begin(), sent.begin() + 4),
              toEach({0, 1}, kMatchControlChannel, encode(PlayerLeftMatch{1, 2})) +
                  toEach({0, 1}, kTextChannel, encode(Text{"P2 has been disconnected from server"})));
    EXPECT_EQ(room.slots[2].info, nullptr);
    EXPECT_EQ(r.h.takeLogs(), std::vector<std::string>{"Left room " + std::to_string(r.roomId) + " Peers in room: 2"});

    r.h.connect(5);
    r.hello(5, {"rejoin"});
    r.h.takeSent();
    r.h.lobby(5, Rejoin{1, r.roomId, tokens.at(2)});
    EXPECT_EQ(r.h.takeSent(), (std::vector<Sent>{{5, kLobbyChannel,
                                                   encode(JoinRefused{1, r.roomId, 7, "Cannot rejoin: no seat waits for that token."})}}));
}

TEST(Rejoin, WrongAndSpentTokensAreRefusedWithALineEachWithinTheirBudget) {
    Rejoinable r;
    r.h.server.rooms.access.failuresPerAddress = 3;
    r.match(3);
    const auto tokens = r.tickets(r.h.takeSent());
    r.h.disconnect(2);
    r.h.connect(5);
    r.hello(5, {"rejoin"});
    r.h.lobby(5, Rejoin{1, r.roomId, tokens.at(2)});
    r.h.connect(6);
    r.hello(6, {"rejoin"});
    r.h.takeSent();
    r.h.takeLogs();
    const std::uint64_t refusedBefore = metrics().rejoinsRefused.load();

    const Bytes refusal = encode(JoinRefused{1, r.roomId, 7, "Cannot rejoin: no seat waits for that token."});
    const std::string line = "|||| Rejoin refused from 10.0.0.7:5006: no seat waits for that token";
    // Spent: the token that brought slot 2 back.
    r.h.lobby(6, Rejoin{1, r.roomId, tokens.at(2)});
    EXPECT_EQ(r.h.takeSent(), (std::vector<Sent>{{6, kLobbyChannel, refusal}}));
    EXPECT_EQ(r.h.takeLogs(), std::vector<std::string>{error(line)});
    // Wrong: a player's token whose seat is not away, then made-up ones.
    r.h.lobby(6, Rejoin{1, r.roomId, tokens.at(0)});
    EXPECT_EQ(r.h.takeSent(), (std::vector<Sent>{{6, kLobbyChannel, refusal}}));
    EXPECT_EQ(r.h.takeLogs(), std::vector<std::string>{error(line)});
    r.h.lobby(6, Rejoin{1, r.roomId, Bytes(kRejoinTokenSize, 0)});
    EXPECT_EQ(r.h.takeLogs(),
              std::vector<std::string>{error(line + "; further rejoins from its address are refused unchecked for a minute")});
    r.h.takeSent();
    // Past the budget: refused unchecked, and not logged.
    r.h.lobby(6, Rejoin{1, r.roomId, tokens.at(0)});
    EXPECT_EQ(r.h.takeSent(),
              (std::vector<Sent>{{6, kLobbyChannel, encode(JoinRefused{1, r.roomId, 3,
                                                                         "Cannot rejoin: too many failed attempts. Try again in a minute."})}}));
    EXPECT_TRUE(r.h.takeLogs().empty());
    EXPECT_EQ(metrics().rejoinsRefused.load() - refusedBefore, 4u);
    // Nothing else: the connection stays, and a minute later it may try again.
    EXPECT_EQ(r.h.server.peers.count(r.h.peer(6)), 1u);
    setSteadyClockForTests(kStart + 60'000'000);
    r.h.lobby(6, Rejoin{1, r.roomId, Bytes(kRejoinTokenSize, 1)});
    EXPECT_EQ(r.h.takeSent(), (std::vector<Sent>{{6, kLobbyChannel, refusal}}));
    // A token of the wrong size is malformed.
    r.h.receive(6, kLobbyChannel, Writer().u32(108).u32(1).u32(r.roomId).blob(Bytes(15, 0)).take());
    EXPECT_TRUE(r.h.takeSent().empty());
}

TEST(Rejoin, InARoomWithOnePlayerThatDidNotAskADropIsALeave) {
    Rejoinable r;
    Room& room = r.match(3, {"rejoin"}, 1);
    EXPECT_TRUE(r.tickets(r.h.takeSent()).empty());
    EXPECT_FALSE(room.rejoinable);
    r.h.disconnect(2);
    const std::vector<Sent> sent = r.h.takeSent();
    ASSERT_GE(sent.size(), 6u);
    EXPECT_EQ(std::vector<Sent>(sent.begin(), sent.begin() + 6),
              toEach({0, 1, 2}, kMatchControlChannel, encode(PlayerLeftMatch{1, 2})) +
                  toEach({0, 1, 2}, kTextChannel, encode(Text{"P2 has been disconnected from server"})));
    EXPECT_EQ(room.slots[2].info, nullptr);
}

TEST(Rejoin, AStreamStartsFromAnInSyncPlayersSnapshotOrFromTheStartWhenNoneComesInTime) {
    for (const bool answered : {true, false}) {
        SCOPED_TRACE(answered);
        Rejoinable r;
        Room& room = r.match(3, {"rejoin", "snapshots"});
        const auto tokens = r.tickets(r.h.takeSent());
        const Bytes early = ordinaryOrder(4, "early"), late = ordinaryOrder(6, "late");
        r.h.receive(1, kOrderChannel, early);
        r.h.receive(0, kOrderChannel, checksumOrder(4, 9));
        r.h.receive(1, kOrderChannel, late);
        r.h.disconnect(2);
        r.h.connect(5);
        r.hello(5, {"rejoin", "snapshots"});
        r.h.takeSent();
        r.h.takeLogs();
        r.h.lobby(5, Rejoin{1, r.roomId, tokens.at(2)});
        std::vector<Sent> sent = r.h.takeSent();
        // The lowest connected player granted snapshots is asked.
        ASSERT_EQ(sent.back().peer, 0u);
        const auto request = decode<StateRequest>(sent.back().bytes);
        ASSERT_TRUE(request);
        EXPECT_EQ(request->slot, 2u);
        r.flush();
        r.turn();
        EXPECT_TRUE(r.h.takeSent().empty());  // the stream waits for the snapshot

        const Bytes state{1, 2, 3, 4, 5};
        if (answered) {
            r.h.lobby(0, StateSnapshot{1, request->requestId, 4, state});
            sent = r.h.takeSent();
            ASSERT_EQ(sent.size(), 1u);
            EXPECT_EQ(sent[0], (Sent{5, kLobbyChannel, encode(StateSnapshot{1, 0, 4, state})}));
            // Late, or asked by nobody: dropped.
            r.h.lobby(0, StateSnapshot{1, request->requestId, 4, state});
            EXPECT_TRUE(r.h.takeSent().empty());
        } else {
            setSteadyClockForTests(kStart + r.h.server.rooms.access.snapshotWaitMicros);
        }
        r.flush();
        r.turn();
        const Stream stream = streamTo(r.h.takeSent(), 5);
        EXPECT_TRUE(stream.done);
        using O = std::tuple<std::uint32_t, std::uint32_t, Bytes>;
        if (answered) {
            EXPECT_EQ(ordersOf(stream.records), (std::vector<O>{{6, 1, late}}));
            for (const Record& rec : stream.records) EXPECT_NE(rec.type, RecordType::checksum);
            EXPECT_EQ(stream.records.front().type, RecordType::header);
        } else {
            EXPECT_EQ(ordersOf(stream.records), (std::vector<O>{{4, 1, early}, {6, 1, late}}));
            std::size_t bytes = 0;
            for (const Record& rec : stream.records) bytes += kRecordFrameSize + rec.payload.size();
            const std::string id = std::to_string(r.roomId);
            const std::vector<std::string> lines{
                "Player back in room " + id + ": slot 2",
                "No snapshot came for slot 2 of room " + id + ": its stream starts from the start",
                "Stream of room " + id + " sent to slot 2: " + std::to_string(bytes) + " bytes in " +
                    std::to_string(r.h.server.rooms.access.snapshotWaitMicros / 1000) + " ms"};
            EXPECT_EQ(r.h.takeLogs(), lines);
        }
        // The rejoin, as the recording keeps it: the snapshot's step and bytes, or none.
        const Record& last = stream.records.back();
        EXPECT_EQ(last.type, RecordType::rejoin);
        EXPECT_EQ(last.payload, answered ? Writer().u32(2).u32(4).blob(state).take()
                                         : Writer().u32(2).u32(0xFFFFFFFFu).blob(ByteView{}).take());
        (void)room;
    }
}

TEST(Spectators, AreSentTheMatchThenTheLiveRelayWithinTheirLimitAndTheirOrdersAreDropped) {
    Rejoinable r(1);
    r.match(2, {});
    r.h.takeSent();
    const Bytes a = ordinaryOrder(3, "a");
    r.h.receive(0, kOrderChannel, a);
    r.h.takeSent();
    r.h.connect(5);
    r.hello(5, {"spectate"});
    r.h.takeSent();
    r.h.takeLogs();
    r.h.lobby(5, Spectate{1, r.roomId, ""});
    // Nobody but the spectator hears of it.
    EXPECT_EQ(r.h.takeSent(), (std::vector<Sent>{{5, kLobbyChannel, encode(SpectateAccepted{1, r.roomId, 0})}}));
    EXPECT_EQ(r.h.takeLogs(), std::vector<std::string>{"Spectator 10.0.0.6:5005 watches room " + std::to_string(r.roomId)});
    const Bytes b = ordinaryOrder(3, "b");
    r.h.receive(1, kOrderChannel, b);  // pending in memory when the stream reaches it
    EXPECT_EQ(r.h.takeSent(), toEach({0}, kOrderChannel, b));
    r.turn();
    const Stream stream = streamTo(r.h.takeSent(), 5);
    EXPECT_TRUE(stream.done);
    EXPECT_TRUE(stream.rest.empty());
    using O = std::tuple<std::uint32_t, std::uint32_t, Bytes>;
    EXPECT_EQ(ordersOf(stream.records), (std::vector<O>{{3, 0, a}, {3, 1, b}}));

    // Live: the relay and the completions, after the players.
    const Bytes c = ordinaryOrder(4, "c");
    r.h.receive(0, kOrderChannel, c);
    EXPECT_EQ(r.h.takeSent(), toEach({1, 5}, kOrderChannel, c));
    r.h.receive(0, kOrderChannel, stepDone(3, 0));
    EXPECT_TRUE(r.h.takeSent().empty());  // the spectator is not waited for
    r.h.receive(1, kOrderChannel, stepDone(3, 1));
    EXPECT_EQ(r.h.takeSent(), toEach({0, 1, 5}, kOrderChannel, stepDone(3, 1)));

    // Its own orders go nowhere, with one line.
    r.h.takeLogs();
    r.h.receive(5, kOrderChannel, c);
    r.h.receive(5, kOrderChannel, stepDone(4, 0));
    EXPECT_TRUE(r.h.takeSent().empty());
    EXPECT_EQ(r.h.takeLogs(), std::vector<std::string>{error("|||| Spectator 10.0.0.6:5005 sent an order to room " +
                                                             std::to_string(r.roomId) + ": dropped, as are any more it sends")});

    // One spectator a room here: the next is refused.
    r.h.connect(6);
    r.hello(6, {"spectate"});
    r.h.takeSent();
    r.h.lobby(6, Spectate{1, r.roomId, ""});
    EXPECT_EQ(r.h.takeSent(),
              (std::vector<Sent>{{6, kLobbyChannel, encode(JoinRefused{1, r.roomId, 10,
                                                                         "Cannot watch: the room has all the spectators it may."})}}));
    // Leaving makes room; the match's end lets the others go.
    r.h.lobby(5, LeaveRoom{});
    r.h.lobby(6, Spectate{1, r.roomId, ""});
    EXPECT_EQ(r.h.takeSent(), (std::vector<Sent>{{6, kLobbyChannel, encode(SpectateAccepted{1, r.roomId, 0})}}));
    r.turn();
    r.h.takeSent();
    r.h.disconnect(0);
    r.h.disconnect(1);
    r.h.takeSent();
    r.h.step();
    EXPECT_EQ(r.h.takeSent(), (std::vector<Sent>{{6, kLobbyChannel, encode(WatchEnded{1, r.roomId, 0})}}));
    EXPECT_TRUE(r.h.server.rooms.watchers.empty());
}

TEST(Spectators, ADelayedSpectatorIsSentEachStepOnlyOnceTheMatchIsThatFarAhead) {
    Rejoinable r(2, 2);
    r.match(2, {});
    r.h.connect(5);
    r.hello(5, {"spectate"});
    r.h.lobby(5, Spectate{1, r.roomId, ""});
    r.h.takeSent();
    std::vector<Bytes> orders;
    std::vector<Record> seen;
    for (std::uint32_t step = 1; step <= 5; ++step) {
        orders.push_back(ordinaryOrder(step, "o" + std::to_string(step)));
        r.h.receive(0, kOrderChannel, orders.back());
        r.h.receive(0, kOrderChannel, stepDone(step, 0));
        r.h.receive(1, kOrderChannel, stepDone(step, 1));
        r.flush();
        r.turn();
        const Stream stream = streamTo(r.h.takeSent(), 5);
        EXPECT_FALSE(stream.done);  // never live
        seen.insert(seen.end(), stream.records.begin(), stream.records.end());
        // Nothing of a step later than the last completed one minus the delay.
        std::uint32_t last = 0;
        for (const Record& rec : seen) {
            std::uint32_t s = 0;
            if (recordStep(static_cast<std::uint8_t>(rec.type), rec.payload, s)) last = std::max(last, s);
        }
        EXPECT_EQ(last, step >= 2 ? step - 2 : 0u) << "after step " << step;
    }
    using O = std::tuple<std::uint32_t, std::uint32_t, Bytes>;
    EXPECT_EQ(ordersOf(seen), (std::vector<O>{{1, 0, orders[0]}, {2, 0, orders[1]}, {3, 0, orders[2]}}));
    // The match ends: the rest of it, then the end.
    r.h.disconnect(0);
    r.h.disconnect(1);
    r.h.step();
    r.turn();
    const Stream rest = streamTo(r.h.takeSent(), 5);
    EXPECT_EQ(ordersOf(rest.records), (std::vector<O>{{4, 0, orders[3]}, {5, 0, orders[4]}}));
    EXPECT_EQ(rest.records.back().type, RecordType::end);
    ASSERT_FALSE(rest.rest.empty());
    EXPECT_EQ(rest.rest.back(), (Sent{5, kLobbyChannel, encode(WatchEnded{1, r.roomId, 0})}));
    // The temporary recording goes once its last reader is done.
    EXPECT_TRUE(std::filesystem::is_empty(r.root / "streams"));
}

TEST(Extensions, LegacyClientsSeeTheSameBytesBesideRejoinAndSpectators) {
    // A legacy room's match played through on a server with and without the
    // features, while another room's players drop, come back and are watched.
    auto play = [](bool features) {
        Rejoinable r;
        if (!features) r.h.server.features = 0;
        r.match(3, {"rejoin", "spectate"});  // peers 0..2 ask; granted only with features
        const auto tokens = r.tickets(r.h.takeSent());
        for (std::size_t i = 6; i < 9; ++i) r.h.connect(i);
        r.h.lobby(6, CreateRoom{1, "legacy", "d", 1});
        const std::uint32_t legacyRoom = r.h.server.rooms.nextRoomId - 1;
        r.h.lobby(7, JoinRoom{1, legacyRoom});
        r.h.lobby(8, JoinRoom{1, legacyRoom});
        for (std::size_t i = 6; i < 9; ++i) r.h.lobby(i, setupOf(static_cast<std::uint32_t>(i - 6), 1, "L"));
        r.h.lobby(6, StartGame{});
        r.h.step();
        for (std::size_t i = 6; i < 9; ++i) r.h.lobby(i, StartGame{});
        r.h.step();
        r.h.lobby(8, RoomListRequest{1, 0});
        r.h.receive(2, kOrderChannel, ordinaryOrder(2, "x"));
        r.h.disconnect(2);
        r.h.connect(9);
        r.hello(9, {"rejoin", "spectate"});
        if (!tokens.empty()) r.h.lobby(9, Rejoin{1, r.roomId, tokens.at(2)});
        r.h.connect(10);
        r.hello(10, {"spectate"});
        r.h.lobby(10, Spectate{1, legacyRoom, ""});
        r.h.lobby(10, Spectate{1, r.roomId, ""});
        r.flush();
        r.turn();
        r.h.receive(7, kOrderChannel, ordinaryOrder(3, "y"));
        r.h.receive(7, kOrderChannel, stepDone(3, 1));
        r.h.receive(6, kOrderChannel, stepDone(3, 0));
        r.h.receive(8, kOrderChannel, stepDone(3, 2));
        r.h.receive(7, kTextChannel, encode(Text{"gg"}));
        r.h.lobby(8, LeaveRoom{});
        std::vector<Sent> legacy;
        for (const Sent& s : r.h.takeSent())
            if (s.peer >= 6 && s.peer <= 8) legacy.push_back(s);
        // What each client sees, in its order; the order among clients is
        // the registry's, which is the peers' addresses.
        std::stable_sort(legacy.begin(), legacy.end(), [](const Sent& a, const Sent& b) { return a.peer < b.peer; });
        return legacy;
    };
    const std::vector<Sent> without = play(false);
    EXPECT_GT(without.size(), 30u);
    EXPECT_EQ(play(true), without);
}

TEST(Rejoin, AMatchWhoseRecordingStoppedCanNeitherBeRejoinedNorWatched) {
    Rejoinable r;
    r.h.server.recordings.limits.maxFileBytes = 300;
    r.match(3);
    const auto tokens = r.tickets(r.h.takeSent());
    r.h.receive(0, kOrderChannel, ordinaryOrder(3, std::string(200, 'x')));
    ASSERT_FALSE(streamIntact(*r.h.room(r.roomId).match.recording));
    r.h.disconnect(2);
    r.h.connect(5);
    r.hello(5, {"rejoin", "spectate"});
    r.h.takeSent();
    r.h.lobby(5, Rejoin{1, r.roomId, tokens.at(2)});
    const Bytes lost = encode(JoinRefused{1, r.roomId, 9, "Cannot rejoin: the match's stream is lost."});
    EXPECT_EQ(r.h.takeSent(), (std::vector<Sent>{{5, kLobbyChannel, lost}}));
    EXPECT_EQ(r.h.room(r.roomId).slots[2].state, PlayerState::away);  // it waits out its time
    r.h.lobby(5, Spectate{1, r.roomId, ""});
    EXPECT_EQ(r.h.takeSent(),
              (std::vector<Sent>{{5, kLobbyChannel, encode(JoinRefused{1, r.roomId, 9,
                                                                         "Cannot watch: the match's stream is lost."})}}));
}

TEST(Spectators, StreamsTakeTurnsWithinTheBoundOnWhatTheyHoldTogether) {
    Rejoinable r;
    r.h.server.rooms.catchUps.limits.bytesInFlight = 1;
    r.match(2, {});
    r.h.receive(0, kOrderChannel, ordinaryOrder(3, "a"));
    r.flush();
    for (std::size_t peer : {5, 6}) {
        r.h.connect(peer);
        r.hello(peer, {"spectate"});
        r.h.lobby(peer, Spectate{1, r.roomId, ""});
    }
    r.h.takeSent();
    // One turn: the first stream reads its run; the second waits, the bound
    // being taken.
    turnStreams(r.h.server.rooms, steadyMicros());
    EXPECT_GT(r.h.server.rooms.catchUps.inFlight, 0u);
    const std::uint64_t oneRun = r.h.server.rooms.catchUps.inFlight;
    turnStreams(r.h.server.rooms, steadyMicros());
    std::vector<Sent> sent = r.h.takeSent();
    EXPECT_TRUE(streamTo(sent, 5).done);
    EXPECT_TRUE(streamTo(sent, 6).records.empty());
    EXPECT_EQ(r.h.server.rooms.catchUps.inFlight, oneRun);  // now the second's run
    r.turn();
    EXPECT_TRUE(streamTo(r.h.takeSent(), 6).done);
    EXPECT_EQ(r.h.server.rooms.catchUps.inFlight, 0u);
}
