// Without libFuzzer, a fuzz target is a program that replays the files (or
// the files inside the directories) named on its command line.

#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace fs = std::filesystem;

static int replay(const fs::path& file) {
    std::ifstream in(file, std::ios::binary);
    std::vector<char> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
    return 1;
}

int main(int argc, char** argv) {
    int count = 0;
    for (int i = 1; i < argc; ++i) {
        fs::path p(argv[i]);
        if (fs::is_directory(p)) {
            for (const auto& entry : fs::recursive_directory_iterator(p))
                if (entry.is_regular_file()) count += replay(entry.path());
        } else if (fs::exists(p)) {
            count += replay(p);
        }
    }
    std::printf("replayed %d inputs\n", count);
    return 0;
}
