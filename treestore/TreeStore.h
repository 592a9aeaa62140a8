#pragma once

#include <stdint.h>

// The directory tree library: keeps the files of one volume in a table, here an SQLite database. It is loaded at run
// time by who makes such tables, so that another library with the same three calls can take its place. Plain C, so that
// it can be written in anything. See docs/treestore.md.

#ifdef __cplusplus
extern "C" {
#endif

// One file. Times are seconds since 1970. 1088 bytes, without gaps.
struct TreeStoreEntry_t {
    uint64_t parentFrn;
    uint64_t frn;
    uint64_t sizeBytes;
    uint32_t writeTime;
    uint32_t fileAttributes;
    uint32_t accessTime;
    uint32_t creationTime;
    uint8_t isDirectory;
    char name[1047];  // UTF-8, ended by 0
};

// Opens the table at `path` for writing and empties it. What stood there stays until the table is closed with success.
// Null when that can't be done.
void* tsImageTableOpen(const char* path);

// Adds a file; one of the same FRN takes the place of an earlier one. Nonzero when it can't be kept, or one before
// couldn't: nothing will be then.
int tsImageTableAdd(void* table, const struct TreeStoreEntry_t* entry);

// Closes the table, whose files are on the medium then. Nonzero when they aren't: the table is as it was before.
int tsImageTableClose(void* table);

#ifdef __cplusplus
}
#endif
