#include "platform/Files.h"

#include "platform/SystemFiles.h"

namespace {
IFiles* g_filesInFront = nullptr;
}

IFiles& Files() {
    return g_filesInFront != nullptr ? *g_filesInFront : SystemFiles();
}

IFiles* PutFilesInFront(IFiles* files) {
    IFiles* const before = g_filesInFront;
    g_filesInFront = files;
    return before;
}
