#include "stream.h"

#include <array>

namespace loadbot {

namespace {

constexpr std::uint8_t kOrderRecord = 2;
constexpr std::uint8_t kCompletedRecord = 3;
constexpr std::uint8_t kHeaderRecord = 1;
// Length, type and milliseconds before the payload, the CRC after it.
constexpr std::size_t kRecordHead = 9;
constexpr std::size_t kRecordFrame = kRecordHead + 4;
const char* const slotNames[8] = {"orders of slot 0", "orders of slot 1", "orders of slot 2", "orders of slot 3",
                                  "orders of slot 4", "orders of slot 5", "orders of slot 6", "orders of slot 7"};

std::array<std::uint32_t, 256> crcTable() {
    std::array<std::uint32_t, 256> table{};
    for (std::uint32_t i = 0; i < 256; ++i) {
        std::uint32_t c = i;
        for (int k = 0; k < 8; ++k) c = (c & 1) != 0 ? 0xEDB88320u ^ (c >> 1) : c >> 1;
        table[i] = c;
    }
    return table;
}

}  // namespace

std::uint32_t crc32(const std::uint8_t* data, std::size_t length, std::uint32_t crc) {
    static const std::array<std::uint32_t, 256> table = crcTable();
    crc = ~crc;
    for (std::size_t i = 0; i < length; ++i) crc = table[(crc ^ data[i]) & 0xFF] ^ (crc >> 8);
    return ~crc;
}

Bytes extensionsHelloMessage(const std::vector<std::string>& features) {
    Bytes out;
    putU32(out, kExtensions);
    putU32(out, 1);
    putU32(out, 1);  // the extensions version
    putU32(out, static_cast<std::uint32_t>(features.size()));
    for (const std::string& name : features) putString(out, name);
    return out;
}

std::vector<std::string> parseGranted(const std::uint8_t* data, std::size_t length, bool& ok) {
    std::vector<std::string> features;
    ok = false;
    if (length < 16 || readU32(data) != kExtensions || readU32(data + 4) != 1) return features;
    std::uint32_t n = readU32(data + 12);
    std::size_t at = 16;
    for (std::uint32_t i = 0; i < n; ++i) {
        std::size_t end = at;
        while (end < length && data[end] != 0) ++end;
        if (end == length) return {};
        features.emplace_back(reinterpret_cast<const char*>(data + at), end - at);
        at = end + 1;
    }
    ok = true;
    return features;
}

Bytes rejoinMessage(std::uint32_t roomId, const Bytes& token) {
    Bytes out;
    putU32(out, kRejoin);
    putU32(out, 1);
    putU32(out, roomId);
    putU32(out, static_cast<std::uint32_t>(token.size()));
    out.insert(out.end(), token.begin(), token.end());
    return out;
}

Bytes caughtUpMessage() {
    Bytes out;
    putU32(out, kCaughtUp);
    putU32(out, 1);
    return out;
}

bool parseTokenMessage(const std::uint8_t* data, std::size_t length, std::uint32_t& roomId, std::uint32_t& slot,
                       Bytes& token) {
    if (length < 20 + kTokenSize || readU32(data + 16) != kTokenSize) return false;
    roomId = readU32(data + 8);
    slot = readU32(data + 12);
    token.assign(data + 20, data + 20 + kTokenSize);
    return true;
}

void StreamCheck::sequence(const char* what, std::uint32_t& last, std::uint32_t step, bool strictly, bool live) {
    const bool repeat = step <= last, gap = !repeat && strictly && step != last + 1;
    if ((repeat || gap) && anomalies.size() < 8)
        anomalies.push_back(std::string(repeat ? "repeat" : "gap") + " in " + what + (live ? " (live)" : " (stream)") +
                            ": step " + std::to_string(step) + " after " + std::to_string(last));
    if (repeat) {
        ++repeats;
        return;
    }
    if (gap) ++gaps;
    last = step;
}

bool StreamCheck::takeMessage(const std::uint8_t* data, std::size_t length) {
    if (length < 12 || readU32(data) != kCatchUp) return false;
    ++messages;
    std::size_t blob = readU32(data + 8);
    if (blob != length - 12) {
        ++badFrames;
        return true;
    }
    const std::uint8_t* p = data + 12;
    const std::uint8_t* end = p + blob;
    bytes += blob;
    while (p < end) {
        if (static_cast<std::size_t>(end - p) < kRecordFrame) {
            ++badFrames;
            return true;
        }
        const std::size_t payload = readU32(p);
        if (static_cast<std::size_t>(end - p) - kRecordFrame < payload) {
            ++badFrames;
            return true;
        }
        if (crc32(p + 4, kRecordHead - 4 + payload) != readU32(p + kRecordHead + payload)) {
            ++badFrames;
            return true;
        }
        const std::uint8_t type = p[4];
        const std::uint8_t* body = p + kRecordHead;
        ++records;
        if (type == kHeaderRecord) {
            ++headers;
        } else if (type == kOrderRecord && payload >= 8) {
            ++orders;
            const std::uint32_t step = readU32(body), slot = readU32(body + 4);
            if (slot < 8)
                sequence(slotNames[slot], lastOrderStep[slot], step, (strict >> slot & 1) != 0, false);
        } else if (type == kCompletedRecord && payload >= 8) {
            ++completions;
            sequence("completions", lastCompletedStep, readU32(body), true, false);
        }
        p += kRecordFrame + payload;
    }
    return true;
}

void StreamCheck::takeLiveOrder(std::uint32_t slot, std::uint32_t step) {
    if (slot < 8) sequence(slotNames[slot], lastOrderStep[slot], step, (strict >> slot & 1) != 0, true);
}

void StreamCheck::takeLiveCompletion(std::uint32_t step) { sequence("completions", lastCompletedStep, step, true, true); }

}  // namespace loadbot
