// Every message against bytes written out by hand, decoded back, and cut
// short at every length.

#include <gtest/gtest.h>

#include <functional>

#include "support/harness.h"

namespace {

struct Row {
    const char* name;
    Bytes encoded;
    Bytes expected;
    std::function<std::optional<Bytes>(ByteView)> decodeThenEncode;
};

template <typename M>
Row row(const char* name, const M& sample, Writer expected) {
    EXPECT_EQ(encodedSize(sample), encode(sample).size()) << name;
    return Row{name, encode(sample), expected.take(), [](ByteView b) -> std::optional<Bytes> {
                   auto m = decode<M>(b);
                   return m ? std::optional<Bytes>(encode(*m)) : std::nullopt;
               }};
}

Writer header(std::uint32_t type, std::uint32_t second = 1) { return std::move(Writer().u32(type).u32(second)); }

const Bytes kWorld{1, 2, 3}, kLog{4}, kFirst{1, 0, 0, 0, 2, 0, 0, 0}, kSecond{9, 0, 0, 0};
const Bytes kToken{1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16};
const Bytes kBundle = encodeSnapshotBundle(Bytes{5}, Bytes{6, 7}, Bytes{}, Bytes{8});

std::vector<Row> table() {
    PlayerSetup setup;
    setup.secondWord = 7, setup.slot = 3, setup.ready = 1, setup.playerTag = 4, setup.startLocation = 5;
    setup.clientValue1 = 6, setup.clientValue2 = 8, setup.playerName = "ann";
    setup.clientPairs = {{11, "x"}, {12, ""}}, setup.clientStrings = {"s", ""};
    GameSettings settings;
    settings.gameMode = 2, settings.mapName = "map", settings.startLocations = 4, settings.settingsValue1 = 9;
    settings.settingsValue2 = 10;
    Order order;
    order.messageType = 5, order.step = 6, order.argument = 7, order.firstList = kFirst, order.orderType = 8;
    order.secondList = kSecond, order.params = {1, 2, 3, 4}, order.extraParam = 9, order.flag = 0xAB;
    order.text = "go";
    return {
        row("ServerStatus", ServerStatus{1, "d", 2, 3, 4, 5, 6},
            header(1).str("d").u32(2).u32(3).u32(4).u32(5).u32(6)),
        row("CreateRoom", CreateRoom{1, "r", "data", 9}, header(2).str("r").str("data").u32(9)),
        row("JoinRoom", JoinRoom{1, 5}, header(3).u32(5)),
        row("LeaveRoom", LeaveRoom{}, std::move(Writer().u32(4))),
        row("PlayerSetup", setup,
            header(5, 7).u32(3).u32(1).u32(4).u32(5).u32(6).u32(8).u32(0xFFFFFFFFu).str("ann")
                .u32(2).u32(11).str("x").u32(12).str("").u32(2).str("s").str("")),
        row("JoinAccepted", JoinAccepted{1, 2, 3}, header(6).u32(2).u32(3)),
        row("SlotState", SlotState{1, 7, 1}, header(7).u32(7).u32(1)),
        row("SetHost", SetHost{1, 2}, header(8).u32(2)),
        row("HostStatus", HostStatus{1, 1}, header(8).u32(1)),
        row("Kick", Kick{1, 3}, header(9).u32(3)),
        row("Kicked", Kicked{}, header(9).u32(1)),
        row("RoomListRequest", RoomListRequest{1, 4}, header(10).u32(4)),
        row("RoomListEntry", RoomListEntry{1, 2, "r", "d", 3, 4, 5, 1},
            header(11).u32(2).str("r").str("d").u32(3).u32(4).u32(5).u32(1)),
        row("RoomPlayerNames", RoomPlayerNames{1, {"a", "bc"}}, header(12).u32(2).str("a").str("bc")),
        row("GameSettings", settings, header(13).u32(2).str("map").u32(4).u32(9).u32(10)),
        row("StartGame", StartGame{}, header(14)),
        row("Text", Text{"hi"}, std::move(Writer().str("hi"))),
        row("DelayIncrease", DelayIncrease{}, header(1)),
        row("DelayDecrease", DelayDecrease{}, header(2)),
        row("PlayerLeftMatch", PlayerLeftMatch{1, 6}, header(3).u32(6)),
        row("ResyncReport", ResyncReport{1, kWorld, kLog}, header(8).blob(kWorld).blob(kLog)),
        row("Order", order,
            std::move(Writer().u32(5).u32(6).u32(7).u32(2).u32(1).u32(2).u32(8).u32(1).u32(9).u32(1).u32(2).u32(3)
                          .u32(4).u32(9).u8(0xAB).str("go"))),
        row("FeedbackReport", FeedbackReport{1, "p", "c", "d", "t", kBundle, kLog},
            header(1).str("p").str("c").str("d").str("t").blob(kBundle).blob(kLog)),
        row("ReportReply", ReportReply{1, "ok"}, header(2).str("ok")),
        row("DeterminismTestReport", DeterminismTestReport{1, "p", "c", "d", "t", kWorld},
            header(3).str("p").str("c").str("d").str("t").blob(kWorld)),
        row("TrackEvent", TrackEvent{1, "p", "d", 3, 101, "x"}, header(1).str("p").str("d").u32(3).u32(101).str("x")),
        row("Announcements", Announcements{0, {"a", ""}}, header(2, 0).u32(2).str("a").str("")),
        row("FileRequest", FileRequest{1, "f"}, header(2).str("f")),
        row("FileData", FileData{1, "f", kWorld}, header(3).str("f").blob(kWorld)),
        row("RejoinTicket", RejoinTicket{1, 4, 2, kToken}, header(107).u32(4).u32(2).blob(kToken)),
        row("Rejoin", Rejoin{1, 4, kToken}, header(108).u32(4).blob(kToken)),
        row("PlayerAway", PlayerAway{1, 3}, header(109).u32(3)),
        row("PlayerBack", PlayerBack{1, 3}, header(110).u32(3)),
        row("RejoinAccepted", RejoinAccepted{1, 4, 2, kToken}, header(111).u32(4).u32(2).blob(kToken)),
        row("Spectate", Spectate{1, 4, "pw"}, header(112).u32(4).str("pw")),
        row("SpectateAccepted", SpectateAccepted{1, 4, 40}, header(113).u32(4).u32(40)),
        row("CatchUp", CatchUp{1, kWorld}, header(114).blob(kWorld)),
        row("CatchUpDone", CatchUpDone{1, 4}, header(115).u32(4)),
        row("CaughtUp", CaughtUp{}, std::move(Writer().u32(116))),
        row("StateRequest", StateRequest{1, 9, 2}, header(117).u32(9).u32(2)),
        row("StateSnapshot", StateSnapshot{1, 9, 30, kWorld}, header(118).u32(9).u32(30).blob(kWorld)),
        row("WatchEnded", WatchEnded{1, 4, 1}, header(119).u32(4).u32(1)),
    };
}

}  // namespace

TEST(Codec, EveryMessageMatchesItsLayoutRoundTripsAndFailsWhenCutShort) {
    for (const Row& r : table()) {
        SCOPED_TRACE(r.name);
        EXPECT_EQ(r.encoded, r.expected);
        // A NUL just past the end would end a string read beyond the packet:
        // no decode may reach it.
        Bytes guarded = r.encoded;
        guarded.push_back(0);
        EXPECT_EQ(r.decodeThenEncode(ByteView(guarded.data(), r.encoded.size())), r.encoded);
        for (std::size_t n = 0; n < r.encoded.size(); ++n) {
            Bytes cut(r.encoded.begin(), r.encoded.begin() + static_cast<std::ptrdiff_t>(n));
            cut.push_back(0);
            EXPECT_EQ(r.decodeThenEncode(ByteView(cut.data(), n)), std::nullopt) << n << " bytes";
        }
    }
}

TEST(Codec, SlotsAboveSevenCountsBeyondThePacketAndBrokenBundlesAreMalformed) {
    EXPECT_FALSE(decode<SlotState>(words({7, 1, 8, 0})));
    EXPECT_TRUE(decode<SlotState>(words({7, 1, 7, 0})));
    EXPECT_FALSE(decode<SetHost>(words({8, 1, 8})));
    EXPECT_FALSE(decode<Kick>(words({9, 1, 0xFFFFFFFFu})));
    EXPECT_FALSE(decode<PlayerSetup>(encode(PlayerSetup{.slot = 8})));
    // A count that the remaining bytes could not hold fails before anything is reserved.
    EXPECT_FALSE(decode<RoomPlayerNames>(words({12, 1, 5, 0})));
    EXPECT_TRUE(decode<RoomPlayerNames>(words({12, 1, 4, 0})));
    Bytes broken = kBundle;
    broken.pop_back();
    EXPECT_FALSE(decode<FeedbackReport>(encode(FeedbackReport{.snapshot = broken})));
    EXPECT_TRUE(decode<FeedbackReport>(encode(FeedbackReport{.snapshot = Bytes{'C', 'O', 'M'}})));
    auto bundle = parseSnapshotBundle(kBundle);
    ASSERT_TRUE(bundle);
    EXPECT_EQ(Bytes(bundle->world.begin(), bundle->world.end()), (Bytes{6, 7}));
    EXPECT_EQ(Bytes(bundle->scriptLog.begin(), bundle->scriptLog.end()), (Bytes{8}));
    // Kept records hold the packet as it came, trailing bytes included.
    Bytes withTail = encode(GameSettings{});
    withTail.push_back(42);
    EXPECT_EQ(decode<GameSettings>(withTail)->bytes, withTail);
}

TEST(Codec, EveryClientStringAndListHasACap) {
    for (std::size_t over : {0u, 1u}) {
        SCOPED_TRACE(over);
        auto x = [over](std::size_t cap) { return std::string(cap + over, 'x'); };
        PlayerSetup named, strings, pairs;
        named.playerName = x(kMaxNameLength);
        strings.clientStrings.assign(kMaxClientEntries + over, "s");
        pairs.clientPairs.assign(kMaxClientEntries + over, {1, "p"});
        const bool decoded[] = {
            decode<CreateRoom>(encode(CreateRoom{1, x(kMaxNameLength), "d"})).has_value(),
            decode<CreateRoom>(encode(CreateRoom{1, "r", x(kMaxNameLength)})).has_value(),
            decode<Text>(encode(Text{x(kMaxTextLength)})).has_value(),
            decode<FileRequest>(encode(FileRequest{1, x(kMaxFileNameLength)})).has_value(),
            decode<GameSettings>(encode(GameSettings{1, 0, x(kMaxNameLength)})).has_value(),
            decode<TrackEvent>(encode(TrackEvent{1, "", "", 0, 0, x(kMaxTextLength)})).has_value(),
            decode<FeedbackReport>(encode(FeedbackReport{1, "", x(kMaxNameLength)})).has_value(),
            decode<DeterminismTestReport>(encode(DeterminismTestReport{1, "", "", "", x(kMaxDescriptionLength)})).has_value(),
            decode<PlayerSetup>(encode(named)).has_value(),
            decode<PlayerSetup>(encode(strings)).has_value(),
            decode<PlayerSetup>(encode(pairs)).has_value(),
        };
        for (std::size_t i = 0; i < std::size(decoded); ++i) EXPECT_EQ(decoded[i], over == 0) << "case " << i;
    }
}

TEST(Codec, OrdersShortFormStepDoneMarkAndResyncOrder) {
    auto shortForm = parseOrder(words({9, 4, 0xDEAD}));
    ASSERT_TRUE(shortForm);
    EXPECT_TRUE(isStepDoneOrder(*shortForm));
    EXPECT_EQ(shortForm->step, 4u);
    EXPECT_EQ(shortForm->argument, 0xDEADu);
    EXPECT_EQ(shortForm->orderType, 0u);
    EXPECT_FALSE(parseOrder(words({1, 4})));
    // A step-done order always shrinks to the short form, the type written as 1.
    EXPECT_EQ(serializeOrder(*shortForm), words({1, 4, 0xDEAD}));
    Order full = *shortForm;
    full.orderType = 5;
    EXPECT_EQ(serializeOrder(full), words({1, 4, 0xDEAD}));
    full.firstList = kFirst;
    const Bytes longBytes = serializeOrder(full);  // the order views it
    auto longForm = parseOrder(longBytes);
    ASSERT_TRUE(longForm);
    EXPECT_FALSE(isStepDoneOrder(*longForm));
    EXPECT_EQ(longForm->messageType, 1u);
    EXPECT_EQ(longForm->orderType, 5u);
    // The resync order: empty first list, so the full form.
    Order resync;
    resync.step = 3, resync.argument = 0xFFFFFFFFu, resync.firstList = {}, resync.orderType = kResyncOrderType;
    EXPECT_EQ(serializeOrder(resync),
              Writer().u32(1).u32(3).u32(0xFFFFFFFFu).u32(0).u32(902).u32(0).u32(0xFFFFFFFFu).u32(0xFFFFFFFFu)
                  .u32(0).u32(0).u32(0).u8(0).str("").take());
}
