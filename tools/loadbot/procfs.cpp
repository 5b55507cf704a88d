#include "procfs.h"

#include <cstdlib>
#include <dirent.h>
#include <fstream>
#include <sstream>
#include <unistd.h>
#include <vector>

namespace loadbot {

namespace {

std::optional<std::string> readText(const std::string& path) {
    std::ifstream in(path);
    if (!in) return std::nullopt;
    std::ostringstream out;
    out << in.rdbuf();
    return out.str();
}

std::vector<std::string> taskIds(const std::string& taskDir) {
    std::vector<std::string> ids;
    if (DIR* dir = opendir(taskDir.c_str())) {
        while (dirent* entry = readdir(dir))
            if (entry->d_name[0] >= '0' && entry->d_name[0] <= '9') ids.emplace_back(entry->d_name);
        closedir(dir);
    }
    return ids;
}

}  // namespace

std::optional<std::uint64_t> parseStatCpuTicks(const std::string& statText) {
    // The command name may hold spaces and parentheses: fields are counted
    // from the last ')'. After it come state (field 3) ... utime (14), stime (15).
    auto close = statText.rfind(')');
    if (close == std::string::npos) return std::nullopt;
    std::istringstream fields(statText.substr(close + 1));
    std::string field;
    std::uint64_t utime = 0, stime = 0;
    for (int number = 3; number <= 15; ++number) {
        if (!(fields >> field)) return std::nullopt;
        if (number == 14) utime = std::strtoull(field.c_str(), nullptr, 10);
        if (number == 15) stime = std::strtoull(field.c_str(), nullptr, 10);
    }
    return utime + stime;
}

std::optional<std::uint64_t> parseStatusField(const std::string& statusText, const std::string& name) {
    std::string key = "\n" + name + ":";
    std::string text = "\n" + statusText;
    auto at = text.find(key);
    if (at == std::string::npos) return std::nullopt;
    return std::strtoull(text.c_str() + at + key.size(), nullptr, 10);
}

std::optional<MachineSample> parseMachineStat(const std::string& statText) {
    if (statText.compare(0, 4, "cpu ") != 0) return std::nullopt;
    std::istringstream fields(statText.substr(4, statText.find('\n') - 4));
    // user nice system idle iowait irq softirq steal (guest time is already
    // inside user and nice, so it is not added again).
    std::uint64_t v[8] = {};
    for (auto& value : v)
        if (!(fields >> value)) return std::nullopt;
    MachineSample sample;
    for (auto value : v) sample.total += value;
    sample.idle = v[3] + v[4];
    sample.steal = v[7];
    return sample;
}

std::optional<ProcessSample> sampleProcess(pid_t pid, const std::string& procRoot) {
    std::string base = procRoot + "/" + std::to_string(pid);
    auto status = readText(base + "/status");
    auto stat = readText(base + "/stat");
    if (!status || !stat) return std::nullopt;
    ProcessSample sample;
    sample.peakRssKib = parseStatusField(*status, "VmHWM").value_or(0);
    sample.rssKib = parseStatusField(*status, "VmRSS").value_or(0);
    // Nanosecond run times from schedstat where the kernel keeps them; the
    // tick counts of stat (10 ms each) otherwise.
    bool haveSchedstat = true;
    std::uint64_t schedNs = 0;
    for (const auto& tid : taskIds(base + "/task")) {
        std::string taskBase = base + "/task/" + tid;
        if (auto taskStatus = readText(taskBase + "/status")) {
            sample.voluntarySwitches += parseStatusField(*taskStatus, "voluntary_ctxt_switches").value_or(0);
            sample.involuntarySwitches += parseStatusField(*taskStatus, "nonvoluntary_ctxt_switches").value_or(0);
        }
        auto schedstat = readText(taskBase + "/schedstat");
        if (schedstat)
            schedNs += std::strtoull(schedstat->c_str(), nullptr, 10);
        else
            haveSchedstat = false;
    }
    if (haveSchedstat && schedNs > 0) {
        sample.cpuNs = schedNs;
    } else if (auto ticks = parseStatCpuTicks(*stat)) {
        sample.cpuNs = *ticks * (1000000000ull / static_cast<std::uint64_t>(sysconf(_SC_CLK_TCK)));
    }
    return sample;
}

std::optional<MachineSample> sampleMachine(const std::string& procRoot) {
    auto text = readText(procRoot + "/stat");
    if (!text) return std::nullopt;
    return parseMachineStat(*text);
}

}  // namespace loadbot
