#pragma once
// The one message of the order channel. The server reads only a few of its
// fields (step, argument, the step-done mark, the order type) and passes the
// rest on untouched; it also builds orders of its own for step completion and
// resync.

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "protocol/wire.h"

inline constexpr std::uint32_t kStepDoneMark = 0xFFFFFFFFu;
inline constexpr std::uint32_t kChecksumOrderType = 901;
inline constexpr std::uint32_t kResyncOrderType = 902;
// Type, step and argument: the short form of a step-done order.
inline constexpr std::size_t kShortOrderLength = 12;
// The full form without list elements and text bytes.
inline constexpr std::size_t kFullOrderBaseLength = 46;

struct Order {
    std::uint32_t messageType = 1;  // not examined on receipt
    std::uint32_t step = 0;
    std::uint32_t argument = 0;
    std::vector<std::uint32_t> firstList{kStepDoneMark};
    std::uint32_t orderType = 0;
    std::vector<std::uint32_t> secondList;
    std::array<std::uint32_t, 4> params{0xFFFFFFFFu, 0xFFFFFFFFu, 0, 0};
    std::uint32_t extraParam = 0;
    std::uint8_t flag = 0;
    std::string text;
};

bool isStepDoneOrder(const Order& order);

// nullopt for a packet shorter than the short form, or one whose counts or
// text run past its end. A packet of exactly 12 bytes is the short form,
// whatever its third word. Bytes after the text are tolerated: the relay
// passes the packet on as it came.
std::optional<Order> parseOrder(const std::uint8_t* bytes, std::size_t length);
inline std::optional<Order> parseOrder(ByteView bytes) { return parseOrder(bytes.data(), bytes.size()); }

// What the relay needs of an order, checked as strictly as parseOrder but
// without copying anything: the hot path allocates nothing per order.
struct OrderSummary {
    std::uint32_t step = 0;
    std::uint32_t argument = 0;
    std::uint32_t orderType = 0;
    bool stepDone = false;
};
std::optional<OrderSummary> inspectOrder(ByteView bytes);

// A step-done order becomes the 12-byte short form; everything else the full
// form with the message type written as 1.
Bytes serializeOrder(const Order& order);
