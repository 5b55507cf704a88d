#pragma once
// Every file the server opens lies under the data root and goes through
// prepareFilePath, which creates the missing directories of the path first.

#include <cstdio>
#include <string>
#include <vector>
#include <string_view>

// "./" or "../": the directory that holds server_data.
const std::string& dataRootPrefix();
void setDataRootPrefix(std::string prefix);
// Picks "./" when ./server_data is a directory, else "../" when
// ../server_data is one, else leaves the prefix as it is.
// Returns false (with a message in errorText) when a status query fails
// for a reason other than a missing path.
bool chooseDataRoot(std::string& errorText);

// Creates every missing directory of the part of path up to its last '/'.
// Returns false when they cannot be created.
bool prepareFilePath(const std::string& path);
// prepareFilePath, then fopen; nullptr when either fails.
std::FILE* openFileForPath(const std::string& path, const char* mode);
// A configuration file's text, at most maxBytes of it; false when it cannot
// be opened.
bool readSmallTextFile(const std::string& path, std::size_t maxBytes, std::string& text);

// A file written under a temporary name in its directory and renamed into
// place when complete, so that nobody ever reads half of it, even after a
// crash. The rename replaces an existing file.
class FileWriter {
public:
    FileWriter() = default;
    ~FileWriter();
    FileWriter(const FileWriter&) = delete;
    FileWriter& operator=(const FileWriter&) = delete;

    // prepareFilePath, then a temporary file beside path. False when the
    // directories or the temporary file cannot be made, or when a directory
    // stands where the file should go.
    bool open(const std::string& path);
    void write(const void* data, std::size_t size);
    void write(const std::string& text) { write(text.data(), text.size()); }
    // Flushes, syncs, closes and renames into place; false (and the
    // temporary file removed) when any of that, or any write, failed.
    bool commit();

private:
    bool commitFile();
    std::string path_;
    std::string temp_;
    std::FILE* file_ = nullptr;
    bool failed_ = false;
};

// Appends text to path (created when missing) and syncs it; false when that
// could not be done whole, in which case nothing of text stays in the file.
bool appendToFile(const std::string& path, std::string_view text);
// Commits and appends that failed since the start.
std::uint64_t diskWriteFailures();

// Removes, under directory, the temporary files of FileWriters that a crash
// left behind; returns how many. The subdirectories named in skip (the
// operator's own files, which the server never writes) are not entered.
std::size_t removeLeftoverTemporaries(const std::string& directory, const std::vector<std::string>& skip = {});
