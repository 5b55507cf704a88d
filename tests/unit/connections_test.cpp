// The gate in front of ENet: the ban list.

#include <gtest/gtest.h>

#include "app/bans.h"

namespace {
Address16 ip(const char* text) {
    Address16 a{};
    bool isIPv4 = false;
    EXPECT_TRUE(parseIpAddress(text, a, isIPv4)) << text;
    return a;
}
}  // namespace

TEST(Bans, AddressesRangesIPv6AndBadLinesByTheirNumbers) {
    std::vector<std::string> problems;
    const BanList bans = parseBans("# banned\n10.1.2.3\n\n 192.168.0.0/16  # lan\n2001:db8::/32\nfe80::1\n"
                                   "300.1.2.3\n10.0.0.0/33\n10.9.9.9/\n",
                                   "bans.txt", problems);
    EXPECT_EQ(bans.entries, 4u);
    EXPECT_EQ(problems, (std::vector<std::string>{
                            "bans.txt line 7: not an IPv4 or IPv6 address: \"300.1.2.3\"; line ignored",
                            "bans.txt line 8: bad prefix length \"33\" (0 to 32): \"10.0.0.0/33\"; line ignored",
                            "bans.txt line 9: bad prefix length \"\" (0 to 32): \"10.9.9.9/\"; line ignored"}));
    for (const char* in : {"10.1.2.3", "::ffff:10.1.2.3", "192.168.255.1", "2001:db8:ffff::5", "fe80::1"})
        EXPECT_TRUE(isBanned(bans, ip(in))) << in;
    for (const char* out : {"10.1.2.4", "192.169.0.1", "2001:db9::", "fe80::2", "10.0.0.1"})
        EXPECT_FALSE(isBanned(bans, ip(out))) << out;
    const BanList everyIPv4 = parseBans("0.0.0.0/0", "b", problems);
    EXPECT_TRUE(isBanned(everyIPv4, ip("1.2.3.4")));
    EXPECT_FALSE(isBanned(everyIPv4, ip("2001:db8::1")));
}
