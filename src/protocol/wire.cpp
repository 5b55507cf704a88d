#include "protocol/wire.h"

#include <cstring>

#include "log/metrics.h"
#include "log/log.h"

bool Reader::need(std::size_t n) {
    if (!ok_ || n > size_ - pos_) {
        ok_ = false;
        return false;
    }
    return true;
}

std::uint32_t Reader::u32() {
    if (!need(4)) return 0;
    std::uint32_t v = loadU32(data_ + pos_);
    pos_ += 4;
    return v;
}

std::uint8_t Reader::u8() {
    if (!need(1)) return 0;
    return data_[pos_++];
}

std::string Reader::str() { return std::string(strView()); }

std::string_view Reader::strView() {
    // Nothing left means no NUL; an empty packet may not even have a data
    // pointer to search.
    if (!ok_ || pos_ >= size_) {
        ok_ = false;
        return {};
    }
    const void* nul = std::memchr(data_ + pos_, 0, size_ - pos_);
    if (nul == nullptr) {
        ok_ = false;
        return {};
    }
    std::size_t len = static_cast<const std::uint8_t*>(nul) - (data_ + pos_);
    std::string_view s(reinterpret_cast<const char*>(data_ + pos_), len);
    pos_ += len + 1;
    return s;
}

ByteView Reader::bytes(std::size_t n) {
    if (!need(n)) return {};
    ByteView v(data_ + pos_, n);
    pos_ += n;
    return v;
}

ByteView Reader::blob() {
    std::uint32_t n = u32();
    return bytes(n);
}

std::uint32_t Reader::count(std::size_t minElementSize) {
    std::uint32_t n = u32();
    if (!ok_) return 0;
    if (minElementSize > 0 && n > (size_ - pos_) / minElementSize) {
        ok_ = false;
        return 0;
    }
    return n;
}

Writer& Writer::u32(std::uint32_t v) {
    std::uint8_t b[4] = {static_cast<std::uint8_t>(v), static_cast<std::uint8_t>(v >> 8),
                         static_cast<std::uint8_t>(v >> 16), static_cast<std::uint8_t>(v >> 24)};
    buf_.insert(buf_.end(), b, b + 4);
    return *this;
}

Writer& Writer::u8(std::uint8_t v) {
    buf_.push_back(v);
    return *this;
}

Writer& Writer::str(std::string_view s) {
    buf_.insert(buf_.end(), s.begin(), s.end());
    buf_.push_back(0);
    return *this;
}

Writer& Writer::bytes(ByteView b) {
    buf_.insert(buf_.end(), b.begin(), b.end());
    return *this;
}

Writer& Writer::blob(ByteView b) {
    u32(static_cast<std::uint32_t>(b.size()));
    return bytes(b);
}

bool readMessageType(ByteView packet, std::uint32_t& type) {
    if (packet.size() < 4) return false;
    type = loadU32(packet.data());
    return true;
}

void logMalformed(std::string_view what, unsigned channel, std::size_t length) {
    metrics().malformedDropped.fetch_add(1, std::memory_order_relaxed);
    logError("|||| Malformed " + std::string(what) + " on channel " + std::to_string(channel) + ", " +
             std::to_string(length) + " bytes. Dropped");
}
