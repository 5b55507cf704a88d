// Joining, leaving, kicking, the host role, slot states and player setups:
// who receives what, on which channel, in which order.

#include <gtest/gtest.h>

#include "lobby/lobby.h"
#include "support/harness.h"
#include "support/lobby_helpers.h"

using namespace lobbytest;

TEST(LobbyJoin, IntoARoomWithHumansInSlotsZeroAndTwoAndSlotOneClosed) {
    Harness h;
    for (std::size_t i = 0; i < 4; ++i) h.connect(i);
    createVia(h, 0);
    joinVia(h, 1, 1);
    joinVia(h, 2, 1);
    h.receive(1, kLobbyChannel, words({4, 1}));
    h.receive(0, kLobbyChannel, slotState(1, 1));
    setupVia(h, 2, {.slot = 2, .tag = 5, .name = "Two"});

    h.receive(3, kLobbyChannel, joinRoomMsg(1));
    ENetPeer *host = h.peer(0), *two = h.peer(2), *joiner = h.peer(3);
    std::vector<Packet> want = {{joiner, 0, JoinAccepted{1, 3, 1}.encode()},
                                {joiner, 0, fresh(0)},
                                {joiner, 0, slotState(1, 1)},
                                {joiner, 0, setup({.slot = 2, .tag = 5, .name = "Two"})},
                                {joiner, 0, fresh(3)}};
    for (std::uint32_t i = 4; i < 8; ++i) want.push_back({joiner, 0, slotState(i, 0)});
    for (ENetPeer* p : {host, two, joiner}) want.push_back({p, 0, fresh(3)});
    for (ENetPeer* p : {two, joiner}) want.push_back({p, 0, settingsMsg(0, "", 8)});
    EXPECT_TRUE(sameTraffic(h.takeSent(), want));
    EXPECT_EQ(h.takeLogs(), (std::vector<std::string>{"Joined room 1 Peers in room: 3"}));
}

TEST(LobbyJoin, Refusals) {
    Harness h;
    for (std::size_t i = 0; i < 9; ++i) h.connect(i);
    createVia(h, 0);
    for (std::uint32_t k : {5u, 6u, 7u}) h.receive(0, kLobbyChannel, slotState(k, 1));
    for (std::size_t i = 1; i < 5; ++i) joinVia(h, i, 1);
    auto refusedWith = [&](std::size_t i, std::uint32_t id, const std::string& why) {
        h.receive(i, kLobbyChannel, joinRoomMsg(id));
        EXPECT_TRUE(h.takeLogs().empty());
        return sameTraffic(h.takeSent(), {{h.peer(i), 1, text(why)}});
    };
    EXPECT_TRUE(refusedWith(5, 1, "Cannot join: room is already full!"));  // 5 humans, 3 closed
    EXPECT_TRUE(refusedWith(5, 0, "Cannot join: room does no longer exist!"));
    h.receive(1, kLobbyChannel, joinRoomMsg(1));  // a member gets nothing at all
    EXPECT_TRUE(h.takeSent().empty());

    // Open slots taken by players without a connection.
    for (std::uint32_t k : {5u, 6u}) h.receive(0, kLobbyChannel, slotState(k, 0));
    for (std::uint32_t k : {5u, 6u, 7u}) setupVia(h, 0, {.slot = k, .name = "bot"});
    EXPECT_TRUE(refusedWith(5, 1, "Cannot join: room is already full!"));
    EXPECT_NE(h.server.rooms.at(1)->slots[7].info, nullptr);

    h.server.rooms.at(1)->open = false;
    EXPECT_TRUE(refusedWith(5, 1, "Cannot join: game has already started!"));
}

TEST(LobbyJoin, FreeSlotAndCapacity) {
    Room room;
    EXPECT_EQ(findFreeSlot(room), 0);
    room.closed[0] = true;
    room.slots[1].info = freshPlayerSetup(1);
    ENetPeer fake{};
    room.slots[2].peer = &fake;
    room.slots[2].info = freshPlayerSetup(2);
    EXPECT_EQ(findFreeSlot(room), 3);
    EXPECT_EQ(capacity(room), 7u);
    room.settings.startLocations = 2;
    EXPECT_EQ(capacity(room), 2u);
}

TEST(LobbyLeave, TheHostLeavesTheLobby) {
    Harness h;
    for (std::size_t i = 0; i < 3; ++i) h.connect(i);
    createVia(h, 0);
    joinVia(h, 1, 1);
    joinVia(h, 2, 1);
    setupVia(h, 1, {.slot = 1, .ready = 1, .tag = 4, .name = "Bob"});

    h.receive(0, kLobbyChannel, words({4}));  // only the type word is read
    ENetPeer *b = h.peer(1), *c = h.peer(2);
    Bytes bobNotReady = setup({.slot = 1, .ready = 0, .tag = 4, .name = "Bob"});
    EXPECT_TRUE(sameTraffic(h.takeSent(), {{b, 0, fresh(0)},
                                           {c, 0, fresh(0)},
                                           {b, 0, slotState(0, 0)},
                                           {c, 0, slotState(0, 0)},
                                           {b, 0, hostStatus(1)},
                                           {b, 0, bobNotReady},
                                           {c, 0, bobNotReady}}));
    EXPECT_EQ(h.takeLogs(), (std::vector<std::string>{"Left room 1 Peers in room: 2"}));
    EXPECT_EQ(h.server.rooms.at(1)->hostSlot, 1u);
}

TEST(LobbyLeave, ARunningMatchHearsOfTheLeaverOnTheMatchChannelFirst) {
    Harness h;
    for (std::size_t i = 0; i < 3; ++i) h.connect(i);
    createVia(h, 0);
    joinVia(h, 1, 1);
    joinVia(h, 2, 1);
    setupVia(h, 1, {.slot = 1, .name = "Bob"});
    setupVia(h, 2, {.slot = 2, .name = "Cy"});
    Room& room = *h.server.rooms.at(1);
    room.open = false;
    room.started = room.running = true;

    h.disconnect(1);
    ENetPeer *a = h.peer(0), *b = h.peer(1), *c = h.peer(2);
    Bytes bye = text("Bob has been disconnected from server");
    EXPECT_TRUE(sameTraffic(h.takeSent(), {{a, 2, words({3, 1, 1})},
                                           {b, 2, words({3, 1, 1})},
                                           {c, 2, words({3, 1, 1})},
                                           {a, 1, bye},
                                           {b, 1, bye},
                                           {c, 1, bye},
                                           {a, 0, fresh(1)},
                                           {c, 0, fresh(1)},
                                           {a, 0, slotState(1, 0)},
                                           {c, 0, slotState(1, 0)}}));
    EXPECT_EQ(h.takeLogs().front(), "Left room 1 Peers in room: 2");

    h.receive(2, kLobbyChannel, words({4, 1}));
    auto sent = h.takeSent();
    ASSERT_GE(sent.size(), 3u);
    EXPECT_EQ(sent[2].data, text("Cy has left the game"));
}

TEST(LobbyKick, KickedThenTextToAllThenTheLeaveTraffic) {
    Harness h;
    for (std::size_t i = 0; i < 3; ++i) h.connect(i);
    createVia(h, 0);
    joinVia(h, 1, 1);
    joinVia(h, 2, 1);
    setupVia(h, 2, {.slot = 2, .name = "Cy"});
    h.receive(1, kLobbyChannel, Kick{1, 2}.encode());  // not the host
    h.receive(0, kLobbyChannel, Kick{1, 5}.encode());  // nobody there
    EXPECT_TRUE(h.takeSent().empty());

    h.receive(0, kLobbyChannel, Kick{1, 2}.encode());
    ENetPeer *a = h.peer(0), *b = h.peer(1), *c = h.peer(2);
    Bytes kicked = text("Cy has been kicked by host");
    EXPECT_TRUE(sameTraffic(h.takeSent(), {{c, 0, words({9, 1, 1})},
                                           {a, 1, kicked},
                                           {b, 1, kicked},
                                           {c, 1, kicked},
                                           {a, 0, fresh(2)},
                                           {b, 0, fresh(2)},
                                           {a, 0, slotState(2, 0)},
                                           {b, 0, slotState(2, 0)}}));
    EXPECT_EQ(h.server.peers.count(c), 1u);  // still connected
}

TEST(LobbyHost, AnyMemberMayHandTheRoleToAHuman) {
    Harness h;
    for (std::size_t i = 0; i < 3; ++i) h.connect(i);
    createVia(h, 0);
    joinVia(h, 1, 1);
    joinVia(h, 2, 1);
    setupVia(h, 2, {.slot = 2, .ready = 1, .location = 2, .name = "Cy"});
    h.receive(1, kLobbyChannel, SetHost{1, 5}.encode());  // no human there
    EXPECT_TRUE(h.takeSent().empty());

    h.receive(1, kLobbyChannel, SetHost{1, 2}.encode());
    ENetPeer *a = h.peer(0), *b = h.peer(1), *c = h.peer(2);
    Bytes cyHost = setup({.slot = 2, .ready = 0, .location = 2, .name = "Cy"});
    EXPECT_TRUE(sameTraffic(h.takeSent(), {{a, 0, hostStatus(0)},
                                           {c, 0, hostStatus(1)},
                                           {a, 0, cyHost},
                                           {b, 0, cyHost},
                                           {c, 0, cyHost}}));
    EXPECT_EQ(h.server.rooms.at(1)->hostSlot, 2u);
}

TEST(LobbySlotState, OnlyTheHostAndOnlyForSlotsWithoutHumans) {
    Harness h;
    for (std::size_t i = 0; i < 2; ++i) h.connect(i);
    createVia(h, 0);
    joinVia(h, 1, 1);
    setupVia(h, 1, {.slot = 4, .name = "bot"});
    Room& room = *h.server.rooms.at(1);
    h.receive(1, kLobbyChannel, slotState(4, 1));  // not the host
    h.receive(0, kLobbyChannel, slotState(1, 1));  // a human's slot
    EXPECT_TRUE(h.takeSent().empty());
    ASSERT_NE(room.slots[4].info, nullptr);

    Bytes close = Writer().u32(7).u32(33).u32(4).u32(2).u32(0xDEAD).take();  // relayed as received
    h.receive(0, kLobbyChannel, close);
    EXPECT_TRUE(sameTraffic(h.takeSent(), {{h.peer(0), 0, close}, {h.peer(1), 0, close}}));
    EXPECT_TRUE(room.closed[4]);
    EXPECT_EQ(room.slots[4].info, nullptr);
}

TEST(LobbySetup, ConflictsAreSentBack) {
    Harness h;
    for (std::size_t i = 0; i < 3; ++i) h.connect(i);
    createVia(h, 0);
    joinVia(h, 1, 1);
    joinVia(h, 2, 1);
    ENetPeer *a = h.peer(0), *b = h.peer(1), *c = h.peer(2);
    setupVia(h, 0, {.slot = 0, .location = 3, .name = "A"});
    Bytes bStored = setup({.slot = 1, .ready = 1, .name = "B", .secondWord = 9});
    bStored.push_back(5);
    h.receive(1, kLobbyChannel, bStored);
    EXPECT_TRUE(sameTraffic(h.takeSent(), {{a, 0, bStored}, {b, 0, bStored}, {c, 0, bStored}}));

    h.receive(1, kLobbyChannel, setup({.slot = 1, .ready = 1, .location = 3, .name = "B"}));
    EXPECT_TRUE(sameTraffic(h.takeSent(), {{a, 0, bStored}, {b, 0, bStored}, {c, 0, bStored}}));

    // Choosing 0 twice is fine.
    h.receive(2, kLobbyChannel, setup({.slot = 2, .tag = 0, .location = 0, .name = "C"}));
    EXPECT_EQ(h.takeSent().size(), 3u);

    // A taken value for an empty slot: the sender alone gets the slot's
    // state, and the slot stays empty.
    h.receive(1, kLobbyChannel, setup({.slot = 6, .location = 3, .name = "bot"}));
    EXPECT_TRUE(sameTraffic(h.takeSent(), {{b, 0, slotState(6, 0)}}));
    EXPECT_EQ(h.server.rooms.at(1)->slots[6].info, nullptr);
}

TEST(LobbySetup, ConflictRule) {
    Room room;
    ENetPeer p0{}, p1{};
    room.slots[0].peer = &p0;
    room.slots[0].info = freshPlayerSetup(0);
    room.slots[0].info->playerTag = 3;
    room.slots[0].info->startLocation = 5;
    room.slots[1].peer = &p1;
    room.slots[1].info = freshPlayerSetup(1);
    room.slots[2].info = freshPlayerSetup(2);
    room.slots[2].info->playerTag = 6;

    PlayerSetup s;
    s.slot = 1;
    EXPECT_FALSE(setupConflicts(room, s));
    s.playerTag = 3;
    EXPECT_TRUE(setupConflicts(room, s));
    s.playerTag = 6;  // held only by a record without a peer
    EXPECT_FALSE(setupConflicts(room, s));
    s.startLocation = 5;
    EXPECT_TRUE(setupConflicts(room, s));
    s.slot = 0;  // its own slot
    EXPECT_FALSE(setupConflicts(room, s));
}
