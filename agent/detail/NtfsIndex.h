#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <unordered_set>
#include <vector>

#include "agent/detail/NtfsMappedVolume.h"
#include "agent/detail/NtfsStream.h"
#include "foundation/ZuError.h"
#include "foundation/detail/ByteView.h"
#include "ntfs/detail/IndexWalk.h"

// One name in a directory.
struct NtfsIndexName_t {
    uint64_t frn = 0;
    uint16_t reuseCount = 0;  // of the file record, when the name was made; 0 for any
    std::u16string name;
    uint8_t kind = 0;  // 1 long, 2 short, 3 both, 0 POSIX
    uint32_t attributes = 0;
};

// False ends the walk.
using TakeNtfsName_t = std::function<bool(NtfsIndexName_t&& name)>;

// Gives the names of a directory in their order: the index's root and every block that it leads to, whatever number of
// pieces its allocation has. What is damaged is left out and told of in `problems`.
class CNtfsDirectory {
public:
    CNtfsDirectory(CNtfsMappedVolume& volume, std::string where) : m_Volume(volume), m_Where(std::move(where)) {}

    // Fails for a record without an index of names.
    CZuError Walk(CAutoMemory<char>& record, const TakeNtfsName_t& take);

    const std::vector<std::string>& Problems() const { return m_Problems; }

private:
    // A node of the index, and how far the walk is in it.
    struct Node_t {
        uint64_t vcn = 0;   // of its block; nothing for the root
        std::string bytes;  // from its index header on; empty while it waits far up the path
        uint64_t at = 0;
        bool isChildDone = false;  // of the entry at `at`
    };

    CZuError OpenIndex(CAutoMemory<char>& record);
    bool Step(const TakeNtfsName_t& take);
    static CByteView ViewOf(const Node_t& node);
    static bool HeadOfEntry(const Node_t& node, NtfsIndexEntryHead_t& head);
    bool TakeName(CByteView node, uint64_t at, const TakeNtfsName_t& take);
    bool EnterChild(Node_t& node, uint64_t entryBytes);
    bool LoadBlock(Node_t& node);
    void Complain(const std::string& what);

    CNtfsMappedVolume& m_Volume;
    std::string m_Where;
    uint32_t m_BlockBytes = 0;
    bool m_HasAllocation = false;
    CNtfsStream m_Allocation;
    std::vector<Node_t> m_Path;  // from the root to the node in work
    std::unordered_set<uint64_t> m_Visited;
    std::vector<std::string> m_Problems;
};
