#pragma once

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <limits>
#include <map>
#include <memory>
#include <string>
#include <unordered_map>

#include "platform/Files.h"

// The bytes of one file, kept by the page: what was never written is a hole that costs nothing, so
// that a file of terabytes with a few tables in it is as cheap as its tables.
class CMemoryFile {
public:
    uint64_t Size() const { return m_Size; }
    void SetSize(uint64_t sizeBytes) {
        for (auto page = m_Pages.begin(); page != m_Pages.end();)
            page = page->first * PageBytes >= sizeBytes ? m_Pages.erase(page) : std::next(page);
        if (const auto last = m_Pages.find(sizeBytes / PageBytes); last != m_Pages.end())
            std::fill(last->second.begin() + static_cast<ptrdiff_t>(sizeBytes % PageBytes), last->second.end(), '\0');
        m_Size = sizeBytes;
    }

    // Returns the bytes read, fewer than asked for at the end of the file alone.
    uint64_t ReadAt(uint64_t offset, void* buffer, uint64_t size) const {
        const uint64_t count = offset < m_Size ? std::min(size, m_Size - offset) : 0;
        char* const target = static_cast<char*>(buffer);
        EachPiece(offset, count, [&](uint64_t page, uint64_t inPage, uint64_t done, uint64_t piece) {
            const auto found = m_Pages.find(page);
            if (found == m_Pages.end())
                std::memset(target + done, 0, piece);
            else
                std::memcpy(target + done, found->second.data() + inPage, piece);
        });
        return count;
    }

    // `offset` plus `size` is below 2^63.
    void WriteAt(uint64_t offset, const void* buffer, uint64_t size) {
        const char* const source = static_cast<const char*>(buffer);
        EachPiece(offset, size, [&](uint64_t page, uint64_t inPage, uint64_t done, uint64_t piece) {
            std::memcpy(m_Pages[page].data() + inPage, source + done, piece);  // a new page is all zeros
        });
        if (size != 0)
            m_Size = std::max(m_Size, offset + size);
    }

private:
    static constexpr uint64_t PageBytes = 4096;

    template <typename Step> static void EachPiece(uint64_t offset, uint64_t size, Step step) {
        for (uint64_t done = 0; done < size;) {
            const uint64_t inPage = (offset + done) % PageBytes;
            const uint64_t piece = std::min(size - done, PageBytes - inPage);
            step((offset + done) / PageBytes, inPage, done, piece);
            done += piece;
        }
    }

    uint64_t m_Size = 0;
    std::unordered_map<uint64_t, std::array<char, PageBytes>> m_Pages;
};

// Files that live in memory, in front of the machine's own for as long as the object lives. A name
// that was neither put nor created doesn't exist, so that no input reaches the disk.
class CMemoryFiles final : public IFiles {
public:
    CMemoryFiles() : m_Before(PutFilesInFront(this)) {}
    ~CMemoryFiles() override { PutFilesInFront(m_Before); }

    // Makes `name` a file of `bytes` with a hole of `holeBytes` behind them.
    void Put(const std::string& name, const void* bytes, size_t size, uint64_t holeBytes = 0) {
        CMemoryFile& file = Renew(name);
        file.WriteAt(0, bytes, size);
        file.SetSize(size + holeBytes);
    }

    // The file put or created, null for none.
    const CMemoryFile* Find(const std::string& name) const {
        const auto found = m_Files.find(WithSlashes(name));
        return found != m_Files.end() ? found->second.get() : nullptr;
    }

    // Serves every name that isn't there with the bytes of `name`.
    void ServeAnyNameWith(const std::string& name) { m_Fallback = WithSlashes(name); }

    size_t OpenCount() const { return m_Open.size(); }

    int Open(const char* name, int flags, int /*mode*/, int& fd) override {
        auto found = m_Files.find(WithSlashes(name));
        if (found == m_Files.end() && (flags & OpenCreating) != 0)
            found = m_Files.emplace(WithSlashes(name), std::make_shared<CMemoryFile>()).first;
        if (found == m_Files.end())
            found = m_Files.find(m_Fallback);
        if (found == m_Files.end())
            return ENOENT;
        if ((flags & OpenTruncating) != 0)
            found->second->SetSize(0);
        fd = m_NextFd++;
        m_Open.emplace(fd, OpenFile_t{found->second, flags, 0});
        return 0;
    }

    int Read(int fd, void* buffer, uint32_t size, uint32_t& got) override {
        got = 0;
        OpenFile_t* const open = OpenedAs(fd);
        if (open == nullptr || IsForWritingAlone(open->flags))
            return EBADF;
        got = static_cast<uint32_t>(open->file->ReadAt(open->position, buffer, size));
        open->position += got;
        return 0;
    }

    int Write(int fd, const void* buffer, uint32_t size, uint32_t& put) override {
        put = 0;
        OpenFile_t* const open = OpenedAs(fd);
        if (open == nullptr || (open->flags & (OpenForWriting | OpenForBoth)) == 0)
            return EBADF;
        if (size > LargestPosition - open->position)
            return EFBIG;
        open->file->WriteAt(open->position, buffer, size);
        open->position += size;
        put = size;
        return 0;
    }

    int Seek(int fd, int64_t offset, int whence, int64_t& position) override {
        OpenFile_t* const open = OpenedAs(fd);
        if (open == nullptr)
            return EBADF;
        const uint64_t bases[] = {0, open->position, open->file->Size()};
        int64_t reached = 0;
        if (whence < 0 || whence > 2 || __builtin_add_overflow(static_cast<int64_t>(bases[whence]), offset, &reached) ||
            reached < 0)
            return EINVAL;
        open->position = static_cast<uint64_t>(reached);
        position = reached;
        return 0;
    }

    int Size(int fd, uint64_t& sizeBytes) override {
        const OpenFile_t* const open = OpenedAs(fd);
        if (open == nullptr)
            return EBADF;
        sizeBytes = open->file->Size();
        return 0;
    }

    int Truncate(int fd, int64_t sizeBytes) override {
        const OpenFile_t* const open = OpenedAs(fd);
        if (open == nullptr)
            return EBADF;
        if (sizeBytes < 0)
            return EINVAL;
        open->file->SetSize(static_cast<uint64_t>(sizeBytes));
        return 0;
    }

    int Sync(int fd) override { return OpenedAs(fd) != nullptr ? 0 : EBADF; }
    int Close(int fd) override { return m_Open.erase(fd) != 0 ? 0 : EBADF; }

private:
    static constexpr uint64_t LargestPosition = std::numeric_limits<int64_t>::max();

    struct OpenFile_t {
        std::shared_ptr<CMemoryFile> file;
        int flags;
        uint64_t position;
    };

    static std::string WithSlashes(std::string name) {
        std::replace(name.begin(), name.end(), '\\', '/');
        return name;
    }

    static bool IsForWritingAlone(int flags) { return (flags & (OpenForWriting | OpenForBoth)) == OpenForWriting; }

    CMemoryFile& Renew(const std::string& name) {
        auto& file = m_Files[WithSlashes(name)];
        file = std::make_shared<CMemoryFile>();
        return *file;
    }

    OpenFile_t* OpenedAs(int fd) {
        const auto found = m_Open.find(fd);
        return found != m_Open.end() ? &found->second : nullptr;
    }

    IFiles* const m_Before;
    int m_NextFd = 3;
    std::string m_Fallback;
    std::map<std::string, std::shared_ptr<CMemoryFile>> m_Files;
    std::unordered_map<int, OpenFile_t> m_Open;
};
