#pragma once

#include <cstddef>
#include <cstdint>

#include "platform/Export.h"
#include "platform/SharedLibrary.h"

// What the directory tree library is given for each file. It shares this layout. Times are seconds since 1970.
struct MFTTreeEntry_t {
    uint64_t parentFrn = 0;       //  0
    uint64_t frn = 0;             //  8
    uint64_t sizeBytes = 0;       // 16
    uint32_t writeTime = 0;       // 24
    uint32_t fileAttributes = 0;  // 28
    uint32_t accessTime = 0;      // 32
    uint32_t creationTime = 0;    // 36
    uint8_t isDirectory = 0;      // 40
    char name[1047] = {};         // 41  UTF-8, ended by 0
};
static_assert(sizeof(MFTTreeEntry_t) == 1088 && offsetof(MFTTreeEntry_t, name) == 41);

// Hands the files of a volume to the library that keeps directory trees, which is loaded when it is needed: who makes
// no trees does without it. See docs/treestore.md for the calls that the library has to offer.
//
// `Init`, `Open`, `Add` for each file, `Close`. One table at a time, one thread.
class DISKSTREAM_EXPORT CCreateMFTTree {
public:
    CCreateMFTTree() = default;
    CCreateMFTTree(const CCreateMFTTree&) = delete;
    CCreateMFTTree& operator=(const CCreateMFTTree&) = delete;
    ~CCreateMFTTree();

    // Loads the library unless that is done. Answers 0 or the system's error number; a later call tries again.
    unsigned long Init();

    // Closes an open table and opens one at `path`. 1 when the library can't.
    int Open(char* path);

    // 1 when the library refuses the file, and for a name of more than 1046 bytes. The first form leaves attributes and
    // the two other times as they were in the call before.
    int Add(uint64_t parent, uint64_t frn, uint64_t size, unsigned int writeTime, unsigned char isDirectory,
            char* name);
    int Add(uint64_t parent, uint64_t frn, uint64_t size, unsigned int writeTime, unsigned char isDirectory, char* name,
            unsigned long attributes, unsigned long accessTime, unsigned long creationTime);

    // 1 when the library failed; the table is closed in any case.
    int Close();

private:
    using OpenCall_t = void* (*)(const char* path);
    using AddCall_t = int (*)(void* table, const MFTTreeEntry_t* entry);
    using CloseCall_t = int (*)(void* table);

    unsigned long Bind();

    MFTTreeEntry_t m_Entry;
    void* m_Table = nullptr;
    CSharedLibrary m_Library;
    OpenCall_t m_Open = nullptr;
    AddCall_t m_Add = nullptr;
    CloseCall_t m_Close = nullptr;
};
