#include "support/stats_support.h"

#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "platform/clock.h"
#include "protocol/paths.h"

std::int64_t localUnixTime(int year, int month, int day, int hour, int minute, int second) {
    std::tm t{};
    t.tm_year = year - 1900;
    t.tm_mon = month - 1;
    t.tm_mday = day;
    t.tm_hour = hour;
    t.tm_min = minute;
    t.tm_sec = second;
    t.tm_isdst = -1;
    return static_cast<std::int64_t>(std::mktime(&t));
}

std::vector<std::string> splitLines(const std::string& text) {
    std::vector<std::string> out;
    std::size_t pos = 0;
    while (pos < text.size()) {
        std::size_t end = text.find('\n', pos);
        if (end == std::string::npos) end = text.size();
        out.push_back(text.substr(pos, end - pos));
        pos = end + 1;
    }
    return out;
}

std::string readWholeFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream out;
    out << in.rdbuf();
    return out.str();
}

ScratchDataRoot::ScratchDataRoot() : previous_(dataRootPrefix()) {
    char tmpl[] = "/tmp/lockstep-stats-XXXXXX";
    prefix_ = std::string(mkdtemp(tmpl)) + "/";
    setDataRootPrefix(prefix_);
}

ScratchDataRoot::~ScratchDataRoot() {
    setDataRootPrefix(previous_);
    setClockForTests(std::nullopt);
    std::error_code ec;
    std::filesystem::remove_all(prefix_, ec);
}
