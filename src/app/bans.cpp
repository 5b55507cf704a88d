#include "app/bans.h"

#include <algorithm>
#include <cctype>

namespace {

std::string trim(const std::string& s) {
    std::size_t b = 0, e = s.size();
    while (b < e && std::isspace(static_cast<unsigned char>(s[b]))) ++b;
    while (e > b && std::isspace(static_cast<unsigned char>(s[e - 1]))) --e;
    return s.substr(b, e - b);
}

Address16 masked(Address16 address, unsigned prefix) {
    for (unsigned i = 0; i < 16; ++i) {
        const unsigned keep = prefix >= 8 * (i + 1) ? 8 : prefix > 8 * i ? prefix - 8 * i : 0;
        address[i] &= static_cast<std::uint8_t>(0xff00u >> keep);
    }
    return address;
}

// "address" or "address/length"; the length counts in the address's own
// family, so an IPv4 /n becomes /96+n of its mapped form.
bool parseEntry(const std::string& text, Address16& address, unsigned& prefix, std::string& why) {
    const std::size_t slash = text.find('/');
    bool isIPv4 = false;
    if (!parseIpAddress(text.substr(0, slash), address, isIPv4)) {
        why = "not an IPv4 or IPv6 address";
        return false;
    }
    const unsigned width = isIPv4 ? 32 : 128;
    prefix = width;
    if (slash != std::string::npos) {
        const std::string digits = text.substr(slash + 1);
        if (digits.empty() || digits.size() > 3 ||
            !std::all_of(digits.begin(), digits.end(), [](unsigned char c) { return std::isdigit(c); }) ||
            std::stoul(digits) > width) {
            why = "bad prefix length \"" + digits + "\" (0 to " + std::to_string(width) + ")";
            return false;
        }
        prefix = static_cast<unsigned>(std::stoul(digits));
    }
    if (isIPv4) prefix += 96;
    return true;
}

}  // namespace

BanList parseBans(const std::string& text, const std::string& fileName, std::vector<std::string>& problems) {
    BanList bans;
    std::size_t pos = 0;
    for (unsigned lineNumber = 1; pos < text.size(); ++lineNumber) {
        std::size_t end = text.find('\n', pos);
        if (end == std::string::npos) end = text.size();
        std::string line = text.substr(pos, end - pos);
        pos = end + 1;
        if (std::size_t hash = line.find('#'); hash != std::string::npos) line.resize(hash);
        line = trim(line);
        if (line.empty()) continue;
        Address16 address{};
        unsigned prefix = 0;
        std::string why;
        if (!parseEntry(line, address, prefix, why)) {
            problems.push_back(fileName + " line " + std::to_string(lineNumber) + ": " + why + ": \"" + line +
                               "\"; line ignored");
            continue;
        }
        auto group = std::find_if(bans.byPrefix.begin(), bans.byPrefix.end(),
                                  [&](const auto& g) { return g.first == prefix; });
        if (group == bans.byPrefix.end()) group = bans.byPrefix.insert(group, {prefix, {}});
        group->second.push_back(masked(address, prefix));
        ++bans.entries;
    }
    for (auto& [prefix, addresses] : bans.byPrefix) std::sort(addresses.begin(), addresses.end());
    return bans;
}

bool isBanned(const BanList& bans, const Address16& address) {
    for (const auto& [prefix, addresses] : bans.byPrefix)
        if (std::binary_search(addresses.begin(), addresses.end(), masked(address, prefix))) return true;
    return false;
}
