#pragma once

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <string>

// Puts something else in the place of files that the process has open, under their own descriptors, so that what was
// opened soundly fails later: a folder, which can't be read, or a pipe, in which there are no positions.

// Returns the number of descriptors that were of the file `path`.
inline int SwapOpenFile(const std::string& path, int other) {
    int swapped = 0;
    DIR* const descriptors = opendir("/proc/self/fd");
    for (const dirent* entry = nullptr; (entry = readdir(descriptors)) != nullptr;) {
        const int fd = std::atoi(entry->d_name);
        std::error_code error;
        const std::filesystem::path target =
            std::filesystem::read_symlink("/proc/self/fd/" + std::string(entry->d_name), error);
        if (error || target != path || fd == dirfd(descriptors))
            continue;
        dup2(other, fd);
        ++swapped;
    }
    closedir(descriptors);
    return swapped;
}

inline int SwapOpenFileForFolder(const std::string& path) {
    const int folder = open("/", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    const int swapped = SwapOpenFile(path, folder);
    close(folder);
    return swapped;
}

inline int SwapOpenFileForPipe(const std::string& path) {
    int ends[2];
    if (pipe(ends) != 0)
        return 0;
    const int swapped = SwapOpenFile(path, ends[0]);
    close(ends[0]);
    close(ends[1]);
    return swapped;
}
