#pragma once

#include <cstdint>
#include <string>

#include "archive/CreateMFTTree.h"

// A directory tree library of the tests' own, which the core loads in the place of the real one: it keeps a table as a
// file of text, a line for each file, and a line at the end when the table is closed.
//
// A table whose path ends in "refused" doesn't open, a file named "refused" isn't taken, and a table whose path ends in
// "unclosed" fails when it is closed.

// The line of a file.
std::string TreeLine(const MFTTreeEntry_t& entry);

constexpr char TreeEndLine[] = "closed\n";
