// The log writer runs on its own thread; this binary starts it once, so it is
// kept apart from the in-process tests that read the queue directly.

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <thread>

#include "log/log.h"
#include "platform/files.h"
#include "support/files.h"

namespace fs = std::filesystem;

TEST(LogWriter, FreshFileExactLinesEveryQueuedLineAndRecreation) {
    char tmpl[] = "/tmp/lockstep-log-XXXXXX";
    std::string root = mkdtemp(tmpl);
    std::string file = root + "/server.log";
    { std::ofstream(file) << "an earlier run\n"; }
    setDataRootPrefix(root + "/");

    startLog("server.log");
    logMessage("first");
    logError("X");
    logMessage("Enet initialized\n");
    logMessage("");
    // The writer opens the file for every line: a removed file comes back.
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (readWholeFile(file).find(": \n") == std::string::npos && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    EXPECT_EQ(readWholeFile(file), ": ## Starting log\n: first\n: #### ERROR \nX\n####\n: Enet initialized\n\n: \n");
    fs::remove(file);

    // A burst from the main thread while the writer drains: nothing lost,
    // nothing reordered, the last line queued is the last line written.
    std::string expected;
    for (int i = 0; i < 5000; ++i) {
        logMessage("line " + std::to_string(i));
        expected += ": line " + std::to_string(i) + "\n";
    }
    logMessage("## Ending log");
    expected += ": ## Ending log\n";
    stopLog();
    EXPECT_EQ(readWholeFile(file), expected);
    fs::remove_all(root);
}
