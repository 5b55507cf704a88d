#pragma once
// What the operator's line files (the limits, the ban list) share: '#'
// comments, blanks around a line ignored, empty lines skipped, problems told
// on stderr and in the log.

#include <string>
#include <vector>

struct SettingLine {
    unsigned number = 0;  // from 1, as an editor shows it
    std::string text;     // without its comment and surrounding blanks
};

std::vector<SettingLine> settingLines(const std::string& text);
std::string trim(const std::string& s);
void reportProblems(const std::vector<std::string>& problems);
