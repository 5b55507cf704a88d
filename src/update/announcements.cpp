#include <cstdio>
#include <filesystem>
#include <system_error>

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

std::vector<std::string> readAnnouncements() {
    const std::string directory = dataRootPrefix() + "server_data/announcements";
    // The whole listing is taken first, in the order the platform yields it
    // (no sorting). A directory that is missing or can't be listed, even part
    // way through, counts as holding no announcements: the client gets the
    // 12-byte message with count 0 and the server carries on.
    std::vector<std::string> entries;
    std::error_code ec;
    for (fs::directory_iterator it(directory, ec), end; !ec && it != end; it.increment(ec))
        entries.push_back(it->path().string());
    if (ec) return {};

    std::vector<std::string> texts;
    texts.reserve(entries.size());
    for (const std::string& path : entries) {
        printQuotedPath(path);
        texts.push_back(readEntry(path));
    }
    return texts;
}

void sendAnnouncements(Storage& storage, ENetPeer* peer) {
    storage.submit([to = refOf(peer)]() -> Storage::Completion {
        Announcements message;
        message.texts = readAnnouncements();
        return [to, bytes = encode(message)] {
            if (ENetPeer* peer = stillConnected(to)) sendBytes(peer, kEventTrackingChannel, bytes);
        };
    });
}
