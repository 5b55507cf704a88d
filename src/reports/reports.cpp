#include "reports/reports.h"

#include <filesystem>
#include <system_error>

#include "platform/clock.h"
#include "platform/files.h"
#include "protocol/send.h"
#include "platform/storage.h"

namespace fs = std::filesystem;

namespace {

// Report files are written under a temporary name and renamed into place, so
// nobody reading the report directory meets half a file. A name that cannot
// be taken (a directory in the way, a full disk) fails like a file that cannot
// be opened, and the temporary file goes.

// The eight-line ".txt" layout.
bool writeTextFile(const std::string& path, const std::string& playerName, const std::string& contactInfo,
                   const std::string& dataset, const std::string& description) {
    FileWriter f;
    if (!f.open(path)) return false;
    const std::string* values[] = {&playerName, &contactInfo, &dataset, &description};
    const char* headers[] = {"==== Player name ====", "==== Contact info ====", "==== Dataset ====",
                             "==== Description ===="};
    for (int i = 0; i < 4; ++i) {
        f.write(std::string(headers[i]) + "\n");
        f.write(*values[i]);
        f.write("\n", 1);
    }
    return f.commit();
}

bool writeBinaryFile(const std::string& path, ByteView bytes) {
    FileWriter f;
    if (!f.open(path)) return false;
    f.write(bytes.data(), bytes.size());
    return f.commit();
}

std::string reportStem(const char* directory) {
    return dataRootPrefix() + directory + std::to_string(static_cast<std::uint32_t>(unixNow()));
}

}  // namespace

// ---- Filing ---------------------------------------------------------------

// Reports are named by the second they arrive in, so two in the same second
// would share a base name and the second would truncate the first's files.
// Instead the later one moves to stem_1, stem_2, ...: a candidate is free only
// when none of the files this report would write exists yet. A directory in
// the place of a file is not counted as taken: a report cannot replace it, and
// the file's opening then fails with its own reply text as it should.
std::string chooseReportBase(const std::string& stem, const std::vector<std::string>& suffixes) {
    auto taken = [](const std::string& path) {
        std::error_code ec;
        fs::file_type type = fs::symlink_status(path, ec).type();
        return type != fs::file_type::not_found && type != fs::file_type::none &&
               type != fs::file_type::directory;
    };
    for (std::uint64_t k = 0;; ++k) {
        std::string base = k == 0 ? stem : stem + "_" + std::to_string(k);
        bool free = true;
        for (const std::string& suffix : suffixes)
            if (taken(base + suffix)) {
                free = false;
                break;
            }
        if (free) return base;
    }
}

namespace {
// The replies when not even the texts could be written.
constexpr char kFeedbackUnwritten[] = "Failed to write feedback texts";
constexpr char kTestUnwritten[] = "Failed to write test texts";
}  // namespace

std::string writeFeedbackReport(const std::string& stem, const FeedbackReport& report) {
    // The decoder has refused bundles that do not hold together.
    const std::optional<SnapshotBundle> bundle = parseSnapshotBundle(report.snapshot);
    const bool hasSnapshot = !report.snapshot.empty();

    std::vector<std::string> suffixes{".txt"};
    if (bundle) {
        suffixes.push_back(".save");
        suffixes.push_back(".world");
        if (!bundle->log.empty()) suffixes.push_back(".log");
        if (!bundle->scriptLog.empty()) suffixes.push_back(".script.log");
    } else if (hasSnapshot) {
        suffixes.push_back(".world");
    }
    if (!report.screenshot.empty()) suffixes.push_back(".jpg");
    const std::string base = chooseReportBase(stem, suffixes);

    // A feedback directory that cannot be created (a plain file in its place)
    // simply makes the first opening fail: the client gets that step's text
    // and the server carries on.
    if (!writeTextFile(base + ".txt", report.playerName, report.contactInfo, report.dataset, report.description))
        return kFeedbackUnwritten;
    if (bundle) {
        if (!writeBinaryFile(base + ".save", bundle->save)) return "Failed to write snapshot .save";
        if (!writeBinaryFile(base + ".world", bundle->world)) return "Failed to write snapshot .world";
        if (!bundle->log.empty() && !writeBinaryFile(base + ".log", bundle->log)) return "Failed to write .log";
        if (!bundle->scriptLog.empty() && !writeBinaryFile(base + ".script.log", bundle->scriptLog))
            return "Failed to write script .log";
    } else if (hasSnapshot) {
        if (!writeBinaryFile(base + ".world", report.snapshot)) return "Failed to write snapshot";
    }
    if (!report.screenshot.empty() && !writeBinaryFile(base + ".jpg", report.screenshot))
        return "Failed to write screenshot";
    return "Feedback received succesfully! Thank you!";
}

std::string writeDeterminismTestReport(const std::string& stem, const DeterminismTestReport& report) {
    std::vector<std::string> suffixes{".txt"};
    if (!report.snapshot.empty()) suffixes.push_back(".save");
    // Same-second reports get "_1", "_2", ... as for feedback (chooseReportBase).
    const std::string base = chooseReportBase(stem, suffixes);

    // As for feedback, a directory that cannot be created only fails the opening.
    if (!writeTextFile(base + ".txt", report.playerName, report.contactInfo, report.dataset, report.description))
        return kTestUnwritten;
    if (!report.snapshot.empty() && !writeBinaryFile(base + ".save", report.snapshot))
        return "Failed to write test snapshot";
    return "Test results received succesfully! Thank you!";
}

namespace {

// The report travels to the worker as the packet's bytes (the record views
// them) and is read there again; the reply comes back to the same connection.
// Past the peer's share of the worker it is answered at once as unwritten.
template <typename M>
bool fileReport(Storage& storage, ENetPeer* peer, KeptBytes packet, const char* directory,
                std::string (*write)(const std::string&, const M&), const char* unwritten) {
    // Named by the second the report arrived in, not the one it was written in.
    std::string stem = reportStem(directory);
    PeerRef to = refOf(peer);
    const std::size_t size = packet.bytes().size();
    auto job = [packet = std::move(packet), stem = std::move(stem), to, write]() -> Storage::Completion {
        std::string text = write(stem, *decode<M>(packet.bytes()));
        return [to, text = std::move(text)] {
            if (ENetPeer* peer = stillConnected(to)) sendBytes(peer, kReportsChannel, encode(ReportReply{1, text}));
        };
    };
    if (storage.submit(std::move(job), size, to.connection)) return true;
    sendBytes(peer, kReportsChannel, encode(ReportReply{1, unwritten}));
    return false;
}

}  // namespace

bool fileFeedbackReport(Storage& storage, ENetPeer* peer, KeptBytes packet) {
    return fileReport<FeedbackReport>(storage, peer, std::move(packet), "server_data/feedback/", writeFeedbackReport,
                                      kFeedbackUnwritten);
}

bool fileDeterminismTestReport(Storage& storage, ENetPeer* peer, KeptBytes packet) {
    return fileReport<DeterminismTestReport>(storage, peer, std::move(packet), "server_data/test_determinism/",
                                             writeDeterminismTestReport, kTestUnwritten);
}

void refuseReport(Storage& storage, ENetPeer* peer, bool feedback) {
    const PeerRef to = refOf(peer);
    const std::string text = feedback ? kFeedbackUnwritten : kTestUnwritten;
    // Behind the peer's reports still being written when it has room there,
    // so its replies keep their order; at once when it has none.
    if (!storage.submit([to, text]() -> Storage::Completion {
            return [to, text] {
                if (ENetPeer* peer = stillConnected(to)) sendBytes(peer, kReportsChannel, encode(ReportReply{1, text}));
            };
        }, 0, to.connection))
        sendBytes(peer, kReportsChannel, encode(ReportReply{1, text}));
}
