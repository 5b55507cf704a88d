#include <cstdio>
#include <filesystem>
#include <system_error>
#include <utility>

#include "log/log.h"
#include "platform/files.h"
#include "protocol/send.h"
#include "update/update.h"

namespace fs = std::filesystem;

namespace {

// The path between double quotes, with every '"' and '\' inside escaped by a
// backslash, on a line of its own, on the console only.
void printQuotedPath(const std::string& path) {
    std::string line;
    line.reserve(path.size() + 4);
    line += '"';
    for (char c : path) {
        if (c == '"' || c == '\\') line += '\\';
        line += c;
    }
    line += "\"\n";
    printToConsole(std::move(line));
}

// The whole content, or "" when the entry can't be opened or read as a file
// (a subdirectory among them). A NUL inside the content is kept as it is.
std::string readEntry(const std::string& path) {
    std::FILE* f = std::fopen(path.c_str(), "rb");
    if (f == nullptr) return {};
    std::string raw;
    char chunk[65536];
    std::size_t got;
    while ((got = std::fread(chunk, 1, sizeof chunk, f)) > 0) raw.append(chunk, got);
    bool failed = std::ferror(f) != 0;
    std::fclose(f);
    if (failed) return {};
    return textModeContent(raw);
}

}  // namespace

std::string textModeContent(std::string_view raw) {
    std::string text;
    text.reserve(raw.size());
    for (std::size_t i = 0; i < raw.size(); ++i) {
        if (raw[i] == '\r' && i + 1 < raw.size() && raw[i + 1] == '\n') continue;
        text += raw[i];
    }
    return text;
}

namespace {
std::string announcementsDirectory() { return dataRootPrefix() + "server_data/announcements"; }
}  // namespace

std::vector<std::string> readAnnouncements(std::size_t maxBytes, std::size_t& leftOut) {
    leftOut = 0;
    // The whole listing is taken first, in the order the platform yields it
    // (no sorting). A directory that is missing or can't be listed, even part
    // way through, counts as holding no announcements: the client gets the
    // 12-byte message with count 0 and the server carries on.
    std::vector<std::string> entries;
    std::error_code ec;
    for (fs::directory_iterator it(announcementsDirectory(), ec), end; !ec && it != end; it.increment(ec))
        entries.push_back(it->path().string());
    if (ec) return {};

    std::vector<std::string> texts;
    texts.reserve(entries.size());
    std::size_t bytes = 12;
    for (const std::string& path : entries) {
        // Each entry costs its text and a NUL; one that does not fit is left
        // out whole, and the later ones may still fit.
        std::error_code sizeError;
        const std::uintmax_t size = fs::is_regular_file(path, sizeError) ? fs::file_size(path, sizeError) : 0;
        if (maxBytes != 0 && !sizeError && bytes + size + 1 > maxBytes) {
            ++leftOut;
            continue;
        }
        printQuotedPath(path);
        std::string text = readEntry(path);
        if (maxBytes != 0 && bytes + text.size() + 1 > maxBytes) {  // it grew since
            ++leftOut;
            continue;
        }
        bytes += text.size() + 1;
        texts.push_back(std::move(text));
    }
    return texts;
}

namespace {
// Reads them by the storage worker, as the server's own work (one read at a
// time, however many ask), and answers every reply waiting for them.
void refreshAnnouncements(Storage& storage, AnnouncementsCache& cache) {
    cache.refreshing = true;
    storage.submit([&storage, &cache, maxBytes = cache.maxBytes]() -> Storage::Completion {
        // Watched before the listing, so that a change made while it is read
        // is seen at the next request.
        cache.watch.changed();
        cache.watch.watch(announcementsDirectory());
        std::size_t leftOut = 0;
        Announcements message;
        message.texts = readAnnouncements(maxBytes, leftOut);
        return [&storage, &cache, leftOut, maxBytes, bytes = encode(message)] {
            if (leftOut != 0)
                logError("|||| Announcements: " + std::to_string(leftOut) + " entries left out, over the limit of " +
                         std::to_string(maxBytes) + " bytes (announcements_max_bytes)");
            cache.message = SharedMessage(bytes);
            cache.read = true;
            cache.refreshing = false;
            for (const PeerRef& to : std::exchange(cache.waiting, {}))
                if (ENetPeer* peer = stillConnected(to)) sendShared(peer, kEventTrackingChannel, cache.message);
            if (std::exchange(cache.again, false)) cache.read = false;
        };
    });
}
}  // namespace

void forgetAnnouncements(AnnouncementsCache& cache) {
    if (cache.refreshing) cache.again = true;
    else cache.read = false;
}

void sendAnnouncements(Storage& storage, AnnouncementsCache& cache, ENetPeer* peer) {
    if (!cache.refreshing && cache.read && !cache.watch.changed())
        return sendShared(peer, kEventTrackingChannel, cache.message);
    if (cache.waiting.size() >= kMaxWaitingReplies) return;
    cache.waiting.push_back(refOf(peer));
    if (!cache.refreshing) refreshAnnouncements(storage, cache);
}
