#include "platform/Files.h"

#include <cerrno>

#include "platform/SystemFiles.h"

namespace {
IFiles* g_filesInFront = nullptr;
}

int IFiles::ReadAt(int /*fd*/, int64_t /*offset*/, void* /*buffer*/, uint32_t /*size*/, uint32_t& got) {
    got = 0;
    return ENOSYS;
}

int IFiles::WriteAt(int /*fd*/, int64_t /*offset*/, const void* /*buffer*/, uint32_t /*size*/, uint32_t& put) {
    put = 0;
    return ENOSYS;
}

IFiles& Files() {
    return g_filesInFront != nullptr ? *g_filesInFront : SystemFiles();
}

IFiles* PutFilesInFront(IFiles* files) {
    IFiles* const before = g_filesInFront;
    g_filesInFront = files;
    return before;
}
