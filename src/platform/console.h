#pragma once
// Console access on a POSIX system: single keys from standard input (a
// terminal in raw mode, or a pipe or file read byte by byte) and ANSI colour.

#include <cstdint>
#include <string>

bool stdoutIsTerminal();
// ANSI sequences equivalent to a console text attribute (foreground nibble:
// 1 blue, 2 green, 4 red, 8 bright).
std::string ansiColourStart(std::uint16_t attribute);
std::string ansiColourEnd();

// Puts a terminal on standard input into raw, no-echo mode; the previous
// settings come back through endConsoleKeys, at exit and on fatal signals.
void beginConsoleKeys();
void endConsoleKeys();
// The next waiting key, or -1 when none is waiting. Never blocks; the end of
// a piped input is remembered and only ever yields -1 afterwards.
int readConsoleKey();
// Standard input while keys are read from a terminal, so that a quiet loop
// can wait for a key with its other waits; -1 otherwise (a pipe or
// /dev/null would always read as ready).
int consoleKeysFd();
