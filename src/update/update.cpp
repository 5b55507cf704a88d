#include "update/update.h"

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <limits>
#include <system_error>

#include "log/log.h"
#include "platform/files.h"
#include "protocol/send.h"
#include "update/downloads.h"

namespace fs = std::filesystem;

namespace {
std::string updateDataDirectory() { return dataRootPrefix() + "server_data/update_data/"; }
}  // namespace

// ---- Manifest version -------------------------------------------------------

std::int32_t readManifestVersion() {
    // An update data directory that cannot be created (a plain file in its
    // place) fails the opening like a missing manifest: the default version,
    // and the server carries on.
    std::FILE* f = openFileForPath(updateDataDirectory() + kManifestName, "rb");
    if (f == nullptr) return kDefaultManifestVersion;
    // Bytes a short file does not have stay zero, in the high-order positions.
    auto readWord = [f] {
        std::uint8_t word[4] = {0, 0, 0, 0};
        std::size_t got = std::fread(word, 1, sizeof word, f);
        (void)got;
        return loadU32(word);
    };
    readWord();
    std::int32_t version = static_cast<std::int32_t>(readWord());
    std::fclose(f);
    return version < 0 ? kDefaultManifestVersion : version;
}

bool sendManifestVersion(Storage& storage, AnnouncementsCache& cache, ENetPeer* peer) {
    const PeerRef to = refOf(peer);
    return storage.submit(
        [&storage, &cache, to]() -> Storage::Completion {
            TrackEvent notice;
            notice.eventType = 1;
            notice.additionalEventData = std::to_string(readManifestVersion());
            return [&storage, &cache, to, bytes = encode(notice)] {
                ENetPeer* peer = stillConnected(to);
                if (peer == nullptr) return;
                sendBytes(peer, kEventTrackingChannel, bytes);
                sendAnnouncements(storage, cache, peer);
            };
        },
        0, to.connection);
}

// ---- File delivery ------------------------------------------------------------

// The requested name is appended to the update data directory, so a name that
// could climb out of it or name another root is refused outright rather than
// normalised: empty (the directory itself), absolute, any ".." component, any
// backslash (another platform's separator) and a drive prefix such as "C:".
// Only '/' separates components here, as in prepareFilePath. A NUL would cut
// the path short of what was checked ("..\0" opens ".."), so it is refused too.
bool isAcceptableUpdateFileName(std::string_view name) {
    if (name.empty() || name.front() == '/') return false;
    if (name.find('\\') != std::string_view::npos || name.find('\0') != std::string_view::npos) return false;
    auto isLetter = [](char c) { return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z'); };
    if (name.size() >= 2 && isLetter(name[0]) && name[1] == ':') return false;
    // A name made only of "." and empty components (".//./") names the
    // directory itself, not a file in it: refused like the empty name.
    bool namesSomething = false;
    std::size_t start = 0;
    for (;;) {
        std::size_t slash = name.find('/', start);
        std::string_view component = name.substr(start, slash == std::string_view::npos ? name.npos : slash - start);
        if (component == "..") return false;
        if (!component.empty() && component != ".") namesSomething = true;
        if (slash == std::string_view::npos) return namesSomething;
        start = slash + 1;
    }
}

Bytes readFileData(const std::string& name, std::string& problem) {
    FileData reply;
    reply.name = name;
    Bytes message = encode(reply);
    const std::size_t headerSize = message.size();
    const std::string directory = updateDataDirectory();
    const std::string path = directory + name;
    std::error_code ec;
    // The name cannot climb out, but a symbolic link inside could lead
    // anywhere: only files that really lie inside the directory are sent.
    const fs::path real = fs::canonical(path, ec);
    const fs::path root = fs::canonical(directory, ec);
    if (!real.empty() && !root.empty()) {
        auto [r, p] = std::mismatch(root.begin(), root.end(), real.begin(), real.end());
        if (r != root.end()) {
            problem = "|||| Refused file request \"" + printable(name) + "\": it leads outside the update data";
            return message;
        }
    }
    std::uintmax_t size = fs::file_size(path, ec);
    // A missing file and a directory count as size 0: nothing is opened.
    if (ec) return message;
    // A message ENet would refuse to send would leave the client waiting for
    // ever: it gets length 0 instead, like a missing file.
    if (size > kMaxPacketSize - headerSize) {
        problem = "|||| Update file \"" + printable(name) + "\" is too large to send: " + std::to_string(size) + " bytes";
        return message;
    }
    if (size == 0) return message;
    std::FILE* f = openFileForPath(path, "rb");
    if (f == nullptr) return message;
    // Read straight into the message, so the file is held once. A file that
    // shrank or fails to read is sent as far as it was read: the length
    // always equals the bytes that follow it, and no unread memory leaves.
    message.resize(headerSize + size);
    std::size_t got = std::fread(message.data() + headerSize, 1, size, f);
    std::fclose(f);
    message.resize(headerSize + got);
    const auto length = static_cast<std::uint32_t>(got);
    for (int i = 0; i < 4; ++i) message[headerSize - 4 + i] = static_cast<std::uint8_t>(length >> (8 * i));
    return message;
}

bool sendFile(Storage& storage, Downloads& downloads, ENetPeer* peer, std::string name) {
    const bool refused = !isAcceptableUpdateFileName(name);
    // Refused names get the same answer as a missing file (length 0) and one
    // error line; the file system is not touched for them at all. Their
    // answer still queues behind the peer's earlier ones.
    if (refused) logError("|||| Refused file request \"" + printable(name) + "\" from " + peerAddressText(peer));
    return queueFileRequest(storage, downloads, peer, std::move(name), refused, readFileData);
}
