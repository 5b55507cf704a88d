// Writes the synthetic match of the tests (three players, a stall, delay
// changes, a desync, a disconnection) to a file: something to render when
// no server recording is at hand.
#include <cstdio>
#include <fstream>

#include "synthetic.h"

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "Usage: replay_sample FILE\n");
        return 2;
    }
    const Bytes bytes = synthetic::forcedDesync().bytes();
    std::ofstream out(argv[1], std::ios::binary);
    out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    return out ? 0 : 1;
}
