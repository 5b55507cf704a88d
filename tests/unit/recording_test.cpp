// The capability handshake, and matches recorded: the file read back record
// for record, cut short at every byte, and its limits.

#include <gtest/gtest.h>

#include <fstream>
#include <map>

#include "lobby/lobby.h"
#include "log/metrics.h"
#include "platform/clock.h"
#include "support/harness.h"

namespace {

std::string error(const std::string& text) { return "#### ERROR \n" + text + "\n####"; }

Bytes stepDone(std::uint32_t step, std::uint32_t slot) { return words({1, step, slot}); }

// Peers 0..n-1 in a room brought to its running match through the lobby.
Room& startedMatch(Harness& h, std::size_t n) {
    Room& room = h.roomOfReady(n);
    h.lobby(0, StartGame{});
    h.step();
    for (std::size_t i = 0; i < n; ++i) h.lobby(i, StartGame{});
    h.step();
    EXPECT_TRUE(room.running);
    h.takeSent();
    h.takeLogs();
    return room;
}

std::vector<std::filesystem::path> filesIn(const std::filesystem::path& directory) {
    std::vector<std::filesystem::path> files;
    std::error_code ec;
    for (const auto& e : std::filesystem::directory_iterator(directory, ec)) files.push_back(e.path());
    std::sort(files.begin(), files.end());
    return files;
}

Bytes readBytes(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(in), {});
}

Record rec(RecordType type, Bytes payload) { return Record{type, 0, std::move(payload)}; }

// An ordinary order (type 5) with its text, laid out as a client sends it.
Bytes ordinaryOrder(std::uint32_t step, const std::string& text) {
    return Writer().u32(1).u32(step).u32(0).u32(0).u32(5).u32(0).u32(1).u32(2).u32(3).u32(4).u32(0).u8(0).str(text)
        .take();
}

}  // namespace

TEST(Extensions, EveryHelloIsAnsweredAndAClientThatNeverAsksSeesTheSameBytes) {
    Harness h;
    h.connect(0);
    h.takeLogs();
    h.lobby(0, ExtensionsHello{1, 7, {"rejoin", "spectate", "rejoin"}});
    EXPECT_EQ(h.takeSent(), (std::vector<Sent>{{0, kLobbyChannel, words({100, 1, 1, 0})}}));
    // More features than the cap: malformed, unanswered.
    ExtensionsHello many;
    many.features.assign(kMaxFeatures + 1, "x");
    h.lobby(0, many);
    EXPECT_TRUE(h.takeSent().empty());
    EXPECT_EQ(h.takeLogs(),
              std::vector<std::string>{error("|||| Malformed ExtensionsHello on channel 0, " +
                                             std::to_string(encode(many).size()) + " bytes. Dropped")});

    // A room played through with and without one member's handshake: the
    // other members receive the same bytes, in the same order.
    auto play = [](bool hello) {
        Harness g;
        for (std::size_t i = 0; i < 3; ++i) g.connect(i);
        if (hello) g.lobby(1, ExtensionsHello{1, kExtensionsVersion, {"anything"}});
        g.lobby(0, CreateRoom{1, "r", "d", 1});
        g.lobby(1, JoinRoom{1, 1});
        g.lobby(2, JoinRoom{1, 1});
        for (std::size_t i = 0; i < 3; ++i) g.lobby(i, setupOf(static_cast<std::uint32_t>(i), 1, "P"));
        g.lobby(0, StartGame{});
        g.step();
        for (std::size_t i = 0; i < 3; ++i) g.lobby(i, StartGame{});
        g.step();
        g.receive(1, kOrderChannel, stepDone(1, 1));
        g.receive(1, kTextChannel, encode(Text{"gg"}));
        g.lobby(1, LeaveRoom{});
        // Each member's own sequence: across members the order follows the
        // peer registry, which is the order of the peers' addresses in memory.
        std::map<std::size_t, std::vector<Sent>> others;
        for (const Sent& s : g.takeSent())
            if (s.peer != 1) others[s.peer].push_back(s);
        return others;
    };
    const auto without = play(false);
    EXPECT_GT(without.at(0).size(), 20u);
    EXPECT_EQ(play(true), without);
}

TEST(Recording, AMatchIsWrittenAndReadBackRecordForRecord) {
    TempDataRoot root;
    setClockForTests(1764000000);
    Harness h;
    h.server.rooms.recordings = &h.server.recordings;
    h.server.recordings.directory = (root / "rec").string();
    h.server.recordings.serverVersion = "9.9";
    const std::uint64_t written = metrics().recordingsWritten.load();
    Room& room = startedMatch(h, 2);
    const std::uint32_t id = room.id;
    const Bytes ordinary = ordinaryOrder(3, "go");
    h.receive(0, kOrderChannel, ordinary);
    h.receive(1, kOrderChannel, checksumOrder(1, 11));
    h.receive(0, kOrderChannel, checksumOrder(1, 12));  // a desync
    h.receive(0, kOrderChannel, stepDone(1, 0));
    h.receive(1, kOrderChannel, stepDone(1, 1));
    h.disconnect(1);
    h.lobby(0, LeaveRoom{});
    h.step();  // the empty room goes, and its recording ends
    const std::vector<std::filesystem::path> files = filesIn(root / "rec");
    ASSERT_EQ(files.size(), 1u);
    EXPECT_EQ(files[0].filename(), "1764000000-1-room" + std::to_string(id) + ".rec");
    const Bytes file = readBytes(files[0]);
    const RecordingRead read = readRecording(file);
    EXPECT_EQ(read.problem, "");
    EXPECT_EQ(read.validBytes, file.size());
    ASSERT_EQ(read.records.size(), 9u);
    std::vector<Record> records = read.records;
    for (Record& r : records) r.millis = 0;  // the clock of the test is not the server's
    RecordingHeader header;
    header.roomId = id;
    header.roomName = "Room # " + std::to_string(id);
    header.dataset = "data";
    header.datasetChecksum = 77;
    header.settings = defaultGameSettings().bytes;
    header.players = {{0, 1, 1, "P0"}, {1, 3, 3, "P1"}};
    header.serverVersion = "9.9";
    header.startUnix = 1764000000;
    EXPECT_EQ(decodeHeader(records[0].payload), header);
    const std::string evidence = "server_data/resyncs/room" + std::to_string(id) + "_desync1";
    EXPECT_EQ(std::vector<Record>(records.begin() + 1, records.end()),
              (std::vector<Record>{
                  rec(RecordType::order, Writer().u32(3).u32(0).bytes(ordinary).take()),
                  rec(RecordType::checksum, words({1, 1, 11})),
                  rec(RecordType::checksum, words({1, 0, 12})),
                  rec(RecordType::desync, Writer().u32(1).u32(1).str(evidence).take()),
                  rec(RecordType::stepCompleted, words({1, 1})),
                  rec(RecordType::left, Writer().u32(1).u32(1).str("P1").take()),
                  rec(RecordType::left, Writer().u32(0).u32(0).str("P0").take()),
                  rec(RecordType::end, words({0, 1})),
              }));
    EXPECT_EQ(metrics().recordingsWritten.load() - written, 1u);
    EXPECT_EQ(h.server.rooms.byId.size(), 0u);
}

TEST(Recording, AFileCutShortReadsUpToItsLastWholeRecordAtEveryByte) {
    Bytes file = recordingPreamble();
    const std::vector<Bytes> payloads{encodeHeader(RecordingHeader{}), words({1, 2, 3}), Writer().str("why").take()};
    const RecordType types[] = {RecordType::header, RecordType::checksum, RecordType::lost};
    for (std::size_t i = 0; i < payloads.size(); ++i) {
        const Bytes framed = frameRecord(types[i], static_cast<std::uint32_t>(i * 10), payloads[i]);
        file.insert(file.end(), framed.begin(), framed.end());
    }
    const RecordingRead whole = readRecording(file);
    ASSERT_EQ(whole.records.size(), 3u);
    EXPECT_EQ(whole.problem, "");
    EXPECT_EQ(whole.records[2], (Record{RecordType::lost, 20, payloads[2]}));
    const std::size_t last = whole.offsets[2];
    for (std::size_t cut = last; cut < file.size(); ++cut) {
        const RecordingRead part = readRecording(ByteView(file).first(cut));
        EXPECT_EQ(part.records.size(), cut == last ? 3u - 1 : 2u) << cut;
        EXPECT_EQ(part.validBytes, last) << cut;
        EXPECT_EQ(part.problem.empty(), cut == last) << cut;
    }
    // A byte changed inside a record: damaged there, the ones before it read.
    Bytes damaged = file;
    damaged[whole.offsets[1] + 10] ^= 1;
    const RecordingRead read = readRecording(damaged);
    EXPECT_EQ(read.records.size(), 1u);
    EXPECT_EQ(read.problem, "damaged at byte " + std::to_string(whole.offsets[1]) +
                                ": the record's checksum does not match");
    EXPECT_EQ(readRecording(Bytes{1, 2, 3, 4, 5, 6, 7, 8}).problem,
              "not a recording: the file does not start with the magic word");
}

TEST(Recording, ARecordingOverItsCapStopsMarkedAndTheMatchGoesOn) {
    TempDataRoot root;
    Harness h;
    h.server.rooms.recordings = &h.server.recordings;
    h.server.recordings.directory = (root / "rec").string();
    h.server.recordings.limits.maxFileBytes = 400;
    const std::uint64_t lost = metrics().recordingsLost.load();
    Room& room = startedMatch(h, 2);
    const Bytes ordinary = ordinaryOrder(3, std::string(100, 'x'));
    for (int i = 0; i < 5; ++i) h.receive(0, kOrderChannel, ordinary);
    // Every order still reached the other player.
    EXPECT_EQ(h.takeSent(), toEach({1, 1, 1, 1, 1}, kOrderChannel, ordinary));
    EXPECT_EQ(h.takeLogs(), std::vector<std::string>{error("|||| Recording of room " + std::to_string(room.id) +
                                                           " stopped: over recording_max_bytes (400 bytes). The "
                                                           "match goes on")});
    EXPECT_EQ(metrics().recordingsLost.load() - lost, 1u);
    h.disconnect(0);
    h.disconnect(1);
    h.step();
    const RecordingRead read = readRecording(readBytes(filesIn(root / "rec").at(0)));
    ASSERT_GE(read.records.size(), 2u);
    EXPECT_EQ(read.records.back().type, RecordType::lost);  // and no end record after it
    EXPECT_EQ(read.problem, "");
}

TEST(Recording, TheOldestRecordingsGoWhenTheDirectoryIsOverItsCap) {
    TempDataRoot root;
    std::filesystem::create_directories(root / "rec");
    for (const char* name : {"1700000100-1-room1.rec", "1700000200-1-room2.rec", "1700000300-1-room3.rec"})
        std::ofstream(root / "rec" / name) << std::string(1000, 'r');
    std::ofstream(root / "rec/notes.txt") << std::string(5000, 'n');  // not a recording: left alone
    Harness h;
    h.server.rooms.recordings = &h.server.recordings;
    h.server.recordings.directory = (root / "rec").string();
    h.server.recordings.limits.maxDirectoryBytes = 2500;
    Room& room = startedMatch(h, 2);
    flushRecording(h.server.storage, room.match.recording);
    std::vector<std::string> names;
    for (const auto& path : filesIn(root / "rec")) names.push_back(path.filename().string());
    ASSERT_EQ(names.size(), 4u);
    EXPECT_EQ(names[0], "1700000200-1-room2.rec");
    EXPECT_EQ(names[1], "1700000300-1-room3.rec");
    EXPECT_EQ(names[3], "notes.txt");
}
