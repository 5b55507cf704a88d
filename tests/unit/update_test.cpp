#include <gtest/gtest.h>

#include <filesystem>

#include "protocol/send.h"
#include "support/harness.h"
#include "support/reports_files.h"
#include "update/update.h"

namespace fs = std::filesystem;

namespace {

class UpdateTest : public ::testing::Test {
protected:
    void SetUp() override {
        h.connect(0);
        h.takeLogs();
    }

    // The one packet sent since the last call, to peer 0 on channel.
    Bytes onlyPacket(std::uint8_t channel) {
        auto sent = h.takeSent();
        EXPECT_EQ(sent.size(), 1u);
        if (sent.size() != 1) return {};
        EXPECT_EQ(sent[0].peer, h.peer(0));
        EXPECT_EQ(sent[0].channel, channel);
        return sent[0].data;
    }
    std::string noticeVersion() {
        sendManifestVersion(h.server, h.peer(0));
        auto notice = ManifestVersionNotice::decode(onlyPacket(kEventTrackingChannel));
        return notice ? notice->version : "<bad notice>";
    }
    // The announcements message and what went to standard output.
    std::pair<Bytes, std::string> announcements() {
        testing::internal::CaptureStdout();
        sendAnnouncements(h.server, h.peer(0));
        std::string out = testing::internal::GetCapturedStdout();
        return {onlyPacket(kEventTrackingChannel), out};
    }

    TempDataRoot root;
    Harness h;
    const fs::path updateDir = root / "server_data/update_data";
    const fs::path announcementsDir = root / "server_data/announcements";
};

std::string bytesOf(std::initializer_list<int> bytes) {
    std::string s;
    for (int b : bytes) s += static_cast<char>(b);
    return s;
}

}  // namespace

TEST(UpdateFileName, RefusesEverythingThatCouldLeaveTheUpdateDirectory) {
    for (const char* bad : {"", "..", "../settings/server.config", "/etc/passwd", "a/../../x", "a/..", "x/../y",
                            "C:x", "z:", "a\\b", "..\\x"})
        EXPECT_FALSE(isAcceptableUpdateFileName(bad)) << bad;
    EXPECT_FALSE(isAcceptableUpdateFileName(std::string_view("..\0x", 4)));
    for (const char* good : {"dir/file.bin", "manifest.manifest", "...", "..x", "a/.../b", "./a", "1:x", "ab:c"})
        EXPECT_TRUE(isAcceptableUpdateFileName(good)) << good;
}

// Found by fuzzing: ".//./" was accepted although it names the update
// directory itself rather than a file in it.
TEST(UpdateFileName, DotSlashNamesTheDirectoryItselfAndIsRefused) {
    for (const char* itself : {".//./", ".", "./", "//", "./././"})
        EXPECT_FALSE(isAcceptableUpdateFileName(itself)) << itself;
    EXPECT_TRUE(isAcceptableUpdateFileName("./a/"));
}

TEST_F(UpdateTest, ManifestVersionIsBytesFourToSevenWithThirteenAsDefault) {
    EXPECT_EQ(noticeVersion(), "13");
    EXPECT_TRUE(fs::is_directory(updateDir));  // created on the way
    std::pair<std::string, const char*> cases[] = {
        {bytesOf({9, 9, 9, 9, 5, 0, 0, 0}), "5"},   {bytesOf({0, 0, 0, 0, 0xFF, 0xFF, 0xFF, 0xFF}), "13"},
        {bytesOf({0, 0, 0, 0, 2, 1}), "258"},       {bytesOf({1, 2, 3, 4}), "0"},
        {bytesOf({0, 0, 0, 0, 0xFF, 0xFF, 0xFF, 0x7F, 1}), "2147483647"},
    };
    for (const auto& [content, version] : cases) {
        writeWholeFile(updateDir / "manifest.manifest", content);
        EXPECT_EQ(noticeVersion(), version);
    }
    sendManifestVersion(h.server, h.peer(0));
    EXPECT_EQ(onlyPacket(kEventTrackingChannel),
              Writer().u32(1).u32(1).u8(0).u8(0).u32(0).u32(1).str("2147483647").take());

    fs::remove_all(updateDir);
    writeWholeFile(updateDir, "a plain file in the way");
    EXPECT_EQ(noticeVersion(), "13");
    EXPECT_TRUE(h.takeLogs().empty());
}

TEST_F(UpdateTest, ManifestRequestRecordsAServerEventAndFileRequestsNone) {
    setClockForTests(1234567890);
    writeWholeFile(updateDir / "manifest.manifest", "MANIFEST");
    h.receive(0, kFileUpdateChannel, words({1}));  // only the type word is read
    EXPECT_EQ(onlyPacket(kFileUpdateChannel), Writer().u32(3).u32(1).str("manifest.manifest").blob(asBytes("MANIFEST")).take());
    ASSERT_EQ(h.server.events.size(), 1u);
    const TrackedEvent& e = h.server.events[0];
    EXPECT_EQ(std::tie(e.type, e.playerName, e.sourceIP, e.dataset, e.datasetChecksum, e.additionalEventData, e.timestamp),
              std::make_tuple(3u, std::string("__SERVER__"), 0u, std::string(), 0u, std::string(), 1234567890u));
    h.receive(0, kFileUpdateChannel, FileRequest{1, "manifest.manifest"}.encode());
    h.takeSent();
    EXPECT_EQ(h.server.events.size(), 1u);
}

TEST_F(UpdateTest, AFileThatReadsShortIsSentAsFarAsItWasRead) {
    // Kernel attribute files report a size of a page and hold a few bytes.
    const fs::path source = "/sys/devices/system/cpu/online";
    std::error_code ec;
    auto size = fs::file_size(source, ec);
    std::string actual = readWholeFile(source);
    if (ec || size <= actual.size()) GTEST_SKIP() << "no short-reading file on this system";
    fs::create_directories(updateDir);
    fs::create_symlink(source, updateDir / "short");
    h.receive(0, kFileUpdateChannel, FileRequest{1, "short"}.encode());
    EXPECT_EQ(onlyPacket(kFileUpdateChannel), Writer().u32(3).u32(1).str("short").blob(asBytes(actual)).take());
}

TEST_F(UpdateTest, MissingUnlistableOrEmptyAnnouncementsDirectoryGivesTwelveBytes) {
    EXPECT_EQ(announcements().first, words({2, 0, 0}));
    writeWholeFile(announcementsDir, "not a directory");
    EXPECT_EQ(announcements().first, words({2, 0, 0}));
    fs::remove(announcementsDir);
    fs::create_directories(announcementsDir);
    EXPECT_EQ(announcements(), std::make_pair(words({2, 0, 0}), std::string()));
}

