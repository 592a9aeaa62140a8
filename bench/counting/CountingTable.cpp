// A directory tree library that only counts: what a collection takes with it is the collection's own. A table is a file
// of text with the number of files.
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "archive/CreateMFTTree.h"

namespace {

struct Table_t {
    std::FILE* file;
    uint64_t files;
    uint64_t nameBytes;
};

}  // namespace

extern "C" {

__attribute__((visibility("default"))) void* tsImageTableOpen(const char* path) {
    std::FILE* const file = std::fopen(path, "w");
    return file != nullptr ? new Table_t{file, 0, 0} : nullptr;
}

__attribute__((visibility("default"))) int tsImageTableAdd(void* table, const MFTTreeEntry_t* entry) {
    Table_t* const counted = static_cast<Table_t*>(table);
    ++counted->files;
    counted->nameBytes += std::strlen(entry->name);
    return 0;
}

__attribute__((visibility("default"))) int tsImageTableClose(void* table) {
    Table_t* const counted = static_cast<Table_t*>(table);
    const bool isWritten = std::fprintf(counted->file, "%ju files, %ju bytes of names\n", uintmax_t{counted->files},
                                        uintmax_t{counted->nameBytes}) > 0;
    const bool isClosed = std::fclose(counted->file) == 0;
    delete counted;
    return isWritten && isClosed ? 0 : 1;
}
}
