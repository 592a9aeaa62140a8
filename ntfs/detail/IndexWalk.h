#pragma once

#include <cstdint>
#include <limits>

#include "foundation/detail/ByteView.h"
#include "ntfs/NtfsResults.h"
#include "ntfs/detail/NtfsFormat.h"

// What every entry of an index begins with.
struct NtfsIndexEntryHead_t {
    Le64_t reference;  //  0  of a directory's entry
    Le16_t length;     //  8
    Le16_t keyLength;  // 10
    Le16_t flags;      // 12  IndexEntryHasSubNode, IndexEntryLast
    Le16_t reserved;   // 14
};
static_assert(sizeof(NtfsIndexEntryHead_t) == 16);

// The size of a node whose owner vouches for its last entry.
constexpr uint64_t UnknownNodeBytes = std::numeric_limits<uint32_t>::max();

// Walks the entries of one index node, given from its index header on. Each step moves forward by an entry's head at
// least.
class CIndexWalk {
public:
    explicit CIndexWalk(CByteView node) : m_Node(node) {}

    // NtfsOk with the entry's place and head; NtfsIndexNotFound behind the last one; NtfsIndexCorrupted for an entry
    // that leaves the node.
    int Next(uint64_t& offset, NtfsIndexEntryHead_t& head) {
        if (!m_IsStarted) {
            NtfsIndexHeader_t header{};
            if (!m_Node.Get(0, header.firstEntry))
                return NtfsIndexCorrupted;
            m_At = header.firstEntry;
            m_IsStarted = true;
        }
        if (!m_Node.Get(m_At, head) || (head.flags & IndexEntryLast) != 0)
            return NtfsIndexNotFound;
        if (head.length < sizeof(head) || !m_Node.Holds(m_At, head.length))
            return NtfsIndexCorrupted;
        offset = m_At;
        m_At += head.length;
        return NtfsOk;
    }

private:
    CByteView m_Node;
    uint64_t m_At = 0;
    bool m_IsStarted = false;
};
