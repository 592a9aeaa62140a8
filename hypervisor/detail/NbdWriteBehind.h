#pragma once

#include <cstdint>
#include <deque>
#include <memory>
#include <vector>

#include "foundation/AutoMemory.h"
#include "hypervisor/detail/NbdConnection.h"

// Writes an export without waiting for the server each time. What was given is gathered into large requests, and kept
// until the server has taken it, so that a connection that breaks loses none of it.
class CNbdWriteBehind {
public:
    // The connection stays the caller's, and goes before this: requests on their way read buffers of this.
    explicit CNbdWriteBehind(CNbdConnection& connection) : m_Connection(connection) {}

    // Takes a copy of the bytes. The requests reach the server in no particular order, so what is written before the
    // next `Finish` must not overlap. False, too, when an earlier write failed.
    bool Write(uint64_t offset, const char* bytes, uint32_t size);

    // Returns when the server has taken everything. What failed is given up.
    bool Finish();

private:
    struct Piece_t {
        uint64_t offset = 0;
        uint32_t size = 0;
        CNbdConnection::Request_t request;
        CAutoMemory<char> bytes;

        uint64_t End() const { return offset + size; }
    };

    bool GatherFrom(uint64_t offset);
    void SendGathered();
    bool FinishFirst();

    CNbdConnection& m_Connection;
    std::unique_ptr<Piece_t> m_Gathered;  // not yet sent
    std::deque<std::unique_ptr<Piece_t>> m_OnTheirWay;
    std::vector<std::unique_ptr<Piece_t>> m_Spare;
};
