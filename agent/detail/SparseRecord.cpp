#include "agent/detail/SparseRecord.h"

#include <algorithm>

#include "VirtualServer/VMInfo/DiskMetaData.h"
#include "foundation/detail/CheckedMath.h"
#include "foundation/detail/ErrorHandling.h"

namespace {

CZuError Damaged() {
    return Refusal("the record of a sparse extent is damaged");
}

// The first `size` bytes of `view`; false when it holds fewer.
bool TakeFront(CByteView& view, uint64_t size, CByteView& front) {
    if (!view.Holds(0, size))
        return false;
    front = CByteView(view.Data(), size);
    view = view.From(size);
    return true;
}

// Entries of a directory or table that aren't 0.
uint64_t CountPresent(CByteView entries) {
    uint64_t present = 0;
    Le32_t entry{};
    for (uint64_t at = 0; entries.Get(at, entry); at += sizeof(entry))
        present += entry != 0 ? 1 : 0;
    return present;
}

}  // namespace

CZuError CSparseRecord::Open(const CAutoMemory<char>& record) {
    const CByteView body = CByteView(record.GetPtr(), record.GetSize()).From(sizeof(VirtualDisk_MetaData_Stream_t));
    Le32_t magic{};
    if (!body.Get(0, magic))
        return Damaged();
    if (magic == VmdkSparseMagic)
        return OpenHosted(body);
    return magic == CowdMagic ? OpenCowd(body) : Damaged();
}

bool CSparseRecord::HasEmptyDirectoryEntries() const {
    const uint64_t present = CountPresent(m_RedundantDirectory) + CountPresent(m_Directory);
    return present != (m_RedundantDirectory.Size() + m_Directory.Size()) / sizeof(Le32_t);
}

uint64_t CSparseRecord::CountGrains() const {
    return CountPresent(m_RedundantIsActive ? m_RedundantTables : m_Tables);
}

CZuError CSparseRecord::OpenHosted(CByteView body) {
    VmdkSparseHeader_t header{};
    uint64_t sectorsPerTable = 0;
    uint64_t descriptorBytes = 0;
    if (!body.Get(0, header) || header.grainSize == 0 ||
        !CheckedMul(header.grainSize, VmdkEntriesPerTable, sectorsPerTable) ||
        !SectorsToBytes(header.descriptorSize, descriptorBytes))
        return Damaged();
    m_CapacitySectors = header.capacity;
    m_GrainSectors = header.grainSize;
    m_RedundantIsActive = (header.flags & VmdkSparseRedundantIsActive) != 0;
    CByteView rest = body.From(sizeof(header));
    CByteView descriptor;
    uint64_t directoryBytes = 0;
    if (!CheckedMul(DivideRoundingUp(header.capacity, sectorsPerTable), sizeof(Le32_t), directoryBytes) ||
        !TakeFront(rest, header.descriptorOffset != 0 ? descriptorBytes : 0, descriptor) ||
        !TakeFront(rest, directoryBytes, m_RedundantDirectory) || !TakeFront(rest, directoryBytes, m_Directory))
        return Damaged();
    constexpr uint64_t tableBytes = VmdkEntriesPerTable * sizeof(Le32_t);
    if (!TakeFront(rest, CountPresent(m_RedundantDirectory) * tableBytes, m_RedundantTables) ||
        !TakeFront(rest, CountPresent(m_Directory) * tableBytes, m_Tables))
        return Damaged();
    return CZuError();
}

CZuError CSparseRecord::OpenCowd(CByteView body) {
    CowdHeader_t header{};
    if (!body.Get(0, header))
        return Damaged();
    m_IsCowd = true;
    m_CapacitySectors = header.numSectors;
    m_GrainSectors = header.grainSize;
    CByteView rest = body.From(sizeof(header));
    if (!TakeFront(rest, uint64_t{header.numGDEntries} * sizeof(Le32_t), m_Directory))
        return Damaged();
    constexpr uint64_t tableBytes = CowdEntriesPerTable * sizeof(Le32_t);
    return TakeFront(rest, CountPresent(m_Directory) * tableBytes, m_Tables) ? CZuError() : Damaged();
}
