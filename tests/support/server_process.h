#pragma once
// A program of the project, by default the server, run in a temporary data
// root: keys through its standard input, its output and log read back.

#include <cstdint>
#include <string>
#include <sys/types.h>
#include <vector>

// Where the program's standard output goes: a file, a pipe that the test
// reads only when asked (a stalled reader), or a pipe with no reader at all.
enum class Console { File, Stalled, Gone };

struct ServerOptions {
    // settings/server.config: the port (a free one when 0), the description
    // and the statistics flag.
    std::uint16_t port = 0;
    std::string description;
    bool statistics = false;
    // Where under the root the program runs.
    std::string directory = ".";
    std::vector<std::string> environment;  // extra "NAME=value" entries
    std::vector<std::string> arguments;
    std::string program = LOCKSTEP_SERVER_BIN;
    Console console = Console::File;
};

class ServerProcess {
public:
    explicit ServerProcess(ServerOptions options = {});
    ~ServerProcess();
    ServerProcess(const ServerProcess&) = delete;
    ServerProcess& operator=(const ServerProcess&) = delete;

    // Launches the server; true once its log says the host is open.
    bool start() { return launch(), waitForLog("Enet server created at "); }
    void launch();
    std::uint16_t port() const { return port_; }
    const std::string& root() const { return root_; }
    pid_t pid() const { return pid_; }

    void sendKeys(const std::string& keys);
    void closeInput();
    // Sends the signal (SIGINT by default), then waits for the exit status.
    int stop(int signal = 2, int timeoutMs = 10000);
    // The exit status (128 + signal when killed by one), or -1 on a timeout.
    int wait(int timeoutMs = 10000);

    std::string log() const { return readFile("server.log"); }
    std::string consoleOutput() const { return readFile(".stdout"); }
    // Console::Stalled: reads the pipe until the program closes it.
    std::string readConsolePipe();
    std::string consoleErrors() const { return readFile(".stderr"); }
    // True when the log holds text count times within the time-out.
    bool waitForLog(const std::string& text, std::size_t count = 1, int timeoutMs = 5000) const;

    std::string readFile(const std::string& relative) const;
    void writeFile(const std::string& relative, const std::string& content) const;

private:
    ServerOptions options_;
    std::string root_;
    std::uint16_t port_ = 0;
    pid_t pid_ = -1;
    int stdinFd_ = -1;
    int consoleFd_ = -1;
    int exitStatus_ = -1;
};

// A UDP (or TCP) port on 127.0.0.1 that was free a moment ago.
std::uint16_t freePort(bool tcp = false);
// Occurrences of needle in haystack.
std::size_t countOf(const std::string& haystack, const std::string& needle);
