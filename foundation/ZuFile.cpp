#include "foundation/ZuFile.h"

#include <cerrno>

#include "foundation/ZuString.h"
#include "foundation/detail/ErrorHandling.h"

namespace {
constexpr int NoDescriptor = -1;
}

struct CZuFile::Shared_t {
    Shared_t(const char* openedName, int openedFd) : name(openedName), fd(openedFd) {}
    Shared_t(const Shared_t&) = delete;
    Shared_t& operator=(const Shared_t&) = delete;
    ~Shared_t() { Close(); }

    int Close() {
        if (fd == NoDescriptor)
            return 0;
        const int closing = fd;
        fd = NoDescriptor;
        return Files().Close(closing);
    }

    int Seek(int64_t offset, int whence, int64_t& position) {
        if (whence == FromStart && offset >= 0 && Files().IsPositional()) {
            ownPosition = offset;
            position = offset;
            return 0;
        }
        const int error = GiveSystemThePosition();
        return error != 0 ? error : Files().Seek(fd, offset, whence, position);
    }

    int Read(void* buffer, uint32_t size, uint32_t& got) {
        if (ownPosition == SystemHasIt)
            return Files().Read(fd, buffer, size, got);
        const int error = Files().ReadAt(fd, ownPosition, buffer, size, got);
        ownPosition += got;
        return error;
    }

    int Write(const void* buffer, uint32_t size, uint32_t& put) {
        if (ownPosition == SystemHasIt)
            return Files().Write(fd, buffer, size, put);
        const int error = Files().WriteAt(fd, ownPosition, buffer, size, put);
        ownPosition += put;
        return error;
    }

    int GiveSystemThePosition() {
        if (ownPosition == SystemHasIt || fd == NoDescriptor)
            return 0;
        int64_t reached = 0;
        const int error = Files().Seek(fd, ownPosition, FromStart, reached);
        ownPosition = SystemHasIt;
        return error;
    }

    static constexpr int FromStart = 0;
    static constexpr int64_t SystemHasIt = -1;

    std::string name;
    int fd;
    // Most transfers follow a seek from the start, and a call that names its place does for both.
    // So such a seek is only noted here, where all copies of the object see it.
    int64_t ownPosition = SystemHasIt;
};

CZuError CZuFile::Open(const char* name, int flags, int mode) {
    m_Shared.reset();
    if (name == nullptr)
        return SystemFailure(EINVAL);
    int fd = NoDescriptor;
    const int error = Files().Open(name, flags, mode, fd);
    if (error == 0)
        m_Shared = std::make_shared<Shared_t>(name, fd);
    return SystemFailure(error);
}

CZuError CZuFile::Close() {
    if (m_Shared == nullptr)
        return CZuError();
    const CZuError error = SystemFailure(m_Shared->Close());
    m_Shared.reset();
    return error;
}

bool CZuFile::IsValid() const {
    return m_Shared != nullptr && m_Shared->fd != NoDescriptor;
}

int CZuFile::GetFD() const {
    if (!IsValid())
        return NoDescriptor;
    m_Shared->GiveSystemThePosition();  // a failure shows itself in what is done with the descriptor
    return m_Shared->fd;
}

const char* CZuFile::GetName() const {
    return m_Shared != nullptr ? m_Shared->name.c_str() : "";
}

CZuError CZuFile::Read(void* buffer, unsigned int size, unsigned int* got) {
    uint32_t count = 0;
    const int error = IsValid() ? m_Shared->Read(buffer, size, count) : EBADF;
    if (got != nullptr)
        *got = count;
    if (error != 0)
        return SystemFailure(error);
    if (count == 0 && size != 0)
        return Refusal(CZuString::Format("The end of file {1} is reached", GetName()));
    return CZuError();
}

CZuError CZuFile::Write(const void* buffer, unsigned int size, unsigned int* put) {
    uint32_t count = 0;
    const int error = IsValid() ? m_Shared->Write(buffer, size, count) : EBADF;
    if (put != nullptr)
        *put = count;
    if (error != 0)
        return SystemFailure(error);
    if (count == 0 && size != 0)
        return Refusal(CZuString::Format("File {1} takes no more data", GetName()));
    return CZuError();
}

CZuError CZuFile::Seek(int64_t offset, int whence, int64_t* newPosition) {
    int64_t position = 0;
    const int error = IsValid() ? m_Shared->Seek(offset, whence, position) : EBADF;
    if (error == 0 && newPosition != nullptr)
        *newPosition = position;
    return SystemFailure(error);
}

CZuError CZuFile::Size(uint64_t& size) const {
    return SystemFailure(IsValid() ? Files().Size(m_Shared->fd, size) : EBADF);
}

CZuError CZuFile::Truncate(int64_t size) {
    return SystemFailure(IsValid() ? Files().Truncate(m_Shared->fd, size) : EBADF);
}

CZuError CZuFile::Sync() {
    return SystemFailure(IsValid() ? Files().Sync(m_Shared->fd) : EBADF);
}

void CZuFile::BeginSync(int64_t offset) {
    if (IsValid())
        Files().BeginSync(m_Shared->fd, offset);
}
