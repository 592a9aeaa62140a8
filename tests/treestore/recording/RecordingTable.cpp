#include <fstream>
#include <string>

#include "tests/support/RecordingTreeStore.h"

// The library itself; see tests/support/RecordingTreeStore.h.

namespace {

struct Table_t {
    std::string path;
    std::ofstream file;
};

bool EndsWith(const std::string& text, const std::string& end) {
    return text.size() >= end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

}  // namespace

extern "C" {

__attribute__((visibility("default"))) void* tsImageTableOpen(const char* path) {
    if (EndsWith(path, "refused"))
        return nullptr;
    return new Table_t{path, std::ofstream(path, std::ios::binary)};
}

__attribute__((visibility("default"))) int tsImageTableAdd(void* table, const MFTTreeEntry_t* entry) {
    if (std::string(entry->name) == "refused")
        return 5;
    static_cast<Table_t*>(table)->file << TreeLine(*entry);
    return 0;
}

__attribute__((visibility("default"))) int tsImageTableClose(void* table) {
    Table_t* const closed = static_cast<Table_t*>(table);
    const bool isRefused = EndsWith(closed->path, "unclosed");
    closed->file << TreeEndLine;
    delete closed;
    return isRefused ? 7 : 0;
}
}
