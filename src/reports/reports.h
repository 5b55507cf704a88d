#pragma once
// Client reports filed under the data root: feedback and determinism tests.
// Each report becomes a set of files sharing one base name (the Unix time of
// its arrival) and is answered with exactly one ReportReply.

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <enet/enet.h>

#include "protocol/wire.h"

struct Server;

// Reports channel message 1, client to server.
struct FeedbackReport {
    static constexpr std::uint32_t kType = 1;
    std::uint32_t secondWord = 1;
    std::string playerName;
    std::string contactInfo;
    std::string dataset;
    std::string description;
    Bytes snapshot;    // empty: none
    Bytes screenshot;  // empty: none

    Bytes encode() const;
    // nullopt when a string or a length runs past the packet, or when the
    // snapshot is a bundle whose pieces run past the snapshot.
    static std::optional<FeedbackReport> decode(ByteView bytes);
};

// Reports channel message 3, client to server.
struct DeterminismTestReport {
    static constexpr std::uint32_t kType = 3;
    std::uint32_t secondWord = 1;
    std::string playerName;
    std::string contactInfo;
    std::string dataset;
    std::string description;
    Bytes snapshot;  // empty: none

    Bytes encode() const;
    static std::optional<DeterminismTestReport> decode(ByteView bytes);
};

// Reports channel message 2, server to client.
struct ReportReply {
    static constexpr std::uint32_t kType = 2;
    std::uint32_t secondWord = 1;
    std::string text;

    Bytes encode() const;
    static std::optional<ReportReply> decode(ByteView bytes);
};

// A snapshot that starts with "COMBOSAVE": a header text up to its NUL, then
// four length-prefixed pieces. The views point into the snapshot.
struct SnapshotBundle {
    ByteView save;
    ByteView world;
    ByteView log;
    ByteView scriptLog;
};
bool isSnapshotBundle(ByteView snapshot);
// nullopt when the header has no NUL or a piece runs past the snapshot.
std::optional<SnapshotBundle> parseSnapshotBundle(ByteView snapshot);
// Builds a bundle with the plain "COMBOSAVE" header (clients and tests).
Bytes encodeSnapshotBundle(ByteView save, ByteView world, ByteView log, ByteView scriptLog);

// The base name (without suffix) under which a report with these file
// suffixes is filed: stem when none of stem + suffix exists, else the first
// of stem + "_1", stem + "_2", ... for which none does.
std::string chooseReportBase(const std::string& stem, const std::vector<std::string>& suffixes);

void sendReportReply(ENetPeer* peer, std::string text);

// File the report under server_data/feedback/ (or server_data/test_determinism/)
// and answer the peer with one ReportReply.
void writeFeedbackReport(Server& server, ENetPeer* peer, const FeedbackReport& report);
void writeDeterminismTestReport(Server& server, ENetPeer* peer, const DeterminismTestReport& report);

// Decode the report packet, file it and answer the sender.
void receiveFeedbackReport(Server& server, ENetPeer* peer, ByteView packet);
void receiveDeterminismTestReport(Server& server, ENetPeer* peer, ByteView packet);
