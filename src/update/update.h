#pragma once
// The file update service: manifest version, manifest and files, and the
// announcements. Nothing is cached: every request reads the file system again.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <enet/enet.h>

#include "protocol/wire.h"

struct Server;

// File update channel message 2, client to server.
struct FileRequest {
    static constexpr std::uint32_t kType = 2;
    std::uint32_t secondWord = 1;
    std::string name;

    Bytes encode() const;
    static std::optional<FileRequest> decode(ByteView bytes);
};

// File update channel message 3, server to client: one whole file.
struct FileData {
    static constexpr std::uint32_t kType = 3;
    std::uint32_t secondWord = 1;
    std::string name;
    Bytes content;  // its size is the length field

    Bytes encode() const;
    static std::optional<FileData> decode(ByteView bytes);
};

// A TrackEvent (event tracking channel, type 1) carrying event type 1 and the
// manifest version as its additional data.
struct ManifestVersionNotice {
    static constexpr std::uint32_t kType = 1;
    static constexpr std::uint32_t kEventType = 1;
    std::uint32_t secondWord = 1;
    std::string version;

    Bytes encode() const;
    // nullopt unless the bytes are such a notice (empty name and dataset,
    // checksum 0, event type 1).
    static std::optional<ManifestVersionNotice> decode(ByteView bytes);
};

// Event tracking channel message 2, server to client.
struct Announcements {
    static constexpr std::uint32_t kType = 2;
    std::uint32_t secondWord = 0;
    std::vector<std::string> texts;

    Bytes encode() const;
    static std::optional<Announcements> decode(ByteView bytes);
};

inline constexpr std::int32_t kDefaultManifestVersion = 13;
inline constexpr char kManifestName[] = "manifest.manifest";

// True when appending name to the update data directory cannot lead out of
// it: not empty, not absolute, no ".." component, no backslash, no drive
// prefix. Pure: looks at nothing but the text.
bool isAcceptableUpdateFileName(std::string_view name);

// Bytes 4..7 of the manifest, little-endian; 13 when it cannot be opened or
// the value is negative.
std::int32_t readManifestVersion();
// The texts of every entry of the announcements directory, in listing order;
// each entry's quoted path goes to standard output as it is read.
std::vector<std::string> readAnnouncements();
// "\r\n" becomes "\n"; nothing else changes.
std::string textModeContent(std::string_view raw);

void handleFileUpdate(Server& server, ENetPeer* peer, ByteView packet);
void sendManifestVersion(Server& server, ENetPeer* peer);
void sendAnnouncements(Server& server, ENetPeer* peer);
// The named file of the update data directory, as FileData on channel 6.
void sendFile(ENetPeer* peer, std::string name);
