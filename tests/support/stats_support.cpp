#include "support/stats_support.h"

#include <cstdlib>
#include <ctime>
#include <filesystem>

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
