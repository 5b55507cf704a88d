// lockstep-replay: reads the recording of a match that lockstep-server wrote with
// --record. Exit status: 0 the file ends after a whole record, 1 it is cut
// short or damaged (what could be read was used), 2 it is not a recording
// this tool can read, or the arguments are wrong.

#include <cstdio>
#include <fstream>
#include <iostream>
#include <iterator>
#include <string>

#include <CLI/CLI.hpp>

#include "replay.h"

namespace {

bool readFile(const std::string& path, Bytes& bytes) {
    std::ifstream in(path, std::ios::binary);
    if (!in) return false;
    bytes.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    return !in.bad();
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app{"Reads the recording of a match written by lockstep-server --record."};
    app.require_subcommand(1);
    std::string path;
    auto* show = app.add_subcommand("show", "Print the recording as text, one line per record");
    auto* check = app.add_subcommand("check", "Verify the framing and checksums; say where a damaged file ends");
    auto* desync = app.add_subcommand(
        "desync", "Name the first step whose checksums differ, the slots on each side, the orders before it "
                  "and the evidence files");
    auto* html = app.add_subcommand("html", "Write the match's timeline as one self-contained HTML page");
    for (CLI::App* command : {show, check, desync, html})
        command->add_option("FILE", path, "the recording")->required();
    app.footer("Exit status: 0 a whole file, 1 cut short or damaged (what is readable is used), "
               "2 not a recording or bad usage.");
    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp& e) {
        return app.exit(e);
    } catch (const CLI::CallForAllHelp& e) {
        return app.exit(e);
    } catch (const CLI::ParseError& e) {
        app.exit(e);
        return replay::kUnreadable;
    }

    Bytes file;
    if (!readFile(path, file)) {
        std::cerr << "lockstep-replay: cannot read " << path << "\n";
        return replay::kUnreadable;
    }
    if (show->parsed()) return replay::show(file, std::cout, std::cerr);
    if (check->parsed()) {
        std::cout << path << ": ";
        return replay::check(file, std::cout);
    }
    if (desync->parsed()) return replay::desync(file, path, std::cout, std::cerr);
    return replay::html(file, std::cout, std::cerr);
}
