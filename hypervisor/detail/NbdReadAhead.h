#pragma once

#include <cstdint>
#include <deque>
#include <memory>
#include <vector>

#include "foundation/AutoMemory.h"
#include "hypervisor/detail/NbdConnection.h"

// A stretch of an export that is going to be read, in bytes.
struct NbdRange_t {
    uint64_t start = 0;
    uint64_t end = 0;  // behind it
};

// Reads an export for a caller that mostly reads on. From the second read that lies behind the one before, large
// requests are on their way for what comes next, so that neither side waits for the other.
class CNbdReadAhead {
public:
    // The connection stays the caller's, and goes before this: requests on their way write into buffers of this.
    explicit CNbdReadAhead(CNbdConnection& connection) : m_Connection(connection) {}

    // What will be read, in ascending order; the rest isn't read ahead. Without it everything is.
    void Expect(std::vector<NbdRange_t> ranges);

    // `offset` and `size` keep to what the connection says of requests.
    bool Read(uint64_t offset, char* buffer, uint32_t size);

private:
    struct Piece_t {
        uint64_t offset = 0;
        uint32_t size = 0;
        bool isThere = false;
        CNbdConnection::Request_t request;
        CAutoMemory<char> bytes;

        uint64_t End() const { return offset + size; }
    };

    bool DropUpTo(uint64_t offset);
    void PutAwayFirst();
    void FillUp(uint64_t from);
    bool FindNext(uint64_t from, uint64_t& offset);
    bool Start(uint64_t offset);
    bool Finish(Piece_t& piece);

    CNbdConnection& m_Connection;
    std::deque<std::unique_ptr<Piece_t>> m_Pieces;  // by offset
    std::vector<std::unique_ptr<Piece_t>> m_Spare;
    std::vector<NbdRange_t> m_Expected;
    size_t m_NextExpected = 0;
    bool m_HasExpectation = false;
    uint64_t m_End = 0;  // of the last read
    unsigned m_ForwardReads = 0;
};
