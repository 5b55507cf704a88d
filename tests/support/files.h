#pragma once
// Whole files and their lines, for tests that compare what the server wrote
// byte for byte.

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

// The file's bytes; empty when it can't be read.
inline std::string readWholeFile(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream out;
    out << in.rdbuf();
    return out.str();
}

// Splits at line feeds; a final line feed does not start another line.
inline std::vector<std::string> splitLines(const std::string& text) {
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

// The log without the lines of the dump a server makes by itself in the
// first minute ending in 1 or 6 that it sees, which may fall between any two
// lines of a test that starts in such a minute. For tests that compare exact
// sequences of other lines.
inline std::string withoutTimedDumps(const std::string& log) {
    std::string out;
    for (const std::string& line : splitLines(log)) {
        bool dump = false;
        for (const char* start : {": Dumping stats to ", ": Dumped stats to ", ": Dumped events to "})
            dump = dump || line.rfind(start, 0) == 0;
        if (!dump) out += line + "\n";
    }
    return out;
}
