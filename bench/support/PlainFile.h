#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "bench/support/BenchFiles.h"

// The same bytes by plain calls, in the same order, with one buffer. It begins at a page: copies to
// a few bytes behind a page's beginning, where large blocks of malloc lie, are several times as slow
// on some processors, and the peer is the best that plain calls can do.
class CPlainFile {
public:
    CPlainFile(const std::string& path, int flags) : m_Fd(open(path.c_str(), flags | O_CLOEXEC, 0600)) {}
    CPlainFile(const CPlainFile&) = delete;
    CPlainFile& operator=(const CPlainFile&) = delete;
    ~CPlainFile() { close(m_Fd); }

    bool Read(const std::vector<FileRange_t>& ranges) { return ForEach(ranges, pread); }
    bool Write(const std::vector<FileRange_t>& ranges) { return ForEach(ranges, pwrite); }

private:
    static constexpr size_t PageBytes = 4096;

    template <typename Call> bool ForEach(const std::vector<FileRange_t>& ranges, Call call) {
        return std::all_of(ranges.begin(), ranges.end(), [&](const FileRange_t& range) {
            const auto offset = static_cast<off_t>(range.offset);
            return call(m_Fd, Buffer(range.size), range.size, offset) == static_cast<ssize_t>(range.size);
        });
    }

    char* Buffer(size_t size) {
        if (m_Memory.size() < size + PageBytes)
            m_Memory.resize(size + PageBytes, 'P');
        void* start = m_Memory.data();
        size_t room = m_Memory.size();
        return static_cast<char*>(std::align(PageBytes, size, start, room));
    }

    const int m_Fd;
    std::vector<char> m_Memory;
};
