#pragma once
// The one reader and the one writer of the wire format: little-endian 32-bit
// words, NUL-terminated 8-bit strings, counted lists and length-prefixed blobs.
// The reader never looks past the bytes it was given: a read that would go
// beyond them fails, and every later read fails too.

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

using Bytes = std::vector<std::uint8_t>;
using ByteView = std::span<const std::uint8_t>;

class Reader {
public:
    Reader(const std::uint8_t* data, std::size_t size) : data_(data), size_(size) {}
    explicit Reader(ByteView bytes) : data_(bytes.data()), size_(bytes.size()) {}

    std::uint32_t u32();
    std::int32_t i32() { return static_cast<std::int32_t>(u32()); }
    std::uint8_t u8();
    // Up to the next NUL, which is consumed; fails when there is none.
    std::string str();
    // The same string as a view into the bytes, without copying it.
    std::string_view strView();
    // n raw bytes; fails when fewer remain.
    ByteView bytes(std::size_t n);
    // A u32 length, then that many bytes.
    ByteView blob();
    // A list count that cannot claim more elements than the remaining bytes
    // could hold at minElementSize bytes each; fails otherwise, so a decoder
    // never reserves memory the packet does not carry.
    std::uint32_t count(std::size_t minElementSize);

    // Marks the read as failed: a check on a value read makes the whole
    // decode fail like a read past the end.
    void fail() { ok_ = false; }
    bool ok() const { return ok_; }
    std::size_t offset() const { return pos_; }
    std::size_t remaining() const { return ok_ ? size_ - pos_ : 0; }

private:
    bool need(std::size_t n);
    const std::uint8_t* data_;
    std::size_t size_;
    std::size_t pos_ = 0;
    bool ok_ = true;
};

class Writer {
public:
    explicit Writer(std::size_t reserve = 0) { buf_.reserve(reserve); }
    Writer& u32(std::uint32_t v);
    Writer& i32(std::int32_t v) { return u32(static_cast<std::uint32_t>(v)); }
    Writer& u8(std::uint8_t v);
    Writer& str(std::string_view s);
    Writer& bytes(ByteView b);
    Writer& blob(ByteView b);
    Bytes take() { return std::move(buf_); }
    const Bytes& data() const { return buf_; }

private:
    Bytes buf_;
};

// Little-endian word at offset; the caller has checked the size.
inline std::uint32_t loadU32(const std::uint8_t* p) {
    return static_cast<std::uint32_t>(p[0]) | static_cast<std::uint32_t>(p[1]) << 8 |
           static_cast<std::uint32_t>(p[2]) << 16 | static_cast<std::uint32_t>(p[3]) << 24;
}

// The message type word of a packet; false when the packet is too short.
bool readMessageType(ByteView packet, std::uint32_t& type);

// Logs the one line that every dropped undecodable message gets.
void logMalformed(std::string_view what, unsigned channel, std::size_t length);
