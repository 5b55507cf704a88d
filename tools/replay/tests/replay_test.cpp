// The replay tool on recordings built record by record: the text of `show`,
// `check` on a file cut short at every byte of its last record, `desync` on
// a forced desync with its evidence files, and the page `html` writes.

#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <sys/wait.h>

#include "replay.h"
#include "synthetic.h"

namespace fs = std::filesystem;
using namespace synthetic;

namespace {

std::vector<std::string> lines(const std::string& text) {
    std::vector<std::string> out;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) out.push_back(line);
    return out;
}

struct Ran {
    int status = -1;
    std::string out, err;
};

Ran showOf(ByteView file) {
    std::ostringstream out, err;
    Ran r;
    r.status = replay::show(file, out, err);
    r.out = out.str(), r.err = err.str();
    return r;
}

Ran checkOf(ByteView file) {
    std::ostringstream out;
    Ran r;
    r.status = replay::check(file, out);
    r.out = out.str();
    return r;
}

Ran desyncOf(ByteView file, const std::string& path) {
    std::ostringstream out, err;
    Ran r;
    r.status = replay::desync(file, path, out, err);
    r.out = out.str(), r.err = err.str();
    return r;
}

Ran htmlOf(ByteView file) {
    std::ostringstream out, err;
    Ran r;
    r.status = replay::html(file, out, err);
    r.out = out.str(), r.err = err.str();
    return r;
}

class TempDir {
public:
    TempDir() {
        char name[] = "/tmp/replay-test-XXXXXX";
        path_ = mkdtemp(name);
    }
    ~TempDir() { fs::remove_all(path_); }
    const fs::path& path() const { return path_; }

private:
    fs::path path_;
};

void writeFile(const fs::path& path, ByteView bytes) {
    fs::create_directories(path.parent_path());
    std::ofstream(path, std::ios::binary).write(reinterpret_cast<const char*>(bytes.data()),
                                                static_cast<std::streamsize>(bytes.size()));
}

TEST(ReplayShow, OneLinePerRecord) {
    RecordingHeader h = threePlayers();
    h.players.resize(2);
    const Bytes order = gameOrder(7, 42, "go");
    RecordingBuilder b;
    b.header(h)
        .order(1250, 7, 1, order)
        .order(1260, 7, 0, stepDone(7))
        .completed(1300, 7, 0)
        .delay(1301, 7, 2, 2)
        .delay(1302, 9, 1, 3)
        .checksum(1303, 10, 1, 0x1234)
        .desync(1400, 10, 1, "server_data/resyncs/room3_desync1")
        .left(1500, 1, 0, "bo\"b\x01")
        .left(1501, 0, 1, "alice")
        .lost(1600, "pending bytes over 1048576")
        .add(RecordType::away, 1700, Writer().u32(2).take())
        .add(RecordType::rejoin, 1800, Writer().u32(2).u32(0xFFFFFFFFu).blob(ByteView{}).take())
        .add(RecordType::rejoin, 1900, Writer().u32(2).u32(40).blob(Bytes(5, 7)).take())
        .add(static_cast<RecordType>(42), 61700, {1, 2, 3})
        .add(RecordType::checksum, 61800, {1, 2, 3})
        .end(61900, 1, 12);
    const Ran r = showOf(b.bytes());
    EXPECT_EQ(r.status, replay::kClean);
    EXPECT_EQ(r.err, "");
    const std::vector<std::string> expected = {
        "0.000 header room 3 \"Friday night\" dataset \"classic\" checksum 0x00c0ffee settings " +
            std::to_string(h.settings.size()) +
            " bytes (mode 1, map \"river\", 4 start locations) server \"0.1.0\" started 2026-11-18 11:06:40 UTC "
            "players 2",
        "      player slot 0 tag 11 location 0 \"alice\"",
        "      player slot 1 tag 12 location 1 \"bob\"",
        "1.250 order step 7 slot 1 type 42 length " + std::to_string(order.size()),
        "1.260 order step 7 slot 0 step-done length 12",
        "1.300 step 7 completed, slot 0",
        "1.301 delay shorter after step 7, now 2",
        "1.302 delay longer after step 9, now 3",
        "1.303 checksum step 10 slot 1 0x00001234",
        "1.400 desync step 10 number 1 evidence \"server_data/resyncs/room3_desync1\"",
        "1.500 left slot 1 \"bo\\\"b\\x01\" left",
        "1.501 left slot 0 \"alice\" disconnected",
        "1.600 lost \"pending bytes over 1048576\"",
        "1.700 away slot 2",
        "1.800 rejoin slot 2, no snapshot",
        "1.900 rejoin slot 2, snapshot of step 40 length 5",
        "61.700 record type 42 (unknown), 3 bytes",
        "61.800 checksum (malformed, 3 bytes)",
        "61.900 end the server stopped, last step 12",
    };
    EXPECT_EQ(lines(r.out), expected);
}

TEST(ReplayShow, CutShortPrintsWhatIsThereAndSaysWhere) {
    RecordingBuilder b;
    b.header(threePlayers()).completed(50, 1, 0).end(100, 0, 1);
    const Bytes cut(b.bytes().begin(), b.bytes().end() - 1);
    const Ran r = showOf(cut);
    EXPECT_EQ(r.status, replay::kDamaged);
    EXPECT_EQ(lines(r.out).size(), 5u);  // the header, its 3 players, one step
    EXPECT_EQ(r.err, "lockstep-replay: cut short at byte " + std::to_string(b.starts().back()) + ": a record of 8 bytes, " +
                         "11 there\n");

    // Whole records, but not the last one: cut short between two records.
    const Ran open = showOf(ByteView(b.bytes()).first(b.starts().back()));
    EXPECT_EQ(open.status, replay::kDamaged);
    EXPECT_EQ(open.err, "lockstep-replay: cut short at byte " + std::to_string(b.starts().back()) +
                            ": no end record after the last whole one (or the match is still being recorded)\n");
}

TEST(ReplayCheck, CutShortAtEveryByteOfTheLastRecord) {
    const RecordingBuilder b = forcedDesync();
    const Bytes& whole = b.bytes();
    const std::size_t records = b.starts().size();

    const Ran clean = checkOf(whole);
    EXPECT_EQ(clean.status, replay::kClean);
    EXPECT_EQ(clean.out, std::to_string(records) + " whole records, " + std::to_string(whole.size()) + " of " +
                             std::to_string(whole.size()) + " bytes\n");

    const std::size_t last = b.starts().back();
    for (std::size_t size = last; size < whole.size(); ++size) {
        const Bytes cut(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(size));
        const Ran r = checkOf(cut);
        EXPECT_EQ(r.status, replay::kDamaged) << size;
        const std::vector<std::string> out = lines(r.out);
        ASSERT_EQ(out.size(), 2u) << r.out;
        EXPECT_EQ(out[0], std::to_string(records - 1) + " whole records, " + std::to_string(last) + " of " +
                              std::to_string(size) + " bytes")
            << size;
        // At the record's first byte the framing alone cannot tell, but a
        // closed recording ends with its end record.
        EXPECT_EQ(out[1].rfind("cut short at byte " + std::to_string(last) + ": ", 0), 0u) << out[1];
    }
}

TEST(ReplayCheck, DamagedAndUnreadable) {
    const RecordingBuilder b = forcedDesync();
    Bytes damaged = b.bytes();
    const std::size_t third = b.starts()[2];
    damaged[third + 10] ^= 0x40;  // inside the third record's payload
    Ran r = checkOf(damaged);
    EXPECT_EQ(r.status, replay::kDamaged);
    EXPECT_EQ(r.out, "2 whole records, " + std::to_string(third) + " of " + std::to_string(damaged.size()) +
                         " bytes\ndamaged at byte " +
                         std::to_string(third) + ": the record's checksum does not match\n");

    r = checkOf(Bytes{'h', 'e', 'l', 'l', 'o', '\n'});
    EXPECT_EQ(r.status, replay::kUnreadable);
    EXPECT_EQ(r.out, "not a recording: the file does not start with the magic word\n");
    r = checkOf(Bytes{});
    EXPECT_EQ(r.status, replay::kUnreadable);

    Bytes newer = b.bytes();
    newer[4] = 2;
    r = checkOf(newer);
    EXPECT_EQ(r.status, replay::kUnreadable);
    EXPECT_EQ(r.out, "format version 2, this reader knows 1\n");

    // Whole records, but the first is no header.
    RecordingBuilder headless;
    headless.completed(50, 1, 0).end(60, 0, 1);
    r = checkOf(headless.bytes());
    EXPECT_EQ(r.status, replay::kDamaged);
    EXPECT_EQ(lines(r.out).back(), "no header: the first record is not a readable header");
}

TEST(ReplayDesync, NamesTheStepTheSidesTheOrdersAndTheEvidence) {
    TempDir dir;
    const fs::path root = dir.path() / "main";
    const fs::path recording = root / "recordings" / "room3.rec";
    const RecordingBuilder b = forcedDesync();
    writeFile(recording, b.bytes());
    // The server wrote both files for slot 0, the world only for slot 1, and
    // nothing for slot 2.
    const Bytes world(100, 7), log(20, 8);
    writeFile(root / "server_data/resyncs/room3_desync1_peer0.world", world);
    writeFile(root / "server_data/resyncs/room3_desync1_peer0.log", log);
    writeFile(root / "server_data/resyncs/room3_desync1_peer1.world", world);

    const Ran r = desyncOf(b.bytes(), recording.string());
    EXPECT_EQ(r.status, replay::kClean);
    EXPECT_EQ(r.err, "");
    const std::vector<std::string> out = lines(r.out);
    ASSERT_GE(out.size(), 4u) << r.out;
    EXPECT_EQ(out[0], "first desync at step 70 (the checksums differ)");
    EXPECT_EQ(out[1], "  checksum 0xaaaa0046: slot 0 \"alice\", slot 2 \"carol\"");
    EXPECT_EQ(out[2], "  checksum 0xbbbb0070: slot 1 \"bob\"");
    EXPECT_EQ(out[3], "desync record: step 70, desync number 1, at 3.853 s");
    EXPECT_EQ(out[4], "order delay 4: the orders of steps 66 to 70");
    // Slot 0's step-done orders for 66..70 and the one game order of 69.
    std::vector<std::string> orders;
    for (const std::string& line : out)
        if (line.find(" order step ") != std::string::npos) orders.push_back(line);
    ASSERT_EQ(orders.size(), 6u) << r.out;
    EXPECT_EQ(orders.front().rfind("  3.645 order step 66 slot 0 step-done length 12 bytes 01000000 42000000", 0), 0u)
        << orders.front();
    EXPECT_NE(orders[3].find("order step 69 slot 0 type 104 length "), std::string::npos) << orders[3];
    EXPECT_EQ(orders.back().rfind("  3.845 order step 70 slot 0 step-done", 0), 0u) << orders.back();

    const std::string evidence = "evidence files (data root " + root.string() + "):";
    const auto at = std::find(out.begin(), out.end(), evidence);
    ASSERT_NE(at, out.end()) << r.out;
    const std::vector<std::string> files(at + 1, out.end());
    const std::vector<std::string> expected = {
        "  server_data/resyncs/room3_desync1_peer0.world  present, 100 bytes",
        "  server_data/resyncs/room3_desync1_peer0.log  present, 20 bytes",
        "  server_data/resyncs/room3_desync1_peer1.world  present, 100 bytes",
        "  server_data/resyncs/room3_desync1_peer1.log  missing",
        "  server_data/resyncs/room3_desync1_peer2.world  missing",
        "  server_data/resyncs/room3_desync1_peer2.log  missing",
    };
    EXPECT_EQ(files, expected);
}

TEST(ReplayDesync, EvidenceByAbsoluteNameOrNotFound) {
    TempDir dir;
    const std::string base = (dir.path() / "resyncs" / "room3_desync1").string();
    writeFile(base + "_peer2.log", Bytes(5, 1));
    Ran r = desyncOf(forcedDesync(base).bytes(), "/nonexistent/room3.rec");
    EXPECT_NE(r.out.find("\nevidence files:\n"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("  " + base + "_peer2.log  present, 5 bytes\n"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("  " + base + "_peer2.world  missing\n"), std::string::npos) << r.out;

    r = desyncOf(forcedDesync("/nonexistent/resyncs/room3_desync1").bytes(), "/nonexistent/room3.rec");
    EXPECT_NE(r.out.find("evidence files (their directory is not on this machine):\n"
                         "  /nonexistent/resyncs/room3_desync1_peer0.world\n"),
              std::string::npos)
        << r.out;

    r = desyncOf(forcedDesync("server_data/resyncs/room3_desync1").bytes(), (dir.path() / "x.rec").string());
    EXPECT_NE(r.out.find("evidence files (not found near the recording; relative to the server's data root):\n"
                         "  server_data/resyncs/room3_desync1_peer0.world\n"),
              std::string::npos)
        << r.out;
}

TEST(ReplayDesync, WithoutDesyncRecordOrWithoutDesync) {
    // Checksums that differ although the server declared nothing (a record
    // lost to a crash, say): the step still comes from the checksums.
    RecordingBuilder b;
    b.header(threePlayers())
        .checksum(100, 10, 0, 5)
        .checksum(100, 10, 1, 5)
        .checksum(100, 10, 2, 0)  // zero is "no checksum" to the server
        .checksum(200, 20, 2, 9)
        .checksum(200, 20, 0, 7)
        .checksum(200, 20, 1, 9);
    Ran r = desyncOf(b.bytes(), "/nonexistent/x.rec");
    const std::vector<std::string> out = lines(r.out);
    ASSERT_GE(out.size(), 4u) << r.out;
    EXPECT_EQ(out[0], "first desync at step 20 (the checksums differ)");
    EXPECT_EQ(out[1], "  checksum 0x00000007: slot 0 \"alice\"");
    EXPECT_EQ(out[2], "  checksum 0x00000009: slot 1 \"bob\", slot 2 \"carol\"");
    EXPECT_EQ(out[3], "no desync record: the server did not declare this one");
    EXPECT_EQ(out[4], "order delay 2: the orders of steps 18 to 20");
    EXPECT_EQ(out[5], "  none");

    RecordingBuilder calm;
    calm.header(threePlayers()).checksum(100, 10, 0, 5).checksum(100, 10, 1, 5).end(200, 0, 10);
    r = desyncOf(calm.bytes(), "/nonexistent/x.rec");
    EXPECT_EQ(r.status, replay::kClean);
    EXPECT_EQ(r.out, "no desync: the slots' checksums agree at every step recorded\n");
}

// Enough of XML to hold the page to it: every element closed in order,
// attributes quoted, only XML's own entities and character references.
std::string wellFormed(const std::string& text) {
    std::vector<std::string> open;
    std::size_t i = 0;
    auto entityOk = [&](std::size_t at) {
        const std::size_t semi = text.find(';', at);
        if (semi == std::string::npos) return false;
        const std::string name = text.substr(at + 1, semi - at - 1);
        if (name == "amp" || name == "lt" || name == "gt" || name == "quot" || name == "apos") return true;
        return name.size() > 1 && name[0] == '#' &&
               name.find_first_not_of("0123456789", 1) == std::string::npos;
    };
    while (i < text.size()) {
        const char c = text[i];
        if (c == '&') {
            if (!entityOk(i)) return "bad entity at " + std::to_string(i);
            ++i;
            continue;
        }
        if (c == '>') return "stray > at " + std::to_string(i);
        if (c != '<') {
            ++i;
            continue;
        }
        if (text.compare(i, 9, "<!DOCTYPE") == 0) {
            if (i != 0) return "DOCTYPE not first";
            i = text.find('>', i) + 1;
            continue;
        }
        if (text.compare(i, 4, "<!--") == 0) {
            i = text.find("-->", i) + 3;
            continue;
        }
        const std::size_t end = text.find('>', i);
        if (end == std::string::npos) return "unclosed tag at " + std::to_string(i);
        std::string tag = text.substr(i + 1, end - i - 1);
        i = end + 1;
        if (tag.find('<') != std::string::npos) return "< inside a tag: " + tag;
        if (!tag.empty() && tag[0] == '/') {
            const std::string name = tag.substr(1);
            if (open.empty() || open.back() != name) return "</" + name + "> closes " + (open.empty() ? "nothing" : open.back());
            open.pop_back();
            continue;
        }
        const bool selfClosing = !tag.empty() && tag.back() == '/';
        if (selfClosing) tag.pop_back();
        const std::string name = tag.substr(0, tag.find_first_of(" \n\t"));
        if (name.empty()) return "empty tag name";
        // Attributes: name="value", each value quoted and free of '<'.
        std::size_t a = name.size();
        while (a < tag.size()) {
            if (std::isspace(static_cast<unsigned char>(tag[a]))) {
                ++a;
                continue;
            }
            const std::size_t eq = tag.find('=', a);
            if (eq == std::string::npos || eq + 1 >= tag.size() || tag[eq + 1] != '"')
                return "unquoted attribute in <" + tag + ">";
            const std::size_t close = tag.find('"', eq + 2);
            if (close == std::string::npos) return "unterminated attribute in <" + tag + ">";
            a = close + 1;
        }
        if (!selfClosing) open.push_back(name);
    }
    if (!open.empty()) return "<" + open.back() + "> never closed";
    return "";
}

TEST(ReplayHtml, WellFormedCheckCatchesMistakes) {
    EXPECT_EQ(wellFormed("<a><b/></a>"), "");
    EXPECT_NE(wellFormed("<a><b></a>"), "");
    EXPECT_NE(wellFormed("<a x=1></a>"), "");
    EXPECT_NE(wellFormed("<a>&nbsp;</a>"), "");
    EXPECT_NE(wellFormed("<a>1 < 2</a>"), "");
}

TEST(ReplayHtml, OnePageWithTheTimelineAndTheDesync) {
    const Ran r = htmlOf(forcedDesync().bytes());
    EXPECT_EQ(r.status, replay::kClean);
    EXPECT_EQ(r.err, "");
    EXPECT_EQ(wellFormed(r.out), "");
    EXPECT_EQ(r.out.rfind("<!DOCTYPE html>\n<html xmlns=\"http://www.w3.org/1999/xhtml\"", 0), 0u);
    EXPECT_NE(r.out.find("<svg xmlns=\"http://www.w3.org/2000/svg\""), std::string::npos);
    EXPECT_NE(r.out.find("<polyline class=\"completions\""), std::string::npos);
    EXPECT_NE(r.out.find("<polyline class=\"delay\""), std::string::npos);
    EXPECT_NE(r.out.find("<line class=\"desync\""), std::string::npos);
    EXPECT_NE(r.out.find(">desync at step 70</text>"), std::string::npos);
    EXPECT_NE(r.out.find("<line class=\"left\""), std::string::npos);
    EXPECT_NE(r.out.find(">carol disconnected</text>"), std::string::npos);
    EXPECT_NE(r.out.find("Desync at step 70: slots 0 2 (0xaaaa0046) against slot 1 (0xbbbb0070)"), std::string::npos);
    // Self-contained: nothing loaded, nothing run.
    for (const char* absent : {"<script", "src=", "href=", "@import", "url("})
        EXPECT_EQ(r.out.find(absent), std::string::npos) << absent;
    // One point per step after the first; the stall at step 40 is the highest.
    const std::size_t line = r.out.find("<polyline class=\"completions\"");
    const std::string points = r.out.substr(line, r.out.find("/>", line) - line);
    EXPECT_EQ(std::count(points.begin(), points.end(), ','), 79);
}

TEST(ReplayHtml, ALongMatchKeepsItsStallsInFewerPoints) {
    // An hour at 20 steps a second: a pixel column holds many steps, and
    // keeps the shortest and the longest gap among them.
    RecordingBuilder b;
    b.header(threePlayers());
    std::uint32_t t = 0;
    for (std::uint32_t step = 1; step <= 72000; ++step) {
        t += step == 50000 ? 9000 : 50;
        b.completed(t, step, 0);
    }
    b.end(t + 10, 0, 72000);
    const Ran r = htmlOf(b.bytes());
    EXPECT_EQ(r.status, replay::kClean);
    EXPECT_EQ(wellFormed(r.out), "");
    const std::size_t line = r.out.find("<polyline class=\"completions\"");
    const std::string points = r.out.substr(line, r.out.find("/>", line) - line);
    EXPECT_LE(std::count(points.begin(), points.end(), ','), 2 * 911);  // columns 70 to 980
    // The stall is the top of the panel.
    EXPECT_NE(points.find(",68.0 "), std::string::npos) << points.substr(0, 200);
}

TEST(ReplayHtml, NamesThatAreNotAsciiOrSafeStayWellFormed) {
    RecordingHeader h = threePlayers();
    h.roomName = "<b>&\"rooms\"</b>";
    h.players[0].name = "\xe9l\xe8ve\x01";
    RecordingBuilder b;
    b.header(h).completed(50, 1, 0).left(60, 0, 0, h.players[0].name).completed(100, 2, 1);
    const Bytes whole = b.bytes();
    const Ran r = htmlOf(whole);
    EXPECT_EQ(wellFormed(r.out), "");
    EXPECT_NE(r.out.find("&lt;b&gt;&amp;&quot;rooms&quot;&lt;/b&gt;"), std::string::npos);
    EXPECT_NE(r.out.find("&#233;l&#232;ve?"), std::string::npos);

    // A page for a cut-short file still parses, and says so.
    const Ran cut = htmlOf(Bytes(whole.begin(), whole.end() - 3));
    EXPECT_EQ(cut.status, replay::kDamaged);
    EXPECT_EQ(wellFormed(cut.out), "");
    EXPECT_NE(cut.out.find("The file is cut short or damaged"), std::string::npos);
}

// The installed binary's command line and exit statuses.
Ran run(const std::string& args) {
    Ran r;
    FILE* pipe = popen((std::string(REPLAY_BIN) + " " + args + " 2>&1").c_str(), "r");
    char buffer[4096];
    for (std::size_t n; (n = std::fread(buffer, 1, sizeof buffer, pipe)) > 0;) r.out.append(buffer, n);
    const int status = pclose(pipe);
    r.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return r;
}

TEST(ReplayBinary, ExitStatuses) {
    TempDir dir;
    const RecordingBuilder b = forcedDesync();
    writeFile(dir.path() / "whole.rec", b.bytes());
    writeFile(dir.path() / "cut.rec", ByteView(b.bytes()).first(b.bytes().size() - 1));
    writeFile(dir.path() / "other.txt", Bytes{'x'});
    const std::string d = dir.path().string() + "/";
    EXPECT_EQ(run("check " + d + "whole.rec").status, 0);
    EXPECT_EQ(run("check " + d + "cut.rec").status, 1);
    EXPECT_EQ(run("check " + d + "other.txt").status, 2);
    EXPECT_EQ(run("show " + d + "missing.rec").status, 2);
    EXPECT_EQ(run("").status, 2);
    EXPECT_EQ(run("frobnicate " + d + "whole.rec").status, 2);
    EXPECT_EQ(run("show").status, 2);
    EXPECT_EQ(run("--help").status, 0);
    const Ran check = run("check " + d + "cut.rec");
    EXPECT_EQ(check.out.rfind(d + "cut.rec: " + std::to_string(b.starts().size() - 1) + " whole records", 0), 0u)
        << check.out;
    const Ran desync = run("desync " + d + "whole.rec");
    EXPECT_EQ(desync.status, 0);
    EXPECT_EQ(desync.out.rfind("first desync at step 70", 0), 0u) << desync.out;
    EXPECT_EQ(run("html " + d + "whole.rec").out.rfind("<!DOCTYPE html>", 0), 0u);
}

}  // namespace
