#pragma once

#include <cstddef>

// Measures what `new` takes from the machine, in the whole program, from the object's making on.
// It can also play a machine without memory. One at a time, and no other threads beside it.
class CMemoryMeter {
public:
    CMemoryMeter();
    CMemoryMeter(const CMemoryMeter&) = delete;
    CMemoryMeter& operator=(const CMemoryMeter&) = delete;
    ~CMemoryMeter();

    // From now on an allocation of more than `sizeBytes` fails.
    void RefuseAbove(size_t sizeBytes);

    // The most that was in use at one time, above what was in use at the start.
    size_t PeakBytes() const;

    // What is in use now above that, 0 when it is less.
    size_t BytesInUse() const;

    // How many allocations there were.
    size_t Allocations() const;
};
