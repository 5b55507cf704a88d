#pragma once
// The ban list: server_data/bans.txt in the data root, one IPv4 or IPv6
// address or CIDR range a line, '#' comments. A banned address is refused at
// its first datagram, before it holds anything of ours.

#include <cstddef>
#include <string>
#include <utility>
#include <vector>

#include "platform/address.h"

struct BanList {
    // Addresses masked to their prefix, sorted, grouped by prefix length: a
    // lookup costs one binary search per length in use, whatever the size of
    // the list, because every connect datagram is looked up.
    std::vector<std::pair<unsigned, std::vector<Address16>>> byPrefix;
    // The lines that were taken.
    std::size_t entries = 0;
};

// A line it cannot read is skipped with a problem naming the line number;
// the others still count.
BanList parseBans(const std::string& text, const std::string& fileName, std::vector<std::string>& problems);
bool isBanned(const BanList& bans, const Address16& address);
