#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "agent/detail/NtfsMappedVolume.h"
#include "foundation/AutoMemory.h"
#include "foundation/ZuError.h"

// What a file record tells of one of its attributes.
struct NtfsAttribute_t {
    uint32_t type = 0;
    std::u16string name;
    uint64_t bytes = 0;
    bool isResident = false;
    bool isEncrypted = false;
    bool isCompressed = false;
    bool isSparse = false;
};

// All attributes of a merged record, in its order, the segments of each taken together.
std::vector<NtfsAttribute_t> ListNtfsAttributes(CAutoMemory<char>& record);

// A stretch of clusters of a stream that lie together, or a hole.
struct NtfsExtent_t {
    uint64_t vcn = 0;
    uint64_t clusters = 0;
    uint64_t lcn = HoleLcn;
};

// One attribute of a file, whole: its segments joined wherever the file's records have them, compressed chunks decoded,
// stored ones too, and zeros behind the initialised size. An encrypted one gives its bytes as they are stored.
// Reads at any offset; those that go on where the last one ended are the quickest.
class CNtfsStream {
public:
    // Errors say `where` they are. `volume` stays the caller's and outlives this; the record needn't.
    CZuError Open(CNtfsMappedVolume& volume, CAutoMemory<char>& record, uint32_t type, const std::u16string& name,
                  const std::string& where);

    const NtfsAttribute_t& Attribute() const { return m_Attribute; }
    uint64_t Bytes() const { return m_Attribute.bytes; }

    // The bytes have to be in the stream.
    CZuError Read(uint64_t offset, char* buffer, uint32_t size);

    // By VCN, without gaps; empty for a resident attribute.
    const std::vector<NtfsExtent_t>& Runs() const { return m_Runs; }

private:
    CZuError AddSegments(std::vector<ATTR_RECORD_HEADER_t*>& segments);
    CZuError AddRuns(ATTR_RECORD_HEADER_t* segment, uint64_t lowestVcn);
    CZuError ReadStored(uint64_t offset, char* buffer, uint32_t size);
    CZuError ReadCompressed(uint64_t offset, char* buffer, uint32_t size);
    CZuError LoadUnit(uint64_t unit);
    CZuError ReadUnit(uint64_t unit, char* target);
    CZuError DecodeUnit(uint64_t storedBytes, char* target);
    CZuError Unplaced(uint64_t offset) const;
    size_t FindRun(uint64_t vcn);

    CNtfsMappedVolume* m_Volume = nullptr;
    std::string m_Where;
    NtfsAttribute_t m_Attribute;
    uint64_t m_InitializedBytes = 0;
    std::string m_Value;  // of a resident attribute
    std::vector<NtfsExtent_t> m_Runs;
    size_t m_LastRun = 0;
    uint32_t m_UnitBytes = 0;
    CAutoMemory<char> m_Unit;        // decoded
    uint64_t m_UnitNumber = 0;       // of the unit that is decoded
    CAutoMemory<char> m_StoredUnit;  // its clusters
};
