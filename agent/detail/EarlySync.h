#pragma once

#include <cstdint>
#include <string>

#include "foundation/ZuError.h"
#include "foundation/ZuFile.h"

// Lets a file that grows go to its medium a stretch at a time, while more of it is made: little is left to wait for at
// the end, when all of it has to be there.
class CEarlySync {
public:
    void Begin(const CZuFile& file) {
        m_File = file;
        m_Written = 0;
        m_Begun = 0;
    }

    // A file that others write.
    CZuError Begin(const std::string& name);

    // So many bytes more were written, behind the others or nearly so.
    void Count(uint64_t bytes);

    void End();

private:
    CZuFile m_File;
    uint64_t m_Written = 0;
    uint64_t m_Begun = 0;  // the stretches in front of it are on their way
};
