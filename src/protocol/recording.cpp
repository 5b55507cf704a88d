#include "protocol/recording.h"

#include <array>

const char* recordTypeName(RecordType type) {
    switch (type) {
        case RecordType::header: return "header";
        case RecordType::order: return "order";
        case RecordType::stepCompleted: return "step";
        case RecordType::delay: return "delay";
        case RecordType::checksum: return "checksum";
        case RecordType::desync: return "desync";
        case RecordType::left: return "left";
        case RecordType::end: return "end";
        case RecordType::lost: return "lost";
        case RecordType::away: return "away";
        case RecordType::rejoin: return "rejoin";
    }
    return "unknown";
}

namespace {
std::array<std::uint32_t, 256> crcTable() {
    std::array<std::uint32_t, 256> table{};
    for (std::uint32_t i = 0; i < 256; ++i) {
        std::uint32_t c = i;
        for (int k = 0; k < 8; ++k) c = (c & 1) ? 0xEDB88320u ^ (c >> 1) : c >> 1;
        table[i] = c;
    }
    return table;
}
}  // namespace

// The CRC-32 of zip and PNG (reflected, polynomial 0xEDB88320), so that any
// tool can check a record.
std::uint32_t crc32(ByteView bytes, std::uint32_t crc) {
    static const std::array<std::uint32_t, 256> table = crcTable();
    crc = ~crc;
    for (std::uint8_t b : bytes) crc = table[(crc ^ b) & 0xFF] ^ (crc >> 8);
    return ~crc;
}

Bytes recordingPreamble() { return Writer(8).u32(kRecordingMagic).u32(kRecordingVersion).take(); }

Bytes frameRecord(RecordType type, std::uint32_t millis, ByteView payload) {
    Writer w(13 + payload.size());
    w.u32(static_cast<std::uint32_t>(payload.size())).u8(static_cast<std::uint8_t>(type)).u32(millis).bytes(payload);
    const Bytes& framed = w.data();
    const std::uint32_t crc = crc32(ByteView(framed).subspan(4));
    return w.u32(crc).take();
}

Bytes encodeHeader(const RecordingHeader& h) {
    Writer w;
    w.u32(h.roomId).str(h.roomName).str(h.dataset).u32(h.datasetChecksum).blob(h.settings);
    w.u32(static_cast<std::uint32_t>(h.players.size()));
    for (const RecordedPlayer& p : h.players) w.u32(p.slot).u32(p.tag).u32(p.location).str(p.name);
    w.str(h.serverVersion).u32(static_cast<std::uint32_t>(h.startUnix)).u32(static_cast<std::uint32_t>(h.startUnix >> 32));
    return w.take();
}

std::optional<RecordingHeader> decodeHeader(ByteView payload) {
    Reader r(payload);
    RecordingHeader h;
    h.roomId = r.u32();
    h.roomName = r.str();
    h.dataset = r.str();
    h.datasetChecksum = r.u32();
    ByteView settings = r.blob();
    h.settings.assign(settings.begin(), settings.end());
    const std::uint32_t n = r.count(13);
    for (std::uint32_t i = 0; i < n && r.ok(); ++i) {
        RecordedPlayer p;
        p.slot = r.u32();
        p.tag = r.u32();
        p.location = r.u32();
        p.name = r.str();
        h.players.push_back(std::move(p));
    }
    h.serverVersion = r.str();
    const std::uint64_t low = r.u32(), high = r.u32();
    h.startUnix = low | high << 32;
    if (!r.ok()) return std::nullopt;
    return h;
}

RecordingRead readRecording(ByteView file) {
    RecordingRead out;
    Reader preamble(file);
    const std::uint32_t magic = preamble.u32();
    out.version = preamble.u32();
    if (!preamble.ok() || magic != kRecordingMagic) {
        out.problem = "not a recording: the file does not start with the magic word";
        return out;
    }
    out.preambleOk = true;
    if (out.version != kRecordingVersion) {
        out.problem = "format version " + std::to_string(out.version) + ", this reader knows " +
                      std::to_string(kRecordingVersion);
        return out;
    }
    std::size_t at = 8;
    out.validBytes = at;
    while (at < file.size()) {
        if (file.size() - at < 13) {
            out.problem = "cut short at byte " + std::to_string(at) + ": an incomplete record header";
            return out;
        }
        const std::uint32_t length = loadU32(file.data() + at);
        if (length > kMaxRecordPayload) {
            out.problem = "damaged at byte " + std::to_string(at) + ": a record of " + std::to_string(length) + " bytes";
            return out;
        }
        if (file.size() - at < 13u + length) {
            out.problem = "cut short at byte " + std::to_string(at) + ": a record of " + std::to_string(length) +
                          " bytes, " + std::to_string(file.size() - at - 9) + " there";
            return out;
        }
        const ByteView covered = file.subspan(at + 4, 5 + length);
        const std::uint32_t crc = loadU32(file.data() + at + 9 + length);
        if (crc32(covered) != crc) {
            out.problem = "damaged at byte " + std::to_string(at) + ": the record's checksum does not match";
            return out;
        }
        Record record;
        record.type = static_cast<RecordType>(file[at + 4]);
        record.millis = loadU32(file.data() + at + 5);
        record.payload.assign(file.begin() + static_cast<std::ptrdiff_t>(at + 9),
                              file.begin() + static_cast<std::ptrdiff_t>(at + 9 + length));
        out.records.push_back(std::move(record));
        out.offsets.push_back(at);
        at += 13 + length;
        out.validBytes = at;
    }
    return out;
}
