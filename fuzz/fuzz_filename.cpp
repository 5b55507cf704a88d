// The update service's file-name check: no accepted name may lead out of the
// update data directory, or name the directory itself.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <string_view>

#include "update/update.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::string_view name(reinterpret_cast<const char*>(data), size);
    if (!isAcceptableUpdateFileName(name)) return 0;
    if (name.find('\0') != std::string_view::npos) std::abort();
    namespace fs = std::filesystem;
    const fs::path base = "/srv/root/server_data/update_data";
    fs::path joined = (base.string() + "/" + std::string(name));
    fs::path normal = joined.lexically_normal();
    fs::path relative = normal.lexically_relative(base);
    // Inside the directory: a relative path that does not climb and is not "." itself.
    if (relative.empty() || relative == "." || *relative.begin() == "..") std::abort();
    return 0;
}
