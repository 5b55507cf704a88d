#include "admission/bans.h"

#include <algorithm>
#include <cctype>

#include "admission/setting_lines.h"

namespace {

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
    for (const auto& [lineNumber, line] : settingLines(text)) {
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
