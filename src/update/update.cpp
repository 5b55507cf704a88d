#include "update/update.h"

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

void sendManifestVersion(Storage& storage, ENetPeer* peer) {
    storage.submit([to = refOf(peer)]() -> Storage::Completion {
        TrackEvent notice;
        notice.eventType = 1;
        notice.additionalEventData = std::to_string(readManifestVersion());
        return [to, bytes = encode(notice)] {
            if (ENetPeer* peer = stillConnected(to)) sendBytes(peer, kEventTrackingChannel, bytes);
        };
    });
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

Bytes readFileData(const std::string& name) {
    FileData reply;
    reply.name = name;
    Bytes message = encode(reply);
    const std::size_t headerSize = message.size();
    const std::string path = updateDataDirectory() + name;
    std::error_code ec;
    std::uintmax_t size = fs::file_size(path, ec);
    // A missing file, a directory, and a size the 32-bit length field cannot
    // carry all count as size 0: nothing is opened.
    if (ec || size > static_cast<std::uintmax_t>(std::numeric_limits<std::int32_t>::max())) size = 0;
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

void sendFile(Storage& storage, Downloads& downloads, ENetPeer* peer, std::string name) {
    const bool refused = !isAcceptableUpdateFileName(name);
    // Refused names get the same answer as a missing file (length 0) and one
    // error line; the file system is not touched for them at all. Their
    // answer still queues behind the peer's earlier ones.
    if (refused) logError("|||| Refused file request \"" + name + "\" from " + peerAddressText(peer));
    storage.submit([&downloads, to = refOf(peer), name = std::move(name), refused]() -> Storage::Completion {
        Bytes message = refused ? encode(FileData{1, name, {}}) : readFileData(name);
        return [&downloads, to, message = std::move(message)]() mutable { queueFileData(downloads, to, std::move(message)); };
    });
}
