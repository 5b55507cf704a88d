#pragma once
// The file of a recorded match, written by the server and read by the replay
// tool. Little-endian throughout, with the wire format's strings and blobs:
//
//   u32 magic "LSRC" (the bytes 4C 53 52 43), u32 format version,
//   then records, the first of them the header.
//
// Each record is framed so that a file cut short (a crash, a full disk)
// reads up to its last whole record:
//
//   u32 payload length, u8 type, u32 milliseconds since the match started,
//   payload, u32 CRC-32 of the type, the milliseconds and the payload.

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "protocol/wire.h"

inline constexpr std::uint32_t kRecordingMagic = 0x4352534Cu;  // "LSRC"
inline constexpr std::uint32_t kRecordingVersion = 1;
// No record the server writes comes near this; a length beyond it is damage.
inline constexpr std::uint32_t kMaxRecordPayload = 64u * 1024 * 1024;

enum class RecordType : std::uint8_t {
    header = 1,         // RecordingHeader
    order = 2,          // u32 step, u32 sender's slot, the order's bytes as relayed (rest of the payload)
    stepCompleted = 3,  // u32 step, u32 slot the completion notice names
    delay = 4,          // u32 last completed step, u32 1 longer, 2 shorter or 0 set back by a resync, u32 the delay after it
    checksum = 5,       // u32 step, u32 slot, u32 checksum
    desync = 6,         // u32 step, u32 desync number, str evidence base name (without .world / .log)
    left = 7,           // u32 slot, u32 why (0 left, 1 disconnected), str name
    end = 8,            // u32 why (0 every player gone, 1 the server stopped), u32 last completed step
    lost = 9,           // str why: the recording stops here, the match went on
    away = 10,          // u32 slot: its player lost its connection, and its seat waits for it
    rejoin = 11,        // u32 slot, u32 the snapshot's step (0xFFFFFFFF: none), blob the snapshot
};

// The magic word and the version before the first record.
inline constexpr std::size_t kRecordingPreambleSize = 8;
// A record's framing around its payload: length, type, milliseconds, CRC.
inline constexpr std::size_t kRecordFrameSize = 4 + 1 + 4 + 4;
// Where the payload starts in a framed record.
inline constexpr std::size_t kRecordPayloadOffset = 4 + 1 + 4;

const char* recordTypeName(RecordType type);

struct RecordedPlayer {
    std::uint32_t slot = 0;
    std::uint32_t tag = 0;
    std::uint32_t location = 0;
    std::string name;
    bool operator==(const RecordedPlayer&) const = default;
};

struct RecordingHeader {
    std::uint32_t roomId = 0;
    std::string roomName;
    std::string dataset;
    std::uint32_t datasetChecksum = 0;
    Bytes settings;  // the room's GameSettings message as the players got it
    std::vector<RecordedPlayer> players;
    std::string serverVersion;
    std::uint64_t startUnix = 0;
    bool operator==(const RecordingHeader&) const = default;
};

struct Record {
    RecordType type{};
    std::uint32_t millis = 0;
    Bytes payload;
    bool operator==(const Record&) const = default;
};

std::uint32_t crc32(ByteView bytes, std::uint32_t crc = 0);

// The magic word and the version: the first bytes of every recording.
Bytes recordingPreamble();
// One framed record.
Bytes frameRecord(RecordType type, std::uint32_t millis, ByteView payload);
Bytes encodeHeader(const RecordingHeader& header);
std::optional<RecordingHeader> decodeHeader(ByteView payload);

// A whole file read back: the records up to the last whole one, and where
// and why reading stopped when the file does not end cleanly after one.
struct RecordingRead {
    bool preambleOk = false;
    std::uint32_t version = 0;
    std::vector<Record> records;
    std::vector<std::size_t> offsets;  // of each record in the file
    std::size_t validBytes = 0;        // the file up to the end of its last whole record
    std::string problem;               // empty: the file ends after a whole record
};
RecordingRead readRecording(ByteView file);
