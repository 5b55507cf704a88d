#pragma once
// The file update service: manifest version, manifest and files, and the
// announcements. Nothing is cached: every request reads the file system again.

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include <enet/enet.h>

#include "platform/storage.h"
#include "protocol/wire.h"
#include "update/downloads.h"

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

// The manifest version as a TrackEvent of event type 1, on channel 5, read
// by the storage worker.
void sendManifestVersion(Storage& storage, ENetPeer* peer);
void sendAnnouncements(Storage& storage, ENetPeer* peer);
// The whole FileData message of the named file of the update data directory,
// built in one buffer. Length 0 when it cannot be read, and also, with the
// error line to log in problem, when it is too large for one packet or lies
// outside the directory by way of a symbolic link.
Bytes readFileData(const std::string& name, std::string& problem);
// The named file, read by the storage worker, as FileData on channel 6
// through the download pacing.
void sendFile(Storage& storage, Downloads& downloads, ENetPeer* peer, std::string name);
