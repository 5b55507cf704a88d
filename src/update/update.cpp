#include "update/update.h"

#include <cstdio>
#include <filesystem>
#include <limits>
#include <system_error>

#include "core/peers.h"
#include "core/server.h"
#include "log/log.h"
#include "platform/clock.h"
#include "protocol/paths.h"
#include "protocol/send.h"
#include "stats/events.h"

namespace fs = std::filesystem;

namespace {
std::string updateDataDirectory() { return dataRootPrefix() + "server_data/update_data/"; }
}  // namespace

// ---- Records -------------------------------------------------------------

Bytes FileRequest::encode() const { return Writer(9 + name.size()).u32(kType).u32(secondWord).str(name).take(); }

std::optional<FileRequest> FileRequest::decode(ByteView bytes) {
    Reader r(bytes);
    FileRequest request;
    if (r.u32() != kType) return std::nullopt;
    request.secondWord = r.u32();
    request.name = r.str();
    if (!r.ok()) return std::nullopt;
    return request;
}

Bytes FileData::encode() const {
    Writer w(13 + name.size() + content.size());
    w.u32(kType).u32(secondWord).str(name).blob(content);
    return w.take();
}

std::optional<FileData> FileData::decode(ByteView bytes) {
    Reader r(bytes);
    FileData data;
    if (r.u32() != kType) return std::nullopt;
    data.secondWord = r.u32();
    data.name = r.str();
    ByteView content = r.blob();
    if (!r.ok()) return std::nullopt;
    data.content.assign(content.begin(), content.end());
    return data;
}

Bytes ManifestVersionNotice::encode() const {
    Writer w(19 + version.size());
    w.u32(kType).u32(secondWord).str("").str("").u32(0).u32(kEventType).str(version);
    return w.take();
}

std::optional<ManifestVersionNotice> ManifestVersionNotice::decode(ByteView bytes) {
    Reader r(bytes);
    ManifestVersionNotice notice;
    if (r.u32() != kType) return std::nullopt;
    notice.secondWord = r.u32();
    std::string playerName = r.str();
    std::string dataset = r.str();
    std::uint32_t checksum = r.u32();
    std::uint32_t eventType = r.u32();
    notice.version = r.str();
    if (!r.ok() || !playerName.empty() || !dataset.empty() || checksum != 0 || eventType != kEventType)
        return std::nullopt;
    return notice;
}

Bytes Announcements::encode() const {
    std::size_t size = 12;
    for (const auto& t : texts) size += t.size() + 1;
    Writer w(size);
    w.u32(kType).u32(secondWord).u32(static_cast<std::uint32_t>(texts.size()));
    for (const auto& t : texts) w.str(t);
    return w.take();
}

std::optional<Announcements> Announcements::decode(ByteView bytes) {
    Reader r(bytes);
    Announcements message;
    if (r.u32() != kType) return std::nullopt;
    message.secondWord = r.u32();
    std::uint32_t count = r.count(1);
    for (std::uint32_t i = 0; i < count && r.ok(); ++i) message.texts.push_back(r.str());
    if (!r.ok()) return std::nullopt;
    return message;
}

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

void sendManifestVersion(Server&, ENetPeer* peer) {
    ManifestVersionNotice notice;
    notice.version = std::to_string(readManifestVersion());
    Bytes bytes = notice.encode();
    sendBytes(peer, kEventTrackingChannel, bytes);
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

void sendFile(ENetPeer* peer, std::string name) {
    FileData reply;
    reply.name = std::move(name);

    if (!isAcceptableUpdateFileName(reply.name)) {
        // Refused names get the same answer as a missing file (length 0) and
        // one error line; the file system is not touched for them at all.
        const auto* info = static_cast<const PeerInfo*>(peer->data);
        PeerInfo shown = info ? *info : makePeerInfo(peer->address);
        logError("|||| Refused file request \"" + reply.name + "\" from " + peerAddressText(shown));
        sendBytes(peer, kFileUpdateChannel, reply.encode());
        return;
    }

    const std::string path = updateDataDirectory() + reply.name;
    std::error_code ec;
    std::uintmax_t size = fs::file_size(path, ec);
    // A missing file, a directory, and a size the 32-bit length field cannot
    // carry all count as size 0: nothing is opened.
    if (ec || size > static_cast<std::uintmax_t>(std::numeric_limits<std::int32_t>::max())) size = 0;

    if (size != 0) {
        if (std::FILE* f = openFileForPath(path, "rb")) {
            reply.content.resize(size);
            // A file that shrank or fails to read is sent as far as it was
            // read: the length always equals the bytes that follow it, and no
            // unread memory ever leaves. One that can't be opened gets length 0.
            std::size_t got = std::fread(reply.content.data(), 1, reply.content.size(), f);
            reply.content.resize(got);
            std::fclose(f);
        }
    }
    Bytes bytes = reply.encode();
    sendBytes(peer, kFileUpdateChannel, bytes);
}

void handleFileUpdate(Server& server, ENetPeer* peer, ByteView packet) {
    std::uint32_t type = 0;
    if (!readMessageType(packet, type)) {
        logMalformed("file update message", kFileUpdateChannel, packet.size());
        return;
    }
    switch (type) {
        case 1:
            // Only the type word of a ManifestRequest is read.
            recordEvent(server, 3, "__SERVER__", 0, "", 0, "", static_cast<std::uint32_t>(unixNow()));
            sendFile(peer, kManifestName);
            break;
        case FileRequest::kType: {
            auto request = FileRequest::decode(packet);
            if (!request) {
                logMalformed("file request", kFileUpdateChannel, packet.size());
                return;
            }
            sendFile(peer, std::move(request->name));
            break;
        }
        case FileData::kType:
            logError("???? server should not be receiving file responses");
            break;
        default:
            logError("|||| Unknown file update message " + std::to_string(type) + ". Nothing to do with it");
            break;
    }
}
