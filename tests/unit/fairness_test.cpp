// What many peers, or peers of one address, may make the server do together:
// the budgets per address, the replies a request may buy, the lobby chat
// over all senders, the rooms, and the announcements kept between requests.

#include <gtest/gtest.h>

#include <cstring>
#include <fstream>

#include "log/metrics.h"
#include "platform/clock.h"
#include "support/harness.h"
#include "update/update.h"

namespace {
std::string error(const std::string& text) { return "#### ERROR \n" + text + "\n####"; }

std::uint64_t fired(LimitFired limit) { return metrics().limitsFired[static_cast<std::size_t>(limit)].load(); }

// Peers 1.. take the address of peer 0, as players behind one router.
void shareAddress(Harness& h, std::size_t n) {
    for (std::size_t i = 1; i < n; ++i) h.peer(i)->address.host = h.peer(0)->address.host;
}

std::size_t countOn(const std::vector<Sent>& sent, std::uint8_t channel) {
    return static_cast<std::size_t>(
        std::count_if(sent.begin(), sent.end(), [channel](const Sent& s) { return s.channel == channel; }));
}
}  // namespace

TEST(AddressBudgets, PeersOfOneAddressShareAMultipleOfOnePeersBudget) {
    Harness h;
    setSteadyClockForTests(1'000'000);
    h.server.limits.messages[static_cast<std::size_t>(Group::lobby)] = {1, 2};
    h.server.limits.addressBudgetMultiple = 2;
    h.server.limits.overbudgetDisconnectSeconds = 1;
    shareAddress(h, 3);
    for (std::size_t i = 0; i < 4; ++i) h.connect(i);
    h.takeSent();
    h.takeLogs();
    const Bytes list = words({10, 1, 0});
    // Two each from peers 0 and 1 spend the address's four; peer 2 of the
    // same address gets nothing, peer 3 of another address its own two.
    for (std::size_t i = 0; i < 4; ++i)
        for (int n = 0; n < 2; ++n) h.receive(i, kLobbyChannel, list);
    std::vector<std::size_t> answered(4, 0);
    for (const Sent& s : h.takeSent()) answered[s.peer] += s.channel == kLobbyChannel;
    EXPECT_EQ(answered, (std::vector<std::size_t>{2, 2, 0, 2}));
    EXPECT_EQ(h.takeLogs(), std::vector<std::string>{error("|||| Peer 10.0.0.1:5002 over budget, dropped: lobby 1")});
    // Dropping for its address's sake, however long, never gets a peer
    // disconnected: within its own budget it may be an honest player.
    for (int n = 1; n <= 4; ++n) {
        setSteadyClockForTests(1'000'000 + 1'200'000 * n);
        for (std::size_t i = 0; i < 3; ++i) h.receive(i, kLobbyChannel, list);
    }
    EXPECT_EQ(countOn(h.takeSent(), kDisconnectedMark), 0u);
    // The record goes with the address's last peer.
    for (std::size_t i = 0; i < 3; ++i) h.disconnect(i);
    EXPECT_EQ(h.server.addressBudgets.count(h.peer(0)->address.host), 0u);
    EXPECT_EQ(h.server.addressBudgets.size(), 1u);
}

TEST(Rooms, MaxRoomsAndCreationsAMinuteAreRefusedWithATextThatSaysWhy) {
    Harness h;
    std::uint64_t now = 1'000'000;
    setSteadyClockForTests(now);
    h.server.limits.maxRooms = 2;
    h.server.limits.roomsPerPeerPerMinute = 2;
    h.server.limits.roomsPerAddressPerMinute = 3;
    shareAddress(h, 3);
    for (std::size_t i = 0; i < 4; ++i) h.connect(i);
    const std::uint64_t overMax = fired(LimitFired::maxRooms), overRate = fired(LimitFired::roomsPerMinute);
    h.lobby(0, CreateRoom{1, "a", "d", 1});
    h.lobby(1, CreateRoom{1, "b", "d", 1});
    h.takeSent();
    h.takeLogs();
    h.lobby(3, CreateRoom{1, "c", "d", 1});
    EXPECT_EQ(h.takeSent(), (std::vector<Sent>{{3, kTextChannel,
                                                encode(Text{"Room not created: the server holds as many rooms as it "
                                                            "can. Try again later."})}}));
    EXPECT_EQ(h.takeLogs(), std::vector<std::string>{error("|||| Peer 10.0.0.4:5003: room not created: max_rooms reached")});
    EXPECT_EQ(h.server.rooms.byId.size(), 2u);
    // A request from inside a room is no creation: nothing, not even a refusal.
    h.lobby(0, CreateRoom{1, "again", "d", 1});
    EXPECT_TRUE(h.takeSent().empty());

    // Churn: peer 0 leaves and creates; its second room of the minute is its
    // last, and then its address's third is the address's last.
    h.server.limits.maxRooms = 0;
    h.lobby(0, LeaveRoom{});
    h.step();  // the empty room goes
    h.lobby(0, CreateRoom{1, "a2", "d", 1});
    h.lobby(0, LeaveRoom{});
    h.takeSent();
    h.takeLogs();
    const Bytes tooFast = encode(Text{"Room not created: too many rooms were created from your connection in the last "
                                      "minute. Try again in a minute."});
    h.lobby(0, CreateRoom{1, "a3", "d", 1});
    EXPECT_EQ(h.takeSent(), (std::vector<Sent>{{0, kTextChannel, tooFast}}));
    h.lobby(2, CreateRoom{1, "x", "d", 1});
    EXPECT_EQ(h.takeSent(), (std::vector<Sent>{{2, kTextChannel, tooFast}}));
    // Refusals are logged once a minute per peer, and counted every time.
    h.lobby(0, CreateRoom{1, "a4", "d", 1});
    EXPECT_EQ(h.takeSent(), (std::vector<Sent>{{0, kTextChannel, tooFast}}));
    EXPECT_EQ(h.takeLogs(),
              (std::vector<std::string>{error("|||| Peer 10.0.0.1:5000: room not created: over rooms_per_peer_per_minute "
                                              "or rooms_per_address_per_minute"),
                                        error("|||| Peer 10.0.0.1:5002: room not created: over rooms_per_peer_per_minute "
                                              "or rooms_per_address_per_minute")}));
    EXPECT_EQ(fired(LimitFired::maxRooms) - overMax, 1u);
    EXPECT_EQ(fired(LimitFired::roomsPerMinute) - overRate, 3u);
    // A minute later the peer may create again.
    setSteadyClockForTests(now + 61'000'000);
    h.lobby(0, CreateRoom{1, "a5", "d", 1});
    EXPECT_EQ(countOn(h.takeSent(), kTextChannel), 0u);
}

TEST(Replies, ARoomListIsChargedToTheAskersReplyBudget) {
    Harness h;
    setSteadyClockForTests(1'000'000);
    h.server.limits.replyBytes = {10, 10};
    h.connect(0);
    h.connect(1);
    h.lobby(1, CreateRoom{1, "a room with a long enough name", "d", 1});
    h.takeSent();
    h.takeLogs();
    const std::uint64_t before = fired(LimitFired::replyBytes);
    // The first list goes whole, however long; it spends the budget, so the
    // next is not sent until the budget is back above nothing.
    h.lobby(0, RoomListRequest{1, 0});
    EXPECT_EQ(h.takeSent().size(), 2u);
    h.lobby(0, RoomListRequest{1, 0});
    EXPECT_TRUE(h.takeSent().empty());
    EXPECT_EQ(h.takeLogs(),
              std::vector<std::string>{error("|||| Peer 10.0.0.1:5000: room list not sent: over reply_bytes_per_second")});
    h.lobby(1, RoomListRequest{1, 0});  // another peer's budget is its own
    EXPECT_EQ(h.takeSent().size(), 2u);
    setSteadyClockForTests(11'000'000);
    h.lobby(0, RoomListRequest{1, 0});
    EXPECT_EQ(h.takeSent().size(), 2u);
    EXPECT_EQ(fired(LimitFired::replyBytes) - before, 1u);
}

TEST(LobbyChat, LinesShareOneBudgetOverAllSendersCountedAsBytesSentOut) {
    Harness h;
    setSteadyClockForTests(1'000'000);
    for (std::size_t i = 0; i < 4; ++i) h.connect(i);
    h.lobby(3, CreateRoom{1, "r", "d", 1});
    const Bytes line = encode(Text{"hello"});  // 6 bytes, to 3 peers in no room
    h.server.limits.lobbyChatBytes = {18, 36};
    h.takeSent();
    h.takeLogs();
    h.receive(0, kTextChannel, line);
    h.receive(1, kTextChannel, line);
    EXPECT_EQ(countOn(h.takeSent(), kTextChannel), 6u);
    h.receive(2, kTextChannel, line);
    EXPECT_TRUE(h.takeSent().empty());
    EXPECT_EQ(h.takeLogs(),
              std::vector<std::string>{error("|||| Peer 10.0.0.3:5002: lobby chat line dropped: over "
                                             "lobby_chat_bytes_per_second")});
    // A room's chat is its own.
    h.receive(3, kTextChannel, line);
    EXPECT_EQ(h.takeSent(), (std::vector<Sent>{{3, kTextChannel, line}}));
    setSteadyClockForTests(2'000'000);
    h.receive(2, kTextChannel, line);
    EXPECT_EQ(countOn(h.takeSent(), kTextChannel), 3u);
}

TEST(Announcements, ReadOnceKeptAndReadAgainAfterAChangeOrWhenForgotten) {
    TempDataRoot root;
    std::filesystem::create_directories(root / "server_data/announcements");
    std::ofstream(root / "server_data/announcements/a") << "first";
    Harness h;
    h.connect(0);
    h.connect(1);
    const Bytes check = encode(TrackEvent{1, "p", "d", 0, kUpdateCheckEvent, ""});
    auto announcements = [&](std::size_t peer) {
        std::vector<Bytes> got;
        for (const Sent& s : h.takeSent())
            if (s.peer == peer && s.channel == kEventTrackingChannel && s.bytes.size() >= 4 && s.bytes[0] == 2)
                got.push_back(s.bytes);
        return got;
    };
    h.receive(0, kEventTrackingChannel, check);
    EXPECT_EQ(announcements(0), std::vector<Bytes>{encode(Announcements{0, {"first"}})});
    const Bytes kept = h.server.announcements.message.bytes().empty()
                           ? Bytes{}
                           : Bytes(h.server.announcements.message.bytes().begin(),
                                   h.server.announcements.message.bytes().end());
    EXPECT_EQ(kept, encode(Announcements{0, {"first"}}));
    // Written: seen, read again.
    std::ofstream(root / "server_data/announcements/b") << "second";
    h.receive(1, kEventTrackingChannel, check);
    const std::vector<Bytes> got = announcements(1);
    ASSERT_EQ(got.size(), 1u);
    EXPECT_TRUE(got[0] == encode(Announcements{0, {"first", "second"}}) ||
                got[0] == encode(Announcements{0, {"second", "first"}}));
    // Unchanged: the same packet, shared, not read again.
    const auto* packet = h.server.announcements.message.packet();
    h.receive(0, kEventTrackingChannel, check);
    EXPECT_EQ(announcements(0), got);
    EXPECT_EQ(h.server.announcements.message.packet(), packet);
    // Forgotten (SIGHUP): read again, and past the cap an entry is left out.
    h.server.announcements.maxBytes = 12 + 6 + 3;
    forgetAnnouncements(h.server.announcements);
    h.takeLogs();
    h.receive(0, kEventTrackingChannel, check);
    const std::vector<Bytes> capped = announcements(0);
    ASSERT_EQ(capped.size(), 1u);
    EXPECT_TRUE(capped[0] == encode(Announcements{0, {"first"}}) || capped[0] == encode(Announcements{0, {"second"}}));
    EXPECT_EQ(h.takeLogs(), std::vector<std::string>{error(
                                "|||| Announcements: 1 entries left out, over the limit of 21 bytes "
                                "(announcements_max_bytes)")});
}
