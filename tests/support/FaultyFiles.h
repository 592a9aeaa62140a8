#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

#include "platform/Files.h"

enum class FaultOp { Open, Read, Write, Seek, Size, Truncate, Sync, Close };

// The call number `call` of `op`, counted from 0, fails with `error`, one of the system's numbers.
struct Fault_t {
    FaultOp op;
    unsigned int call;
    int error;
};

// Stands in front of the machine's files as long as it lives, counts what is asked of them, and
// makes calls fail or fall short. What it doesn't touch goes on to the files behind it.
//
//     for (unsigned int failAt = 0;; ++failAt) {
//         CFaultyFiles faulty(Fault_t{FaultOp::Read, failAt, EIO});
//         const CZuError error = WhatReadsAFile();
//         EXPECT_EQ(faulty.Fired(), error.IsErrorSet()) << "read " << failAt;
//         if (!faulty.Fired())
//             break;
//     }
class CFaultyFiles : public IFiles {
public:
    CFaultyFiles();  // counts, and lets everything through
    explicit CFaultyFiles(Fault_t fault);
    ~CFaultyFiles() override;

    // Every Read (or Write) moves at most `sizeBytes` bytes.
    void LimitTransfers(FaultOp op, uint32_t sizeBytes);

    // The Read (or Write) number `call`, counted from 0, moves at most `sizeBytes` bytes. With 0 it
    // succeeds and moves none.
    void ShortenTransfer(FaultOp op, unsigned int call, uint32_t sizeBytes);

    // True as soon as the fault was hit.
    bool Fired() const { return m_Fired; }

    // How many calls came, the failed one included.
    unsigned int Calls(FaultOp op) const { return m_Calls[Index(op)]; }

    // Of each Read or Write, the bytes that were asked for, in the order of the calls.
    const std::vector<uint32_t>& Sizes(FaultOp op) const { return m_Sizes[Index(op)]; }

    // What each Seek asked for, in the order of the calls.
    struct Seek_t {
        int64_t offset;
        int whence;
    };
    const std::vector<Seek_t>& Seeks() const { return m_Seeks; }

    int Open(const char* name, int flags, int mode, int& fd) override;
    int Read(int fd, void* buffer, uint32_t size, uint32_t& got) override;
    int Write(int fd, const void* buffer, uint32_t size, uint32_t& put) override;
    int Seek(int fd, int64_t offset, int whence, int64_t& position) override;
    int Size(int fd, uint64_t& sizeBytes) override;
    int Truncate(int fd, int64_t sizeBytes) override;
    int Sync(int fd) override;
    int Close(int fd) override;

private:
    struct Shortening_t {
        FaultOp op;
        std::optional<unsigned int> call;  // none for every call
        uint32_t sizeBytes;
    };

    static constexpr size_t OpCount = 8;
    static size_t Index(FaultOp op) { return static_cast<size_t>(op); }

    // Counts a call and answers with the fault's error, or 0.
    int CountCall(FaultOp op);
    // What the call just counted may move of `size` bytes.
    uint32_t Shortened(FaultOp op, uint32_t size) const;

    IFiles* const m_Before;  // what stood in front of the machine, null for nothing
    IFiles& m_Behind;
    const std::optional<Fault_t> m_Fault;
    std::vector<Shortening_t> m_Shortenings;
    std::array<unsigned int, OpCount> m_Calls{};
    std::array<std::vector<uint32_t>, OpCount> m_Sizes;
    std::vector<Seek_t> m_Seeks;
    bool m_Fired = false;
};
