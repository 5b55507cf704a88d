#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "protocol/paths.h"
#include "support/files.h"

namespace fs = std::filesystem;

namespace {
struct Scratch {
    fs::path root;
    Scratch() {
        char tmpl[] = "/tmp/lockstep-paths-XXXXXX";
        root = mkdtemp(tmpl);
    }
    ~Scratch() { fs::remove_all(root); }
    std::size_t entries(const fs::path& dir) const {
        return static_cast<std::size_t>(std::distance(fs::directory_iterator(dir), fs::directory_iterator()));
    }
};
}  // namespace

TEST(PrepareFilePath, CreatesTheDirectoriesBeforeTheLastSlashOnly) {
    Scratch s;
    EXPECT_TRUE(prepareFilePath((s.root / "a/b/c.txt").string()));
    EXPECT_TRUE(fs::is_directory(s.root / "a/b"));
    EXPECT_FALSE(fs::exists(s.root / "a/b/c.txt"));
    std::ofstream(s.root / "plain") << "x";
    EXPECT_FALSE(prepareFilePath((s.root / "plain/d/e").string()));
    EXPECT_EQ(openFileForPath((s.root / "plain/d/e").string(), "w"), nullptr);
}

TEST(FileWriter, WholeFilesOnlyAndNoTemporaryLeftBehind) {
    Scratch s;
    std::string path = (s.root / "dir/report.txt").string();
    {
        FileWriter w;
        ASSERT_TRUE(w.open(path));
        w.write("half");
        EXPECT_FALSE(fs::exists(path));  // not there until complete
        w.write(" and half");
        EXPECT_TRUE(w.commit());
    }
    EXPECT_EQ(readWholeFile(path), "half and half");
    {
        FileWriter w;
        ASSERT_TRUE(w.open(path, true));
        w.write("+more");
        EXPECT_TRUE(w.commit());
    }
    EXPECT_EQ(readWholeFile(path), "half and half+more");
    {
        FileWriter w;
        ASSERT_TRUE(w.open(path));
        w.write("abandoned");
    }  // never committed: the old file stays, the temporary goes
    EXPECT_EQ(readWholeFile(path), "half and half+more");
    EXPECT_EQ(s.entries(s.root / "dir"), 1u);

    fs::create_directories(s.root / "dir/taken.world");
    FileWriter blocked;
    EXPECT_FALSE(blocked.open((s.root / "dir/taken.world").string()));
    EXPECT_EQ(s.entries(s.root / "dir"), 2u);
}
