#pragma once
// Every message is described once, by a static `fields(f, m)` that names its
// fields in wire order; the three visitors here run that one description to
// read a message, to write it and to measure it, so the decoder, the encoder
// and the reserved size cannot drift apart. A message with a `kType` starts
// with that type word; the others (the text channel's) have no header.
//
// A description may also state a check on values it has read
// (`f.check(...)`), and caps on the length of a string and the count of a
// list: a decode whose check or cap fails is as malformed as one that runs
// past the packet, and a string over its cap is never copied. Writing and
// measuring ignore checks and caps.

#include <cstddef>
#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include "protocol/wire.h"

inline constexpr std::size_t kUncapped = std::numeric_limits<std::size_t>::max();

class FieldReader {
public:
    explicit FieldReader(ByteView bytes) : r_(bytes) {}
    void type(std::uint32_t expected) {
        if (r_.u32() != expected) r_.fail();
    }
    void u32(std::uint32_t& v) { v = r_.u32(); }
    void u8(std::uint8_t& v) { v = r_.u8(); }
    void str(std::string& s, std::size_t cap = kUncapped) {
        std::string_view v = r_.strView();
        if (v.size() > cap) r_.fail();
        if (r_.ok()) s.assign(v);
    }
    void str(std::string_view& s, std::size_t cap = kUncapped) {
        s = r_.strView();
        if (s.size() > cap) r_.fail();
    }
    void blob(ByteView& b) { b = r_.blob(); }
    void blob(Bytes& b) {
        ByteView v = r_.blob();
        b.assign(v.begin(), v.end());
    }
    // A counted list of 32-bit words, kept as its raw little-endian bytes.
    void words(ByteView& w) {
        std::uint32_t n = r_.count(4);
        w = r_.bytes(4 * static_cast<std::size_t>(n));
    }
    // A counted list whose elements take at least minElementSize bytes each,
    // so a count can never make the decoder reserve what the packet lacks.
    template <typename T, typename Each>
    void list(std::vector<T>& v, std::size_t minElementSize, Each each, std::size_t maxCount = kUncapped) {
        std::uint32_t n = r_.count(minElementSize);
        if (n > maxCount) r_.fail();
        if (!r_.ok()) return;
        v.reserve(n);
        for (std::uint32_t i = 0; i < n && r_.ok(); ++i) each(*this, v.emplace_back());
    }
    template <typename Predicate>
    void check(Predicate holds) {
        if (r_.ok() && !holds()) r_.fail();
    }
    bool ok() const { return r_.ok(); }

private:
    Reader r_;
};

class FieldWriter {
public:
    explicit FieldWriter(std::size_t reserve) : w_(reserve) {}
    void type(std::uint32_t t) { w_.u32(t); }
    void u32(std::uint32_t v) { w_.u32(v); }
    void u8(std::uint8_t v) { w_.u8(v); }
    void str(std::string_view s, std::size_t = kUncapped) { w_.str(s); }
    void blob(ByteView b) { w_.blob(b); }
    void words(ByteView w) { w_.u32(static_cast<std::uint32_t>(w.size() / 4)).bytes(w); }
    template <typename T, typename Each>
    void list(const std::vector<T>& v, std::size_t, Each each, std::size_t = kUncapped) {
        w_.u32(static_cast<std::uint32_t>(v.size()));
        for (const T& e : v) each(*this, e);
    }
    template <typename Predicate>
    void check(Predicate) {}
    Bytes take() { return w_.take(); }

private:
    Writer w_;
};

class FieldSize {
public:
    void type(std::uint32_t) { n_ += 4; }
    void u32(std::uint32_t) { n_ += 4; }
    void u8(std::uint8_t) { n_ += 1; }
    void str(std::string_view s, std::size_t = kUncapped) { n_ += s.size() + 1; }
    void blob(ByteView b) { n_ += 4 + b.size(); }
    void words(ByteView w) { n_ += 4 + w.size(); }
    template <typename T, typename Each>
    void list(const std::vector<T>& v, std::size_t, Each each, std::size_t = kUncapped) {
        n_ += 4;
        for (const T& e : v) each(*this, e);
    }
    template <typename Predicate>
    void check(Predicate) {}
    std::size_t size() const { return n_; }

private:
    std::size_t n_ = 0;
};

template <typename F, typename M>
void describe(F& f, M& m) {
    using T = std::remove_const_t<M>;
    if constexpr (requires { T::kType; }) f.type(T::kType);
    T::fields(f, m);
}

template <typename M>
std::size_t encodedSize(const M& m) {
    FieldSize s;
    describe(s, m);
    return s.size();
}

template <typename M>
Bytes encode(const M& m) {
    FieldWriter w(encodedSize(m));
    describe(w, m);
    return w.take();
}

// nullopt when a field runs past the bytes or a check fails. Bytes after the
// last field are not looked at: newer clients may append. A record with a
// `bytes` member keeps the exact packet there.
template <typename M>
std::optional<M> decode(ByteView bytes) {
    FieldReader r(bytes);
    M m;
    describe(r, m);
    if (!r.ok()) return std::nullopt;
    if constexpr (requires { m.bytes; }) m.bytes.assign(bytes.begin(), bytes.end());
    return m;
}
