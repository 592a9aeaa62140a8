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

    std::string name;
    int fd;
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
    return GetFD() != NoDescriptor;
}

int CZuFile::GetFD() const {
    return m_Shared != nullptr ? m_Shared->fd : NoDescriptor;
}

const char* CZuFile::GetName() const {
    return m_Shared != nullptr ? m_Shared->name.c_str() : "";
}

CZuError CZuFile::Read(void* buffer, unsigned int size, unsigned int* got) {
    uint32_t count = 0;
    const int error = IsValid() ? Files().Read(GetFD(), buffer, size, count) : EBADF;
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
    const int error = IsValid() ? Files().Write(GetFD(), buffer, size, count) : EBADF;
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
    const int error = IsValid() ? Files().Seek(GetFD(), offset, whence, position) : EBADF;
    if (error == 0 && newPosition != nullptr)
        *newPosition = position;
    return SystemFailure(error);
}

CZuError CZuFile::Size(uint64_t& size) const {
    return SystemFailure(IsValid() ? Files().Size(GetFD(), size) : EBADF);
}

CZuError CZuFile::Truncate(int64_t size) {
    return SystemFailure(IsValid() ? Files().Truncate(GetFD(), size) : EBADF);
}

CZuError CZuFile::Sync() {
    return SystemFailure(IsValid() ? Files().Sync(GetFD()) : EBADF);
}
