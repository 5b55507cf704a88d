#include "platform/address.h"

#include <arpa/inet.h>
#include <cstring>

bool parseIpAddress(const std::string& text, Address16& out, bool& isIPv4) {
    in_addr v4{};
    if (inet_pton(AF_INET, text.c_str(), &v4) == 1) {
        out = mappedIPv4(v4.s_addr);
        isIPv4 = true;
        return true;
    }
    in6_addr v6{};
    if (inet_pton(AF_INET6, text.c_str(), &v6) != 1) return false;
    std::memcpy(out.data(), &v6, out.size());
    isIPv4 = false;
    return true;
}

Address16 mappedIPv4(std::uint32_t networkOrder) {
    Address16 out{};
    out[10] = 0xff;
    out[11] = 0xff;
    std::memcpy(out.data() + 12, &networkOrder, 4);
    return out;
}
