#pragma once

#include <cstdint>

#include "VirtualServer/VMInfo/NtfsAttributeHeader.h"
#include "foundation/detail/ByteView.h"

// The steps into a record of NTFS, each held to the bytes that are there: the ends of its sectors, its attributes, the
// runs of a run list.

// Puts the last two bytes of each sector of `record` back. False when a sector's end isn't what it should be, or lies
// outside: the sectors before it are mended then.
[[nodiscard]] bool MendSectorEnds(char* record, uint32_t recordBytes, uint32_t sectorSize);

// True when all attributes of the file record, up to the end marker, lie wholly in it, with their names, their values
// and the beginnings of their run lists.
[[nodiscard]] bool AttributesLieInside(CByteView record);

// The first attribute of `type` without a name, in a record whose attributes lie inside; empty when there is none. The
// view ends with the attribute, or with the record where that comes first.
CByteView FindUnnamedAttribute(CByteView record, uint32_t type);

// One run of clusters of a run list.
struct NtfsDataRun_t {
    uint64_t firstVcn = 0;  // of the attribute
    uint64_t clusters = 0;
    uint64_t firstLcn = 0;  // of the volume; nothing for a hole
    bool isHole = false;
};

enum class NtfsRunStep_t { Run, End, TooWide, Corrupted };

// Takes the runs off a list, one after the other.
class CNtfsRunReader {
public:
    CNtfsRunReader(CByteView list, uint64_t firstVcn) : m_List(list), m_Vcn(firstVcn) {}

    // `TooWide` for a number of more than 8 bytes, `Corrupted` where the list leaves its bytes or its clusters pass 64
    // bits. Each run takes at least its own head off the list, so it ends. A run may have no clusters.
    NtfsRunStep_t Next(NtfsDataRun_t& run);

private:
    CByteView m_List;
    uint64_t m_At = 0;
    uint64_t m_Vcn;
    uint64_t m_Lcn = 0;
};
