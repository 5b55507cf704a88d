// Private rooms: passwords, hidden rooms, the limit on guessing and bans
// from a room, as capable clients and legacy clients see them.

#include <gtest/gtest.h>

#include "lobby/lobby.h"
#include "platform/clock.h"
#include "support/harness.h"

namespace {

std::string error(const std::string& text) { return "#### ERROR \n" + text + "\n####"; }

// Peers granted private rooms, on a server that offers them.
void grant(Harness& h, std::initializer_list<std::size_t> peers) {
    h.server.features |= kFeaturePrivateRooms;
    for (std::size_t i : peers) {
        h.lobby(i, ExtensionsHello{1, 1, {"private-rooms"}});
        EXPECT_EQ(h.takeSent(), (std::vector<Sent>{{i, kLobbyChannel, encode(ExtensionsGranted{1, 1, {"private-rooms"}})}}));
    }
}

std::vector<Sent> on(const std::vector<Sent>& sent, std::uint8_t channel) {
    std::vector<Sent> out;
    for (const Sent& s : sent)
        if (s.channel == channel) out.push_back(s);
    return out;
}

Bytes refused(std::uint32_t room, JoinRefusal reason, const std::string& text) {
    return encode(JoinRefused{1, room, static_cast<std::uint32_t>(reason), text});
}

bool joined(const std::vector<Sent>& sent, std::size_t peer) {
    return !sent.empty() && sent.front().peer == peer && decode<JoinAccepted>(sent.front().bytes).has_value();
}

}  // namespace

TEST(PrivateRooms, ALockedRoomLetsInTheRightPasswordOnly) {
    Harness h;
    setSteadyClockForTests(1'000'000);
    for (std::size_t i = 0; i < 4; ++i) h.connect(i);
    grant(h, {0, 1, 2});
    h.lobby(0, CreatePrivateRoom{1, "den", "d", 1, "open sesame", 0});
    ASSERT_EQ(h.server.rooms.byId.size(), 1u);
    h.takeSent();
    h.lobby(1, JoinPrivateRoom{1, 1, "open sesam"});
    EXPECT_EQ(h.takeSent(), (std::vector<Sent>{{1, 0, refused(1, JoinRefusal::wrongPassword, "Cannot join: wrong password!")}}));
    h.lobby(1, JoinPrivateRoom{1, 1, ""});
    EXPECT_EQ(h.takeSent(), (std::vector<Sent>{{1, 0, refused(1, JoinRefusal::wrongPassword, "Cannot join: wrong password!")}}));
    h.lobby(1, JoinRoom{1, 1});  // without any: as a legacy client would
    EXPECT_EQ(h.takeSent(), (std::vector<Sent>{{1, kTextChannel, encode(Text{"Cannot join: room is already full!"})}}));
    h.lobby(2, JoinPrivateRoom{1, 1, "open sesame"});
    EXPECT_TRUE(joined(h.takeSent(), 2));
    EXPECT_EQ(placeOf(h.server.rooms, h.peer(2))->slot, 1u);

    // The password is nowhere but in its hash.
    const Room& room = h.room(1);
    EXPECT_TRUE(room.lock.hasPassword);
    EXPECT_EQ(room.lock.hash, saltedHash(room.lock.salt, "open sesame"));
    EXPECT_NE(room.lock.hash, saltedHash(Salt{}, "open sesame"));

    // The host takes the password away: anyone may join again.
    h.lobby(0, SetRoomPassword{1, "", 0});
    h.lobby(3, JoinRoom{1, 1});
    EXPECT_TRUE(joined(h.takeSent(), 3));
}

TEST(PrivateRooms, LegacyClientsSeeALockedRoomFullAndNoHiddenRoom) {
    Harness h;
    for (std::size_t i = 0; i < 4; ++i) h.connect(i);
    grant(h, {0, 1, 3});
    h.lobby(0, CreatePrivateRoom{1, "locked", "d", 1, "pw", 0});
    h.lobby(1, CreatePrivateRoom{1, "hidden", "d", 1, "pw2", 1});
    h.takeSent();
    RoomListEntry entry;
    entry.id = 1, entry.name = "locked", entry.dataset = "d", entry.datasetChecksum = 1;
    entry.humans = 1, entry.capacity = 8, entry.open = 1;
    RoomListEntry full = entry;
    full.humans = 8;
    // A legacy client: the locked room full, the hidden one absent, even when
    // asked for by ID.
    h.lobby(2, RoomListRequest{1, 2});
    std::vector<Sent> legacy = h.takeSent();
    ASSERT_EQ(legacy.size(), 2u);
    EXPECT_EQ(legacy[1].bytes, encode(full));
    // A capable client: the truth, and which rooms are locked.
    h.lobby(3, RoomListRequest{1, 2});
    std::vector<Sent> capable = h.takeSent();
    ASSERT_EQ(capable.size(), 3u);
    EXPECT_EQ(capable[1].bytes, encode(entry));
    EXPECT_EQ(capable[2].bytes, encode(LockedRooms{1, {1}}));
    // Joined by ID and password only; a wrong one reads as no room at all.
    h.lobby(2, JoinRoom{1, 2});
    EXPECT_EQ(h.takeSent(), (std::vector<Sent>{{2, kTextChannel, encode(Text{"Cannot join: room does no longer exist!"})}}));
    h.lobby(3, JoinPrivateRoom{1, 2, "pw"});
    EXPECT_EQ(h.takeSent(), (std::vector<Sent>{{3, 0, refused(2, JoinRefusal::noRoom, "Cannot join: room does no longer exist!")}}));
    h.lobby(3, JoinPrivateRoom{1, 2, "pw2"});
    EXPECT_TRUE(joined(h.takeSent(), 3));
    // A legacy client's messages of the feature are unknown to the server.
    h.takeLogs();
    h.lobby(2, JoinPrivateRoom{1, 1, "pw"});
    EXPECT_TRUE(h.takeSent().empty());
    EXPECT_EQ(h.takeLogs(), std::vector<std::string>{error("|||| Unknown lobby message 102. Nothing to do with it")});
}

TEST(PrivateRooms, GuessingIsLimitedPerPeerAndPerRoomAndLegacyAttemptsCount) {
    Harness h;
    std::uint64_t now = 1'000'000;
    setSteadyClockForTests(now);
    h.server.rooms.joinFailuresPerPeer = 2;
    h.server.rooms.joinFailuresPerRoom = 3;
    for (std::size_t i = 0; i < 5; ++i) h.connect(i);
    grant(h, {0, 1, 2, 3});
    h.lobby(0, CreatePrivateRoom{1, "r", "d", 1, "right", 0});
    h.takeSent();
    h.takeLogs();
    const Bytes wrong = refused(1, JoinRefusal::wrongPassword, "Cannot join: wrong password!");
    const Bytes tooMany = refused(1, JoinRefusal::tooManyAttempts, "Cannot join: too many failed attempts. Try again in a minute.");
    h.lobby(1, JoinPrivateRoom{1, 1, "a"});
    h.lobby(1, JoinPrivateRoom{1, 1, "b"});
    h.lobby(1, JoinPrivateRoom{1, 1, "right"});  // its two are spent: not even checked
    EXPECT_EQ(h.takeSent(), (std::vector<Sent>{{1, 0, wrong}, {1, 0, wrong}, {1, 0, tooMany}}));
    EXPECT_EQ(h.takeLogs(), std::vector<std::string>{error(
                                "|||| Room 1: too many failed joins; joins refused unchecked for a while (last from "
                                "10.0.0.2:5001)")});
    h.lobby(4, JoinRoom{1, 1});  // a legacy attempt is the room's third failure
    h.lobby(2, JoinPrivateRoom{1, 1, "right"});
    EXPECT_EQ(h.takeSent(), (std::vector<Sent>{{4, kTextChannel, encode(Text{"Cannot join: room is already full!"})},
                                               {2, 0, tooMany}}));
    EXPECT_TRUE(h.takeLogs().empty());  // a line a minute
    setSteadyClockForTests(now + 61'000'000);
    h.lobby(2, JoinPrivateRoom{1, 1, "right"});
    EXPECT_TRUE(joined(h.takeSent(), 2));
}

TEST(PrivateRooms, AKickedAndBannedAddressStaysOutWhileTheRoomLives) {
    Harness h;
    h.peer(3)->address.host = h.peer(1)->address.host;  // the same household
    for (std::size_t i = 0; i < 4; ++i) h.connect(i);
    grant(h, {0, 1});
    h.lobby(0, CreateRoom{1, "r", "d", 1});
    h.lobby(1, JoinRoom{1, 1});
    h.lobby(2, JoinRoom{1, 1});
    h.takeSent();
    h.lobby(2, KickAndBan{1, 0});  // not the host: nothing
    EXPECT_TRUE(h.takeSent().empty());
    h.lobby(0, KickAndBan{1, 1});
    EXPECT_EQ(on(h.takeSent(), kTextChannel), toEach({0, 1, 2}, kTextChannel, encode(Text{" has been kicked by host"})));
    EXPECT_EQ(roomOf(h.server.rooms, h.peer(1)), nullptr);
    h.lobby(1, JoinPrivateRoom{1, 1, ""});
    EXPECT_EQ(h.takeSent(),
              (std::vector<Sent>{{1, 0, refused(1, JoinRefusal::banned, "Cannot join: you may not join this room!")}}));
    h.lobby(3, JoinRoom{1, 1});
    EXPECT_EQ(h.takeSent(), (std::vector<Sent>{{3, kTextChannel, encode(Text{"Cannot join: room is already full!"})}}));
    // A legacy host's kick is today's kick: the player may come back.
    h.lobby(0, Kick{1, 2});
    h.takeSent();
    h.lobby(2, JoinRoom{1, 1});
    EXPECT_TRUE(joined(h.takeSent(), 2));
}
