#pragma once

// What all say that asked for memory and got none.
constexpr char OutOfMemory[] = "Out of memory";
