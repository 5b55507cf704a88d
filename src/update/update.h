#pragma once
// The file update service: manifest version, manifest and files, and the
// announcements. The manifest and the files are read again for every request,
// so the operator can replace them while the server runs. The announcements
// are read once and kept as one encoded message that every reply shares; they
// are read again when something in their directory changed (and on SIGHUP).

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include <enet/enet.h>

#include "platform/storage.h"
#include "platform/watch.h"
#include "protocol/send.h"
#include "protocol/wire.h"
#include "update/downloads.h"

inline constexpr std::int32_t kDefaultManifestVersion = 13;
inline constexpr char kManifestName[] = "manifest.manifest";
// A ManifestVersionNotice is 19 bytes and the version's digits, at most 10.
inline constexpr std::size_t kManifestNoticeBytes = 29;

// True when appending name to the update data directory cannot lead out of
// it: not empty, not absolute, no ".." component, no backslash, no drive
// prefix. Pure: looks at nothing but the text.
bool isAcceptableUpdateFileName(std::string_view name);

// Bytes 4..7 of the manifest, little-endian; 13 when it cannot be opened or
// the value is negative.
std::int32_t readManifestVersion();
// The texts of the entries of the announcements directory, in listing order,
// as long as they fit maxBytes together (0: no bound); the count of those
// left out in leftOut. Each entry's quoted path goes to standard output as it
// is read.
std::vector<std::string> readAnnouncements(std::size_t maxBytes, std::size_t& leftOut);
// "\r\n" becomes "\n"; nothing else changes.
std::string textModeContent(std::string_view raw);

// The announcements as the replies share them.
struct AnnouncementsCache {
    // The encoded Announcements message; valid once read.
    SharedMessage message;
    bool read = false;
    bool refreshing = false;
    // Forgotten while a read ran (SIGHUP): read again at the next check.
    bool again = false;
    std::size_t maxBytes = 1024 * 1024;
    // Touched only by the loop while no read runs, and by the read.
    DirectoryWatch watch;
    // Replies waiting for the read under way, at most kMaxWaitingReplies.
    std::vector<PeerRef> waiting;
};
inline constexpr std::size_t kMaxWaitingReplies = 4096;

// The next update check reads the announcements again, whether or not their
// directory changed (SIGHUP).
void forgetAnnouncements(AnnouncementsCache& cache);

// The manifest version as a TrackEvent of event type 1, on channel 5, read
// by the storage worker within the peer's share, followed by the
// announcements. False, with nothing sent, when the peer's share of the
// worker is spent.
bool sendManifestVersion(Storage& storage, AnnouncementsCache& cache, ENetPeer* peer);
// The kept announcements to the peer, once they are read again if their
// directory changed.
void sendAnnouncements(Storage& storage, AnnouncementsCache& cache, ENetPeer* peer);
// The whole FileData message of the named file of the update data directory,
// built in one buffer. Length 0 when it cannot be read, and also, with the
// error line to log in problem, when it is too large for one packet or lies
// outside the directory by way of a symbolic link.
Bytes readFileData(const std::string& name, std::string& problem);
// The named file, read by the storage worker, as FileData on channel 6
// through the download service; false, with nothing queued, when the peer
// has too many requests waiting already.
bool sendFile(Storage& storage, Downloads& downloads, ENetPeer* peer, std::string name);
