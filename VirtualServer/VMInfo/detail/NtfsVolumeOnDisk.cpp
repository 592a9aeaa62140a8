#include "VirtualServer/VMInfo/detail/NtfsVolumeOnDisk.h"

#include <algorithm>
#include <cstring>
#include <iterator>

#include "VirtualServer/VMInfo/UtilityFunctions.h"
#include "VirtualServer/VMInfo/detail/NtfsRecordFormat.h"
#include "VirtualServer/VMInfo/detail/NtfsVolumeFacts.h"
#include "foundation/detail/CheckedMath.h"
#include "foundation/detail/ErrorHandling.h"

namespace {

constexpr uint64_t BitmapFrn = 6;
constexpr uint32_t SequenceStride = 512;  // of the update sequence, also where sectors are larger
constexpr uint32_t SmallestRecordBytes = 256;
constexpr uint32_t LargestRecordBytes = 1U << 20U;  // records have 1 or 4 KiB
constexpr char MftName[] = "$MFT";
constexpr char BitmapName[] = "$Bitmap";
constexpr char BitmapIsSpread[] = "the bitmap of its clusters is told by several file records, which isn't read here";
constexpr char BitmapIsShort[] = "the bitmap of its clusters ends in front of the volume's end";

// Beyond 128 sectors the byte is the negative power of two of their number. 0 for what no volume has.
uint32_t SectorsPerCluster(const NtfsBootSector_t& sector) {
    constexpr uint32_t mostAsNumber = 128;
    constexpr uint32_t highestPower = 12;
    const uint32_t value = sector.sectorsPerCluster;
    if (value <= mostAsNumber)
        return value;
    const uint32_t power = 256 - value;
    return power <= highestPower ? 1U << power : 0;
}

void TakeLargeClusters(const NtfsBootSector_t& sector, uint32_t sectorsPerCluster, NTFS_VOLUME_DATA_BUFFER& data) {
    data.BytesPerCluster = sectorsPerCluster * sector.bytesPerSector;
    data.TotalClusters.QuadPart =
        static_cast<int64_t>(sectorsPerCluster != 0 ? sector.totalSectors / sectorsPerCluster : 0);
    data.TotalReserved.QuadPart =
        static_cast<int64_t>(sectorsPerCluster != 0 ? sector.reservedSectors / sectorsPerCluster : 0);
}

CZuError RecordIsDamaged(const char* name) {
    return Refusal(CZuString::Format("the file record of {1} is damaged", name));
}

// True when the record has a name, and that isn't the bitmap's: what another file has in use says nothing of clusters.
bool IsOfAnotherFile(CByteView record) {
    constexpr char16_t name[] = u"$Bitmap";
    const CByteView attribute = FindUnnamedAttribute(record, AttrFileName);
    NtfsResidentForm_t form{};
    NtfsFileName_t head{};
    Le16_t character{};
    if (attribute.Size() == 0)
        return false;
    if (!attribute.Get(ResidentFormOffset, form) || !attribute.Get(form.valueOffset, head))
        return true;
    bool isSame = head.nameLength == std::size(name) - 1;
    for (uint64_t index = 0; isSame && index < head.nameLength; ++index)
        isSame = attribute.Get(form.valueOffset + sizeof(head) + 2 * index, character) && character == name[index];
    return !isSame;
}

}  // namespace

CZuError CNtfsVolumeOnDisk::Open(const CZuFile& volume) {
    m_Volume = volume;
    m_Data = NTFS_VOLUME_DATA_BUFFER{};
    m_HasBitmap = false;
    m_Runs.clear();
    NtfsBootSector_t sector{};
    ZU_RETURN_IF_ERROR(ReadFileAt(m_Volume, 0, 0, &sector, sizeof(sector), nullptr));
    if (!IsNtfs(sector))
        return Refusal("holds no NTFS volume");
    FillNtfsVolumeFacts(sector, m_Data);
    if (const uint32_t sectorsPerCluster = SectorsPerCluster(sector); sectorsPerCluster != sector.sectorsPerCluster)
        TakeLargeClusters(sector, sectorsPerCluster, m_Data);
    ZU_RETURN_IF_ERROR(CheckGeometry());
    return CZuError();
}

// With this, the place of no cluster wraps.
CZuError CNtfsVolumeOnDisk::CheckGeometry() const {
    uint64_t volumeBytes = 0;
    if (m_Data.BytesPerSector == 0 || m_Data.BytesPerCluster == 0)
        return Refusal("its boot sector tells no size of sectors or clusters");
    if (!CheckedMul(static_cast<uint64_t>(m_Data.NumberSectors.QuadPart), m_Data.BytesPerSector, volumeBytes) ||
        volumeBytes > uint64_t{INT64_MAX})
        return Refusal("its boot sector claims more sectors than a volume can have");
    return CZuError();
}

uint64_t CNtfsVolumeOnDisk::BitmapBytes() const {
    return DivideRoundingUp(ClusterCount(), 8);
}

CZuError CNtfsVolumeOnDisk::ReadBitmap(uint64_t firstLcn, char* bitmap, uint32_t bitmapBytes, uint32_t& got) {
    got = 0;
    if (firstLcn >= ClusterCount())
        return CZuError();
    if (!m_HasBitmap)
        ZU_RETURN_IF_ERROR(FindBitmap());
    const uint64_t offset = firstLcn / 8;
    const auto size = static_cast<uint32_t>(std::min<uint64_t>(bitmapBytes, BitmapBytes() - offset));
    ZU_RETURN_IF_ERROR(CopyBitmap(offset, bitmap, size));
    // The file's own size is rounded up, with bits that are set.
    const auto bitsOfLast = static_cast<unsigned>(ClusterCount() % 8);
    if (size != 0 && offset + size == BitmapBytes() && bitsOfLast != 0)
        bitmap[size - 1] = static_cast<char>(static_cast<uint8_t>(bitmap[size - 1]) & ((1U << bitsOfLast) - 1U));
    got = size;
    return CZuError();
}

CZuError CNtfsVolumeOnDisk::CopyBitmap(uint64_t offset, char* bitmap, uint32_t size) {
    if (m_Runs.empty())
        return CByteView(m_ResidentBitmap.GetPtr(), m_ResidentBitmap.GetSize()).CopyOut(offset, bitmap, size)
                   ? CZuError()
                   : RecordIsDamaged(BitmapName);
    return ReadFromRuns(m_Runs, offset, bitmap, size);
}

CZuError CNtfsVolumeOnDisk::FindBitmap() {
    CAutoMemory<char> record;
    ZU_RETURN_IF_ERROR(ReadBitmapRecord(record));
    const CByteView bytes(record.GetPtr(), record.GetSize());
    const CByteView attribute = FindUnnamedAttribute(bytes, AttrData);
    if (attribute.Size() == 0 && FindUnnamedAttribute(bytes, AttrAttributeList).Size() != 0)
        return Refusal(BitmapIsSpread);
    ZU_RETURN_IF_ERROR(TakeBitmapAttribute(attribute));
    m_HasBitmap = true;
    return CZuError();
}

CZuError CNtfsVolumeOnDisk::ReadBitmapRecord(CAutoMemory<char>& record) {
    ZU_RETURN_IF_ERROR(CheckMftPlace());
    std::vector<NtfsDataRun_t> mftRuns;
    const CZuError mftError = ReadMftRuns(mftRuns);
    if (mftError.GetErrorType() == ErrorType::System)
        return mftError;
    if (mftError.IsErrorSet())
        mftRuns = {FirstRecords()};
    const uint32_t recordBytes = m_Data.BytesPerFileRecordSegment;
    ZU_RETURN_IF_ERROR(ReadFromRuns(mftRuns, BitmapFrn * recordBytes, record.Alloc(recordBytes), recordBytes));
    CZuError error = CheckRecord(record, BitmapName);
    if (!error.IsErrorSet() && IsOfAnotherFile(CByteView(record.GetPtr(), record.GetSize())))
        error = RecordIsDamaged(BitmapName);
    return error.IsErrorSet() && mftError.IsErrorSet() ? mftError : error;
}

// Where they are on every volume that was just made: a first record that is damaged doesn't hide the
// others.
NtfsDataRun_t CNtfsVolumeOnDisk::FirstRecords() const {
    const uint64_t bytes = (BitmapFrn + 1) * m_Data.BytesPerFileRecordSegment;
    return {0, DivideRoundingUp(bytes, m_Data.BytesPerCluster), static_cast<uint64_t>(m_Data.MftStartLcn.QuadPart),
            false};
}

CZuError CNtfsVolumeOnDisk::ReadMftRuns(std::vector<NtfsDataRun_t>& runs) {
    CAutoMemory<char> record;
    ZU_RETURN_IF_ERROR(ReadFirstRecord(record));
    return TakeRuns(FindUnnamedAttribute(CByteView(record.GetPtr(), record.GetSize()), AttrData), MftName, runs);
}

CZuError CNtfsVolumeOnDisk::CheckMftPlace() const {
    const uint32_t recordBytes = m_Data.BytesPerFileRecordSegment;
    if (recordBytes < SmallestRecordBytes || recordBytes > LargestRecordBytes)
        return Refusal(CZuString::Format("its boot sector claims file records of {1} bytes", recordBytes));
    if (static_cast<uint64_t>(m_Data.MftStartLcn.QuadPart) >= ClusterCount())
        return Refusal("its boot sector has the MFT behind the volume's end");
    return CZuError();
}

// The place was checked.
CZuError CNtfsVolumeOnDisk::ReadFirstRecord(CAutoMemory<char>& record) {
    const uint32_t recordBytes = m_Data.BytesPerFileRecordSegment;
    const auto lcn = static_cast<uint64_t>(m_Data.MftStartLcn.QuadPart);
    if (record.Alloc(recordBytes) == nullptr)
        return Refusal("Out Of memory");
    ZU_RETURN_IF_ERROR(ReadFileAt(m_Volume, lcn * m_Data.BytesPerCluster, 0, record.GetPtr(), recordBytes, nullptr));
    return CheckRecord(record, MftName);
}

CZuError CNtfsVolumeOnDisk::CheckRecord(CAutoMemory<char>& record, const char* name) const {
    NtfsFileRecord_t head{};
    const CByteView bytes(record.GetPtr(), record.GetSize());
    const bool isSound =
        bytes.Get(0, head) && head.head.signature == FileSignature && (head.flags & RecordInUse) != 0 &&
        MendSectorEnds(record.GetPtr(), record.GetSize(), SequenceStride) && AttributesLieInside(bytes);
    return isSound ? CZuError() : RecordIsDamaged(name);
}

CZuError CNtfsVolumeOnDisk::TakeBitmapAttribute(CByteView attribute) {
    ATTR_RECORD_HEADER_t head{};
    NtfsResidentForm_t resident{};
    NtfsNonResidentForm_t form{};
    if (!attribute.Get(0, head))
        return RecordIsDamaged(BitmapName);
    if (head.IsNonResident != 0) {
        if (!attribute.Get(NonResidentFormOffset, form) || form.dataBytes < BitmapBytes() ||
            form.initializedBytes < BitmapBytes())
            return Refusal(BitmapIsShort);
        ZU_RETURN_IF_ERROR(TakeRuns(attribute, BitmapName, m_Runs));
        return CheckBitmapRuns();
    }
    if (!attribute.Get(ResidentFormOffset, resident) || !attribute.Holds(resident.valueOffset, resident.valueLength))
        return RecordIsDamaged(BitmapName);
    if (resident.valueLength < BitmapBytes())
        return Refusal(BitmapIsShort);
    if (m_ResidentBitmap.Alloc(resident.valueLength) == nullptr)
        return Refusal("Out Of memory");
    std::memcpy(m_ResidentBitmap.GetPtr(), attribute.Data() + resident.valueOffset, resident.valueLength);
    return CZuError();
}

// Holes, and what is packed or secret, aren't where the system itself reads its own files.
CZuError CNtfsVolumeOnDisk::TakeRuns(CByteView attribute, const char* name, std::vector<NtfsDataRun_t>& runs) const {
    ATTR_RECORD_HEADER_t head{};
    NtfsNonResidentForm_t form{};
    if (!attribute.Get(0, head) || head.IsNonResident == 0 || !attribute.Get(NonResidentFormOffset, form) ||
        (head.Flags & (AttrCompressed | AttrEncrypted | AttrSparse)) != 0 || form.lowestVcn != 0)
        return RecordIsDamaged(name);
    runs.clear();
    CNtfsRunReader reader(attribute.From(form.runListOffset), 0);
    NtfsDataRun_t run;
    NtfsRunStep_t step{};
    while ((step = reader.Next(run)) == NtfsRunStep_t::Run) {
        if (run.clusters == 0)
            continue;
        if (run.isHole || run.firstLcn >= ClusterCount() || run.clusters > ClusterCount() - run.firstLcn)
            return RecordIsDamaged(name);
        runs.push_back(run);
    }
    return step == NtfsRunStep_t::End && !runs.empty() ? CZuError() : RecordIsDamaged(name);
}

// Runs don't overlap, so that more of them than the volume's file has bytes are a lie, which would take for ever to
// read.
CZuError CNtfsVolumeOnDisk::CheckBitmapRuns() const {
    uint64_t fileBytes = 0;
    uint64_t bytes = 0;
    const uint64_t clusters = m_Runs.back().firstVcn + m_Runs.back().clusters;
    ZU_RETURN_IF_ERROR(m_Volume.Size(fileBytes));
    if (!CheckedMul(clusters, m_Data.BytesPerCluster, bytes) || bytes > fileBytes)
        return RecordIsDamaged(BitmapName);
    return bytes >= BitmapBytes() ? CZuError() : Refusal(BitmapIsSpread);
}

CZuError CNtfsVolumeOnDisk::ReadFromRuns(const std::vector<NtfsDataRun_t>& runs, uint64_t offset, char* buffer,
                                         uint32_t size) {
    if (buffer == nullptr)
        return Refusal("Out Of memory");
    uint32_t done = 0;
    for (const NtfsDataRun_t& run : runs) {
        const uint64_t at = offset + done;
        const uint64_t firstByte = run.firstVcn * m_Data.BytesPerCluster;
        const uint64_t endByte = firstByte + run.clusters * m_Data.BytesPerCluster;
        if (done == size)
            break;
        if (at >= endByte)
            continue;
        const auto piece = static_cast<uint32_t>(std::min<uint64_t>(size - done, endByte - at));
        const uint64_t place = run.firstLcn * m_Data.BytesPerCluster + (at - firstByte);
        ZU_RETURN_IF_ERROR(ReadFileAt(m_Volume, place, 0, buffer + done, piece, nullptr));
        done += piece;
    }
    return done == size ? CZuError() : Refusal("its MFT ends in front of the file record that tells of its clusters");
}
