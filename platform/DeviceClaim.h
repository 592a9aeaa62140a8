#pragma once

#include <string>

#include "platform/Export.h"

// Keeps others from using a block device as long as the object lives: what is mounted, or claimed by
// somebody else, can't be claimed.
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
