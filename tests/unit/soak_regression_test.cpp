// Faults the churn soak found in the sanitizer build, one test each, named
// after what the fault was.

#include <gtest/gtest.h>

#include "protocol/messages.h"
#include "protocol/wire.h"

// An empty ENet packet carries no data pointer at all. Searching it for the
// NUL of a text handed a null pointer to memchr, which the undefined
// behaviour sanitizer stops the server on (the first junk packet of the soak
// that was an empty text on channel 1 ended the run).
TEST(SoakRegression, EmptyPacketWithoutDataPointerIsAMalformedTextNotANullSearch) {
    EXPECT_FALSE(decodeText(ByteView{}).has_value());

    Reader text(nullptr, 0);
    EXPECT_EQ(text.str(), "");
    EXPECT_FALSE(text.ok());

    Reader skipped(nullptr, 0);
    skipped.skipStr();
    EXPECT_FALSE(skipped.ok());

    // A string that would start right at the end of a packet fails the same way.
    const std::uint8_t word[4] = {1, 0, 0, 0};
    Reader atEnd(word, 4);
    atEnd.u32();
    EXPECT_EQ(atEnd.str(), "");
    EXPECT_FALSE(atEnd.ok());
}
