#pragma once

#include <cstdint>
#include <functional>

// How far a long operation is, told after each MiB or so.
struct Progress_t {
    uint64_t doneBytes = 0;
    uint64_t totalBytes = 0;  // 0 while nobody knows
};

// Gets each step of a long operation, on the thread that started it; false cancels the operation,
// which then ends with an error and leaves nothing behind. May be empty.
using ProgressCallback_t = std::function<bool(const Progress_t&)>;
