#include <algorithm>
#include <cinttypes>
#include <cstring>
#include <limits>

#include "foundation/LgDebug.h"
#include "foundation/detail/CheckedMath.h"
#include "ntfs/DRVolume.h"
#include "ntfs/detail/AttributeList.h"
#include "ntfs/detail/NtfsFormat.h"
#include "ntfs/detail/ReadPosition.h"
#include "ntfs/detail/VolumeSteps.h"
#include "ntfs/detail/WithinMemory.h"

namespace {

constexpr uint64_t MftPieceBytes = uint64_t{1} << 20U;
constexpr uint64_t WindowBytes = uint64_t{1} << 20U;
constexpr uint64_t FarthestStep = 16;  // records; a scan leaves out some, and goes to extension records and back

bool FindMftSegment(CByteView list, uint64_t expectedVcn, uint64_t& frn) {
    CAttributeListWalk walk(list);
    NtfsAttributeListEntry_t entry{};
    while (walk.Next(entry)) {
        if (entry.type != AttrData || entry.lowestVcn != expectedVcn)
            continue;
        frn = entry.reference & FrnMask;
        return true;
    }
    return false;
}

uint32_t RecordBufferBytes(uint32_t recordBytes) {
    return std::max(recordBytes, SmallestRecordBuffer);
}

}  // namespace

int CDRVolume::GetMFTExtent() {
    return NtfsWithinMemory([&]() -> int {
        CAutoMemory<char> record;
        NTFS_RETURN_IF_FAILED(ReadFirstMftRecord(record));
        ATTR_RECORD_HEADER_t* const data = CDRFileRecord::FindFirstAttr(record.GetPtr(), AttrData);
        if (data == nullptr)
            return NtfsInvalidMftRecord;
        m_MftSize = CDRFileRecord::GetAttributeDataSize(data);
        NTFS_RETURN_IF_FAILED(DecodeRuns(data, m_MftExtents, 0));
        ATTR_RECORD_HEADER_t* const list = CDRFileRecord::FindFirstAttr(record.GetPtr(), AttrAttributeList);
        if (list == nullptr || data->IsNonResident == 0)
            return NtfsOk;
        return AddMftSegments(list, NonResidentFormOf(data).highestVcn + 1);
    });
}

// The boot sector's word for a record's size isn't trusted with memory: the buffer grows with what the disk gives.
int CDRVolume::ReadFirstMftRecord(CAutoMemory<char>& record) {
    if (!GrowBuffer(record, SmallestRecordBuffer))
        return NtfsOutOfMemory;
    std::memset(record.GetPtr(), 0, SmallestRecordBuffer);
    const auto start = static_cast<uint64_t>(m_VolumeData.MftStartLcn.QuadPart) * m_VolumeData.BytesPerCluster;
    for (uint64_t done = 0; done < RecordBytes();) {
        const uint64_t piece = std::min(RecordBytes() - done, MftPieceBytes);
        if (!GrowBuffer(record, std::max<uint64_t>(done + piece, SmallestRecordBuffer)))
            return NtfsOutOfMemory;
        NTFS_RETURN_IF_FAILED(ReadDisk(start + done, record.GetPtr() + done, static_cast<uint32_t>(piece)));
        done += piece;
    }
    NTFS_RETURN_IF_FAILED(MendRecord(record.GetPtr()));
    return CheckRecord(record.GetPtr());
}

int CDRVolume::AddMftSegments(ATTR_RECORD_HEADER_t* list, uint64_t expectedVcn) {
    CAutoMemory<char> entries;
    NTFS_RETURN_IF_FAILED(ReadWholeValue(list, entries));
    const CByteView view(entries.GetPtr(), entries.GetSize());
    CAutoMemory<char> record;
    uint64_t frn = 0;
    while (FindMftSegment(view, expectedVcn, frn)) {
        const uint64_t vcn = expectedVcn;
        NTFS_RETURN_IF_FAILED(AddMftSegment(frn, record, expectedVcn));
        if (expectedVcn <= vcn)
            break;  // a segment that leads back would be found for ever
    }
    return NtfsOk;
}

int CDRVolume::AddMftSegment(uint64_t frn, CAutoMemory<char>& record, uint64_t& expectedVcn) {
    NTFS_RETURN_IF_FAILED(ReadSoundRecord(frn, record));
    ATTR_RECORD_HEADER_t* const data = CDRFileRecord::FindFirstAttr(record.GetPtr(), AttrData);
    if (data == nullptr || data->IsNonResident == 0)
        return NtfsRecordCorrupted;
    const NtfsNonResidentForm_t form = NonResidentFormOf(data);
    NTFS_RETURN_IF_FAILED(AppendRuns(data, m_MftExtents, form.lowestVcn));
    expectedVcn = form.highestVcn + 1;
    return NtfsOk;
}

// Reads and mends the record of that number; what it holds can be walked then.
int CDRVolume::ReadSoundRecord(uint64_t frn, CAutoMemory<char>& record) {
    NTFS_RETURN_IF_FAILED(ReadMendedRecord(frn, record));
    return CheckRecord(record.GetPtr());
}

// The same for one whose attributes may be anything, as those of a record may that no file uses.
int CDRVolume::ReadMendedRecord(uint64_t frn, CAutoMemory<char>& record) {
    const uint32_t bytes = RecordBufferBytes(RecordBytes());
    if (bytes > NtfsCeilingBytes || record.Alloc(bytes) == nullptr)
        return NtfsOutOfMemory;
    std::memset(record.GetPtr(), 0, SmallestRecordBuffer);
    NTFS_RETURN_IF_FAILED(ReadMFTRecord(frn, record.GetPtr()));
    return MendRecord(record.GetPtr());
}

int CDRVolume::MendRecord(char* record) const {
    NTFS_RETURN_IF_FAILED(CDRFileRecord::IsValidFileRec(record));
    const uint32_t bytes = RecordBufferBytes(RecordBytes());
    return CDRFileRecord::DoFILESectorFixup(record, bytes, m_VolumeData.BytesPerSector);
}

int CDRVolume::CheckRecord(const char* record) const {
    return CDRFileRecord::CheckAttributes(record, RecordBufferBytes(RecordBytes()));
}

// Gives the byte of the volume where a record lies, and how many bytes of the MFT follow from there on without a gap.
int CDRVolume::FindRecord(uint64_t frn, uint64_t& offset, uint64_t& bytesTogether) const {
    uint64_t inMft = 0;
    if (RecordBytes() == 0 || !CheckedMul(frn, RecordBytes(), inMft) || inMft >= m_MftSize)
        return NtfsOutOfRange;
    const auto* const extents = reinterpret_cast<const DATARUN_EXTENTS*>(m_MftExtents.GetPtr());
    const uint32_t count = extents != nullptr ? uint32_t{extents->Count} : 0;
    uint64_t inRun = frn;
    for (uint32_t index = 0; index < count; ++index) {
        const DATARUN_EXTENT_t& run = extents->Runs()[index];
        uint64_t runBytes = 0;
        if (!CheckedMul(run.RunLength, m_VolumeData.BytesPerCluster, runBytes))
            return NtfsOutOfRange;
        const uint64_t capacity = runBytes / RecordBytes();
        if (inRun < capacity) {
            // Of a hole there is no byte to read: the read tells of it, as of one behind the volume's end.
            if (!CheckedMul(run.StartLcn, m_VolumeData.BytesPerCluster, offset) ||
                !CheckedAdd(offset, inRun * RecordBytes(), offset))
                offset = std::numeric_limits<uint64_t>::max();
            bytesTogether = std::min((capacity - inRun) * RecordBytes(), m_MftSize - inMft);
            return NtfsOk;
        }
        inRun -= capacity;
    }
    return NtfsOutOfRange;
}

int CDRVolume::ReadMFTRecord(uint64_t frn, char* buffer) {
    const bool isInWindow = m_RecordWindow.GetSize() != 0 && frn >= m_WindowFrn &&
                            frn - m_WindowFrn < m_RecordWindow.GetSize() / RecordBytes();
    if (!isInWindow) {
        uint64_t offset = 0;
        uint64_t bytesTogether = 0;
        NTFS_RETURN_IF_FAILED(FindRecord(frn, offset, bytesTogether));
        const bool isScan = frn > m_LastFrn && frn - m_LastFrn <= FarthestStep;
        m_LastFrn = frn;
        if (!isScan || ReadRecordWindow(frn, offset, bytesTogether) != NtfsOk)
            return ReadDisk(offset, buffer, RecordBytes());
    }
    m_LastFrn = frn;
    std::memcpy(buffer, m_RecordWindow.GetPtr() + (frn - m_WindowFrn) * RecordBytes(), RecordBytes());
    return NtfsOk;
}

// Who reads records in their order gets them from one large read. After a failure each record is read alone, so that
// only those that can't be read fail.
int CDRVolume::ReadRecordWindow(uint64_t frn, uint64_t offset, uint64_t bytesTogether) {
    const uint64_t most = std::min(bytesTogether, WindowBytes);
    const uint64_t bytes = most - most % RecordBytes();
    if (bytes == 0 || m_RecordWindow.Alloc(static_cast<uint32_t>(bytes)) == nullptr)
        return NtfsOutOfMemory;
    m_WindowFrn = frn;
    const int result = ReadDisk(offset, m_RecordWindow.GetPtr(), static_cast<uint32_t>(bytes));
    if (result != NtfsOk)
        m_RecordWindow.Free();
    return result;
}

int CDRVolume::ReadDisk(uint64_t offset, char* buffer, uint32_t size) {
    for (uint32_t done = 0; done < size;) {
        const uint32_t together = CLVM::CountBytesTogether(m_Volume, offset + done, size - done);
        const CZuError error = m_Lvm->ReadVolumeData(m_Volume, offset + done, buffer + done, together, nullptr);
        if (error.IsErrorSet()) {
            LgDebug().Error("CDRVolume::ReadDisk", "Failed to read volume at offset %" PRIu64 ", size %u. Error %s",
                            offset, size, error.ConvertToString());
            return NtfsSeeLog;
        }
        done += together;
    }
    return NtfsOk;
}
