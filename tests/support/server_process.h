#pragma once
// The real server binary in a temporary data root: keys through its standard
// input, its log read back, SIGINT to stop it.

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

struct ServerOptions {
    // Lines of settings/server.config; the port line is filled in when empty.
    std::optional<std::string> description;
    bool statistics = false;
    bool writeConfig = true;
    // Whole file text instead of the generated one.
    std::optional<std::string> configText;
    // Extra environment entries ("NAME=value").
    std::vector<std::string> environment;
    // Program run in front of the binary (for example "faketime").
    std::vector<std::string> wrapper;
    std::vector<std::string> arguments;
    bool createServerData = true;
};

class ServerProcess {
public:
    explicit ServerProcess(ServerOptions options = {});
    ~ServerProcess();
    ServerProcess(const ServerProcess&) = delete;
    ServerProcess& operator=(const ServerProcess&) = delete;

    // Starts the binary; waits until its log says the host is open.
    bool start(int timeoutMs = 5000);
    // Starts without waiting for anything.
    void launch();
    std::uint16_t port() const { return port_; }
    const std::string& root() const { return root_; }
    pid_t pid() const { return pid_; }

    void sendKeys(const std::string& keys);
    void closeInput();
    // SIGINT (or another signal), then the exit status; -1 on a timeout.
    int stop(int signal = 2, int timeoutMs = 10000);
    // Waits for the process to end by itself; the exit status or -1.
    int wait(int timeoutMs = 10000);
    bool running();

    std::string log() const;            // server.log in the data root
    std::string consoleOutput() const;  // what it wrote to standard output
    std::string consoleErrors() const;  // what it wrote to standard error
    // Waits until the log contains text; true when it did in time.
    bool waitForLog(const std::string& text, int timeoutMs = 5000) const;
    // Waits until the log contains text count times.
    bool waitForLogCount(const std::string& text, std::size_t count, int timeoutMs = 5000) const;

    std::string readFile(const std::string& relative) const;
    void writeFile(const std::string& relative, const std::string& content) const;

private:
    ServerOptions options_;
    std::string root_;
    std::uint16_t port_ = 0;
    pid_t pid_ = -1;
    int stdinFd_ = -1;
    int exitStatus_ = -1;
};

// A UDP port on 127.0.0.1 that was free a moment ago.
std::uint16_t freeUdpPort();
// Occurrences of needle in haystack.
std::size_t countOf(const std::string& haystack, const std::string& needle);
