#include "tests/support/RecordingTreeStore.h"

std::string TreeLine(const MFTTreeEntry_t& entry) {
    std::string line;
    for (const uint64_t number :
         {entry.parentFrn, entry.frn, entry.sizeBytes, uint64_t{entry.writeTime}, uint64_t{entry.fileAttributes},
          uint64_t{entry.accessTime}, uint64_t{entry.creationTime}, uint64_t{entry.isDirectory}})
        line += std::to_string(number) + " ";
    return line + entry.name + "\n";
}
