// The configuration text: any bytes give a port, a description and a flag.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "app/server.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::string text(reinterpret_cast<const char*>(data), size);
    ServerConfig config = parseServerConfig(text);
    // The description is one line of the text, without its line end.
    if (config.description.find('\n') != std::string::npos) std::abort();
    if (config.description.size() > text.size()) std::abort();
    return 0;
}
