#pragma once
// File helpers for the report and update tests: a throw-away data root for
// in-process tests, and reading, writing and listing files.

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <set>
#include <string>

#include "platform/clock.h"
#include "protocol/paths.h"
#include "protocol/wire.h"
#include "support/files.h"

inline void writeWholeFile(const std::filesystem::path& path, const std::string& content) {
    std::filesystem::create_directories(path.parent_path());
    std::ofstream out(path, std::ios::binary);
    out << content;
}

// Entry names of a directory, sorted; empty when it does not exist.
inline std::set<std::string> entryNames(const std::filesystem::path& dir) {
    std::set<std::string> names;
    std::error_code ec;
    for (std::filesystem::directory_iterator it(dir, ec), end; !ec && it != end; it.increment(ec))
        names.insert(it->path().filename().string());
    return names;
}

inline std::string asString(const Bytes& b) { return std::string(b.begin(), b.end()); }
inline Bytes asBytes(const std::string& s) { return Bytes(s.begin(), s.end()); }

// An empty data root for in-process tests; the previous prefix and the real
// clock come back when it goes.
class TempDataRoot {
public:
    TempDataRoot() : savedPrefix_(dataRootPrefix()) {
        char tmpl[] = "/tmp/lockstep-unit-XXXXXX";
        root_ = mkdtemp(tmpl);
        setDataRootPrefix(root_.string() + "/");
    }
    ~TempDataRoot() {
        setDataRootPrefix(savedPrefix_);
        setClockForTests(std::nullopt);
        std::error_code ec;
        std::filesystem::remove_all(root_, ec);
    }
    TempDataRoot(const TempDataRoot&) = delete;
    TempDataRoot& operator=(const TempDataRoot&) = delete;

    const std::filesystem::path& root() const { return root_; }
    std::filesystem::path operator/(const std::string& relative) const { return root_ / relative; }

private:
    std::string savedPrefix_;
    std::filesystem::path root_;
};
