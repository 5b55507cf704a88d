#pragma once
// Textual IP addresses, through the system's own parser.

#include <array>
#include <cstdint>
#include <string>

// Every address as 16 bytes, IPv4 as ::ffff:a.b.c.d, so that one matcher
// serves both families.
using Address16 = std::array<std::uint8_t, 16>;

// Dotted IPv4 or any IPv6 form; false for anything else. isIPv4 tells which
// of the two the text was.
bool parseIpAddress(const std::string& text, Address16& out, bool& isIPv4);
// An IPv4 address as ENet holds it (network byte order), mapped.
Address16 mappedIPv4(std::uint32_t networkOrder);
