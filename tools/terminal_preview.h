// A picture in the terminal, by the best means that the terminal has: its graphics protocol, or coloured symbols.
#pragma once

#include "formats/picture.h"

#include <cstdio>
#include <string>

namespace fixture {

// What prints the picture on a terminal of `columns` x `rows` cells that the environment (TERM and others) describes,
// at most so large. Empty for a terminal without colours and where NO_COLOR is set. A program of its own makes it
// (machine/installation.h); empty as well where that is not installed.
std::string TerminalPreview(const Picture &picture, int columns, int rows, const char *const *environment);

// Prints the picture if `stream` is a terminal that can show it, else nothing.
void PrintPreview(std::FILE *stream, const Picture &picture);

} // namespace fixture
