#pragma once
// Runs one of the project's tool binaries to its end and keeps what it
// printed, for the tests of those tools.

#include <string>
#include <vector>

struct ProgramRun {
    int status = -1;  // exit status, or -1 when killed on the time-out
    std::string out;
    std::string err;
};

// args[0] is the program's path; it is killed after timeoutMs.
ProgramRun runProgram(const std::vector<std::string>& args, int timeoutMs);
