#include "tests/support/FaultyFiles.h"

#include <algorithm>

CFaultyFiles::CFaultyFiles() : m_Before(PutFilesInFront(nullptr)), m_Behind(m_Before != nullptr ? *m_Before : Files()) {
    PutFilesInFront(this);
}

CFaultyFiles::CFaultyFiles(Fault_t fault)
    : m_Before(PutFilesInFront(nullptr)), m_Behind(m_Before != nullptr ? *m_Before : Files()), m_Fault(fault) {
    PutFilesInFront(this);
}

CFaultyFiles::~CFaultyFiles() {
    PutFilesInFront(m_Before);
}

void CFaultyFiles::LimitTransfers(FaultOp op, uint32_t sizeBytes) {
    m_Shortenings.push_back({op, std::nullopt, sizeBytes});
}

void CFaultyFiles::ShortenTransfer(FaultOp op, unsigned int call, uint32_t sizeBytes) {
    m_Shortenings.push_back({op, call, sizeBytes});
}

int CFaultyFiles::CountCall(FaultOp op) {
    const unsigned int call = m_Calls[Index(op)]++;
    if (!m_Fault || m_Fault->op != op || m_Fault->call != call)
        return 0;
    m_Fired = true;
    return m_Fault->error;
}

uint32_t CFaultyFiles::Shortened(FaultOp op, uint32_t size) const {
    const unsigned int call = m_Calls[Index(op)] - 1;
    for (const Shortening_t& shortening : m_Shortenings) {
        if (shortening.op == op && shortening.call.value_or(call) == call)
            size = std::min(size, shortening.sizeBytes);
    }
    return size;
}

int CFaultyFiles::Open(const char* name, int flags, int mode, int& fd) {
    const int error = CountCall(FaultOp::Open);
    return error != 0 ? error : m_Behind.Open(name, flags, mode, fd);
}

int CFaultyFiles::Read(int fd, void* buffer, uint32_t size, uint32_t& got) {
    m_Sizes[Index(FaultOp::Read)].push_back(size);
    const int error = CountCall(FaultOp::Read);
    const uint32_t allowed = Shortened(FaultOp::Read, size);
    got = 0;
    if (error != 0 || (allowed == 0 && size != 0))
        return error;
    return m_Behind.Read(fd, buffer, allowed, got);
}

int CFaultyFiles::Write(int fd, const void* buffer, uint32_t size, uint32_t& put) {
    m_Sizes[Index(FaultOp::Write)].push_back(size);
    const int error = CountCall(FaultOp::Write);
    const uint32_t allowed = Shortened(FaultOp::Write, size);
    put = 0;
    if (error != 0 || (allowed == 0 && size != 0))
        return error;
    return m_Behind.Write(fd, buffer, allowed, put);
}

int CFaultyFiles::Seek(int fd, int64_t offset, int whence, int64_t& position) {
    m_Seeks.push_back({offset, whence});
    const int error = CountCall(FaultOp::Seek);
    return error != 0 ? error : m_Behind.Seek(fd, offset, whence, position);
}

int CFaultyFiles::Size(int fd, uint64_t& sizeBytes) {
    const int error = CountCall(FaultOp::Size);
    return error != 0 ? error : m_Behind.Size(fd, sizeBytes);
}

int CFaultyFiles::Truncate(int fd, int64_t sizeBytes) {
    const int error = CountCall(FaultOp::Truncate);
    return error != 0 ? error : m_Behind.Truncate(fd, sizeBytes);
}

int CFaultyFiles::Sync(int fd) {
    const int error = CountCall(FaultOp::Sync);
    return error != 0 ? error : m_Behind.Sync(fd);
}

// A failed close lets go of the file all the same, as the system does.
int CFaultyFiles::Close(int fd) {
    const int error = CountCall(FaultOp::Close);
    const int closed = m_Behind.Close(fd);
    return error != 0 ? error : closed;
}
