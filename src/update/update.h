#pragma once
// The file update service: manifest version, manifest and files, and the
// announcements. Nothing is cached: every request reads the file system again.

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include <enet/enet.h>

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

// The manifest version as a TrackEvent of event type 1, on channel 5.
void sendManifestVersion(ENetPeer* peer);
void sendAnnouncements(ENetPeer* peer);
// The named file of the update data directory, as FileData on channel 6.
void sendFile(ENetPeer* peer, std::string name);
