#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "agent/detail/ClusterSource.h"
#include "foundation/AutoMemory.h"
#include "foundation/ZuError.h"
#include "ntfs/DRFileRecord.h"

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
    CZuError Open(IClusterSource& volume, CAutoMemory<char>& record, uint32_t type, const std::u16string& name,
                  const std::string& where);

    // The same for an attribute whose bytes, or whose extents of all segments, others have told. Extents that end in
    // front of its data, and an attribute that the record hasn't, are refused.
    CZuError OpenValue(CAutoMemory<char>& record, uint32_t type, const std::u16string& name, std::string value,
                       const std::string& where);
    CZuError OpenExtents(IClusterSource& volume, CAutoMemory<char>& record, uint32_t type, const std::u16string& name,
                         const DATARUN_EXTENTS& extents, const std::string& where);

    const NtfsAttribute_t& Attribute() const { return m_Attribute; }
    uint64_t Bytes() const { return m_Attribute.bytes; }

    // The bytes have to be in the stream.
    CZuError Read(uint64_t offset, char* buffer, uint32_t size);

    // By VCN, without gaps; empty for a resident attribute.
    const std::vector<NtfsExtent_t>& Runs() const { return m_Runs; }

private:
    void Begin(const std::string& where);
    CZuError BeginRuns(const ATTR_RECORD_HEADER_t* first);
    CZuError PrepareUnits(const ATTR_RECORD_HEADER_t* first);
    CZuError AddSegments(std::vector<ATTR_RECORD_HEADER_t*>& segments);
    CZuError AddRuns(ATTR_RECORD_HEADER_t* segment, uint64_t lowestVcn);
    void AddExtents(const DATARUN_EXTENTS& extents, uint64_t lowestVcn);
    uint64_t NextVcn() const { return m_Runs.empty() ? 0 : m_Runs.back().vcn + m_Runs.back().clusters; }
    CZuError ReadStored(uint64_t offset, char* buffer, uint32_t size);
    CZuError ReadCompressed(uint64_t offset, char* buffer, uint32_t size);
    CZuError LoadUnit(uint64_t unit);
    CZuError ReadUnit(uint64_t unit, char* target);
    CZuError DecodeUnit(uint64_t storedBytes, char* target);
    CZuError Unplaced(uint64_t offset) const;
    size_t FindRun(uint64_t vcn);

    IClusterSource* m_Volume = nullptr;
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
