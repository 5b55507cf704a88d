#include "support/program_run.h"

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include "support/files.h"

ProgramRun runProgram(const std::vector<std::string>& args, int timeoutMs) {
    char outPath[] = "/tmp/lockstep-run-out-XXXXXX";
    char errPath[] = "/tmp/lockstep-run-err-XXXXXX";
    int outFd = mkstemp(outPath);
    int errFd = mkstemp(errPath);
    pid_t pid = fork();
    if (pid == 0) {
        dup2(outFd, 1);
        dup2(errFd, 2);
        std::vector<char*> argv;
        for (const auto& a : args) argv.push_back(const_cast<char*>(a.c_str()));
        argv.push_back(nullptr);
        execv(argv[0], argv.data());
        _exit(127);
    }
    ProgramRun run;
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    int wstatus = 0;
    while (waitpid(pid, &wstatus, WNOHANG) == 0) {
        if (std::chrono::steady_clock::now() > deadline) {
            kill(pid, SIGKILL);
            waitpid(pid, &wstatus, 0);
            wstatus = -1;
            break;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    if (wstatus != -1 && WIFEXITED(wstatus)) run.status = WEXITSTATUS(wstatus);
    close(outFd);
    close(errFd);
    run.out = readWholeFile(outPath);
    run.err = readWholeFile(errPath);
    unlink(outPath);
    unlink(errPath);
    return run;
}
