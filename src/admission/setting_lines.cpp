#include "admission/setting_lines.h"

#include <cctype>
#include <cstdio>

#include "log/log.h"

std::string trim(const std::string& s) {
    std::size_t b = 0, e = s.size();
    while (b < e && std::isspace(static_cast<unsigned char>(s[b]))) ++b;
    while (e > b && std::isspace(static_cast<unsigned char>(s[e - 1]))) --e;
    return s.substr(b, e - b);
}

std::vector<SettingLine> settingLines(const std::string& text) {
    std::vector<SettingLine> lines;
    std::size_t pos = 0;
    for (unsigned number = 1; pos < text.size(); ++number) {
        std::size_t end = text.find('\n', pos);
        if (end == std::string::npos) end = text.size();
        std::string line = text.substr(pos, end - pos);
        pos = end + 1;
        if (std::size_t hash = line.find('#'); hash != std::string::npos) line.resize(hash);
        line = trim(line);
        if (!line.empty()) lines.push_back({number, std::move(line)});
    }
    return lines;
}

void reportProblems(const std::vector<std::string>& problems) {
    for (const std::string& problem : problems) {
        std::fprintf(stderr, "lockstep-server: %s\n", problem.c_str());
        logError(problem);
    }
}
