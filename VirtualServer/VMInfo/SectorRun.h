#pragma once

#include <cstdint>

class CVmdkVcb4ExtentReader;
class CZuFile;

// How far one answer holds from a sector on: so many sectors are kept one behind the other, or none
// of so many is kept. It spares callers that read on to ask for each sector anew.
struct SectorRun_t {
    uint64_t sectors = 0;     // at least 1
    CZuFile* file = nullptr;  // the reader's own, which holds the run; null where nothing does
    uint64_t fileOffset = 0;  // bytes; where the run lies in the file, or on the server's disk

    CVmdkVcb4ExtentReader* server = nullptr;  // the reader to ask where a hypervisor holds the run and no file

    bool IsHeld() const { return file != nullptr || server != nullptr; }
};
