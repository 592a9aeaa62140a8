#pragma once

#include <string>

#include "platform/Export.h"

// Keeps others from using a block device, or from claiming a plain file, as long as the object lives: what is mounted,
// or claimed by somebody else, can't be claimed. A name is taken as `IFiles::Open` takes it.
class DISKSTREAM_EXPORT CDeviceClaim {
public:
    CDeviceClaim() = default;
    CDeviceClaim(const CDeviceClaim&) = delete;
    CDeviceClaim& operator=(const CDeviceClaim&) = delete;
    ~CDeviceClaim();

    // Answers 0 or the system's error number.
    int Take(const std::string& name);

private:
    int m_Fd = -1;
};

// True for a block device that is mounted, or that somebody else has for himself.
DISKSTREAM_EXPORT bool IsDeviceClaimed(const std::string& name);
