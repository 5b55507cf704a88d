// The start: refusals, the generator's draws, tags and locations, the slot
// compaction, the start and go notices.

#include <gtest/gtest.h>

#include "lobby/lobby.h"
#include "lobby/mtrand.h"
#include "support/harness.h"
#include "support/lobby_helpers.h"

using namespace lobbytest;

namespace {

// n humans, peers 0..n-1 in slots 0..n-1, named P0, P1, ...
Room& roomOf(Harness& h, std::size_t n, std::uint32_t ready = 1) {
    for (std::size_t i = 0; i < n; ++i) h.connect(i);
    createVia(h, 0);
    for (std::size_t i = 1; i < n; ++i) joinVia(h, i, 1);
    for (std::size_t i = 0; i < n; ++i)
        setupVia(h, i, {.slot = static_cast<std::uint32_t>(i), .ready = ready, .name = "P" + std::to_string(i)});
    return *h.server.rooms.at(1);
}

ENetPeer fakePeers[8];

// A record in the slot; a human's when withPeer.
void place(Room& room, std::uint32_t slot, std::uint32_t tag, std::uint32_t location, bool withPeer = true) {
    room.slots[slot].peer = withPeer ? &fakePeers[slot] : nullptr;
    room.slots[slot].info = freshPlayerSetup(slot);
    room.slots[slot].info->playerTag = tag;
    room.slots[slot].info->startLocation = location;
    rebuildPlayerSetup(*room.slots[slot].info);
}

// The generator's next output equals the reference's after skip draws.
void expectDrawn(int skip) {
    MTRand_int32 reference(0);
    for (int i = 0; i < skip; ++i) reference.rand_int32();
    EXPECT_EQ(globalGenerator().rand_int32(), reference.rand_int32()) << skip << " draws expected";
}

}  // namespace

TEST(LobbyShuffle, FiguresOfTheFreshlySeededGenerator) {
    resetGlobalGenerator();
    EXPECT_EQ(shufflePermutation(8), (std::vector<std::uint32_t>{0, 2, 3, 5, 7, 1, 6, 4}));
    EXPECT_EQ(shufflePermutation(8), (std::vector<std::uint32_t>{0, 2, 7, 6, 1, 3, 4, 5}));
    resetGlobalGenerator();
    EXPECT_EQ(shufflePermutation(1), (std::vector<std::uint32_t>{0}));
    expectDrawn(0);
}

TEST(LobbyAssign, ThreeHumansWhoChoseNothingOnAFreshServer) {
    resetGlobalGenerator();
    Harness h;
    Room& room = roomOf(h, 3);
    h.receive(1, kLobbyChannel, startGame());
    h.step();
    const std::uint32_t tags[] = {1, 3, 4}, locations[] = {1, 3, 8};
    for (std::uint32_t i = 0; i < 3; ++i) {
        EXPECT_EQ(room.slots[i].info->playerTag, tags[i]);
        EXPECT_EQ(room.slots[i].info->startLocation, locations[i]);
    }
}

TEST(LobbyAssign, ChosenValuesAndTheDrawsTheyCost) {
    // Tags 2 and 9 chosen, two slots waiting (one of them a player without a
    // connection): free tags 1, 3..8; 9 and 10 are never handed out.
    resetGlobalGenerator();
    Room room;
    place(room, 0, 2, 1);
    place(room, 1, 9, 2);
    place(room, 3, 0, 3, false);
    place(room, 5, 0, 4);
    Bytes untouched = room.slots[0].info->bytes;
    assignTagsAndLocations(room);
    std::uint32_t t3 = room.slots[3].info->playerTag, t5 = room.slots[5].info->playerTag;
    EXPECT_NE(t3, t5);
    for (std::uint32_t t : {t3, t5}) EXPECT_TRUE(t == 1 || (t >= 3 && t <= 8)) << t;
    EXPECT_EQ(room.slots[0].info->bytes, untouched);
    EXPECT_EQ(room.slots[3].info->bytes, setup({.slot = 3, .tag = t3, .location = 3}));
    expectDrawn(6 + 3);  // 7 free tags, then 4 free locations

    // Nobody waits, 7 free tags: still 6 draws, then the locations' 2
    // (a map of 4: 1, 3 and 4 free; the chosen 7 stays as it is).
    resetGlobalGenerator();
    Room second;
    second.settings.startLocations = 4;
    place(second, 0, 1, 2);
    place(second, 1, 10, 7);
    assignTagsAndLocations(second);
    EXPECT_EQ(second.slots[1].info->startLocation, 7u);
    expectDrawn(6 + 2);
}

TEST(LobbyAssign, TooFewFreeValuesAndValuesOutOfRange) {
    // A map of 3, three humans without locations, location 3 held by a
    // player without a connection: nobody gets a location.
    resetGlobalGenerator();
    Room room;
    room.settings.startLocations = 3;
    for (std::uint32_t i = 0; i < 3; ++i) place(room, i, 0, 0);
    place(room, 4, 0, 3, false);
    assignTagsAndLocations(room);
    for (std::uint32_t i = 0; i < 3; ++i) {
        EXPECT_EQ(room.slots[i].info->startLocation, 0u);
        EXPECT_NE(room.slots[i].info->playerTag, 0u);
    }

    // A tag above 10 or a location above 8 waits like a 0.
    Room odd;
    place(odd, 0, 11, 9);
    place(odd, 1, 0xFFFFFFFFu, 0x80000000u);
    assignTagsAndLocations(odd);
    for (std::uint32_t i = 0; i < 2; ++i) {
        EXPECT_TRUE(odd.slots[i].info->playerTag >= 1 && odd.slots[i].info->playerTag <= 8);
        EXPECT_TRUE(odd.slots[i].info->startLocation >= 1 && odd.slots[i].info->startLocation <= 8);
    }
}

TEST(LobbyCompact, HumansMoveForwardRecordsWithoutPeerStay) {
    Room room;
    place(room, 1, 0, 0);
    place(room, 3, 0, 0, false);
    place(room, 4, 0, 0);
    room.confirmed[4] = true;
    compactSlots(room);
    EXPECT_EQ(room.slots[0].peer, &fakePeers[1]);
    EXPECT_EQ(room.slots[0].info->slot, 1u);
    EXPECT_EQ(room.slots[1].peer, &fakePeers[4]);
    EXPECT_EQ(room.slots[1].info->slot, 4u);
    EXPECT_EQ(room.slots[2].info, nullptr);
    EXPECT_EQ(room.slots[3].info->slot, 3u);
    EXPECT_EQ(room.slots[4].info, nullptr);
    EXPECT_TRUE(room.confirmed[4]);  // per-index flags do not move
}

TEST(LobbyStart, NotAllReady) {
    Harness h;
    Room& room = roomOf(h, 2);
    setupVia(h, 1, {.slot = 1, .ready = 0, .name = "P1"});
    Bytes s0 = room.slots[0].info->bytes, s1 = room.slots[1].info->bytes;
    h.receive(1, kLobbyChannel, startGame());
    EXPECT_TRUE(h.takeSent().empty());
    h.step();
    ENetPeer *a = h.peer(0), *b = h.peer(1);
    Bytes why = text("Cannot start game because not all players are ready");
    EXPECT_TRUE(sameTraffic(h.takeSent(), {{a, 1, why}, {b, 1, why}, {a, 0, s0}, {b, 0, s0}, {a, 0, s1}, {b, 0, s1}}));
    EXPECT_EQ(h.takeLogs(), (std::vector<std::string>{"Room 1 failed to start because not all players are ready"}));
    EXPECT_TRUE(room.open);
    EXPECT_FALSE(room.startRequested);
}

TEST(LobbyStart, BothReasonsInOrderAndOnlyHumansCount) {
    Harness h;
    Room& room = roomOf(h, 5);
    h.receive(0, kLobbyChannel, settingsMsg(0, "M", 4));
    setupVia(h, 3, {.slot = 3, .ready = 0, .name = "P3"});
    h.receive(2, kLobbyChannel, startGame());
    h.step();
    auto sent = h.takeSent();
    ASSERT_EQ(sent.size(), 10u + 25u);
    EXPECT_EQ(sent[0].data, text("Cannot start game because not all players are ready"));
    EXPECT_EQ(sent[5].data, text("Cannot start game because there are more players than starting locations on map"));
    EXPECT_EQ(h.takeLogs(),
              (std::vector<std::string>{"Room 1 failed to start because not all players are ready",
                                        "Room 1 failed to start because there are too many players for map: M"}));

    // Four ready humans and an idle player without a connection start.
    h.disconnect(3);
    setupVia(h, 0, {.slot = 6, .ready = 0, .name = "bot"});
    h.receive(2, kLobbyChannel, startGame());
    h.step();
    EXPECT_TRUE(room.started);
    EXPECT_FALSE(room.open);
}

TEST(LobbyStart, SuccessfulStartThenConfirmationsThenGo) {
    resetGlobalGenerator();
    Harness h;
    for (std::size_t i = 0; i < 3; ++i) h.connect(i);
    createVia(h, 0);
    joinVia(h, 1, 1);
    joinVia(h, 2, 1);
    h.receive(1, kLobbyChannel, words({4, 1}));  // slot 1 empty, C in slot 2
    setupVia(h, 0, {.slot = 0, .ready = 1, .tag = 5, .location = 2, .name = "A"});
    setupVia(h, 2, {.slot = 2, .ready = 1, .name = "C"});
    setupVia(h, 0, {.slot = 4, .ready = 0, .tag = 6, .location = 1, .name = "bot"});
    Room& room = *h.server.rooms.at(1);
    h.receive(2, kLobbyChannel, startGame());
    h.step();
    // Free tags 1,2,3,4,7,8 and locations 3..8; both permutations of 6 on a
    // fresh generator start with 0: C, the only one waiting, gets tag 1 and
    // location 3.
    ENetPeer *a = h.peer(0), *c = h.peer(2);
    ASSERT_EQ(room.slots[1].peer, c);  // moved into the empty slot 1
    Bytes aBytes = setup({.slot = 0, .ready = 1, .tag = 5, .location = 2, .name = "A"});
    Bytes cBytes = setup({.slot = 2, .ready = 1, .tag = 1, .location = 3, .name = "C"});
    Bytes botBytes = setup({.slot = 4, .ready = 0, .tag = 6, .location = 1, .name = "bot"});
    EXPECT_TRUE(sameTraffic(h.takeSent(), {{a, 0, aBytes},
                                           {c, 0, aBytes},
                                           {a, 0, cBytes},
                                           {c, 0, cBytes},
                                           {a, 0, botBytes},
                                           {c, 0, botBytes},
                                           {a, 0, startGame()},
                                           {c, 0, startGame()}}));
    EXPECT_TRUE(h.takeLogs().empty());

    h.receive(0, kLobbyChannel, startGame());
    h.step();
    EXPECT_FALSE(room.running);
    h.receive(2, kLobbyChannel, startGame());  // confirms slot 1, where C now is
    h.step();
    EXPECT_TRUE(sameTraffic(h.takeSent(), {{a, 0, startGame()}, {c, 0, startGame()}}));
    EXPECT_TRUE(room.running);
    EXPECT_EQ(room.matchPlayerNames, (std::vector<std::string>{"A", "C"}));
}

TEST(LobbyStart, ConfirmationsFromFailedAttemptsStartTheMatchAtOnce) {
    Harness h;
    Room& room = roomOf(h, 2);
    setupVia(h, 1, {.slot = 1, .ready = 0, .name = "P1"});
    h.receive(0, kLobbyChannel, startGame());  // the request
    h.receive(0, kLobbyChannel, startGame());  // confirms slot 0
    h.receive(1, kLobbyChannel, startGame());  // confirms slot 1
    h.step();                                  // fails: P1 not ready
    setupVia(h, 1, {.slot = 1, .ready = 1, .name = "P1"});
    h.receive(1, kLobbyChannel, startGame());
    clear(h);
    h.step();
    auto toA = h.takeSentTo(0);
    ASSERT_EQ(toA.size(), 4u);  // both records, the start notice, the go notice
    EXPECT_EQ(toA[2].data, startGame());
    EXPECT_EQ(toA[3].data, startGame());
    EXPECT_TRUE(room.running);
}
