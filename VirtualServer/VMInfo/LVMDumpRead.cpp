#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "VirtualServer/VMInfo/LVM.h"
#include "VirtualServer/VMInfo/UtilityFunctions.h"
#include "VirtualServer/VMInfo/detail/TableReader.h"
#include "VirtualServer/VMInfo/detail/VolumeDumpFormat.h"
#include "foundation/LgDebug.h"
#include "foundation/detail/Bitmap.h"
#include "foundation/detail/ErrorHandling.h"
#include "foundation/detail/ScopeGuard.h"
#include "platform/Files.h"

// Reading of volume dumps, which may be damaged or made to do harm: memory follows the records that are there.

namespace {

constexpr char OldReader[] = "CLVM::ReadVolumeInfoFromDump10()";
constexpr char InvalidParameter[] = "Invalid parameter";
constexpr char UnlikeHeader[] = "Dump file signature does not match for header. Expecting {1}";
constexpr char UnlikeFooter[] =
    "Dump file signature does not match for footer. Expecting {1}. Could be an incomplete file";
constexpr int DumpFlags = OpenRandomAccess | OpenNotInherited | OpenAsBinary;
constexpr uint64_t OldSectorsOfComponent = 18;

struct Signatures_t {
    char header[DumpSignatureBytes];
    char footer[DumpSignatureBytes];
};

bool Is(const char (&found)[DumpSignatureBytes], const char* signature) {
    return std::memcmp(found, signature, sizeof(found)) == 0;
}

CZuError ReadHeader(CZuFile& file, Signatures_t& signatures) {
    return ReadFileAt(file, 0, 0, signatures.header, sizeof(signatures.header), nullptr);
}

CZuError ReadFooter(CZuFile& file, Signatures_t& signatures) {
    constexpr auto fromEnd = static_cast<uint64_t>(-int64_t{DumpSignatureBytes});
    return ReadFileAt(file, fromEnd, 2, signatures.footer, sizeof(signatures.footer), nullptr);
}

template <size_t FieldBytes> std::string TextOf(const char (&field)[FieldBytes]) {
    return std::string(field, strnlen(field, FieldBytes));
}

// A field's last byte is its terminator's, whatever stands there.
template <size_t FieldBytes> uint64_t NumberOf(const char (&field)[FieldBytes], int base) {
    return std::strtoull(std::string(field, FieldBytes - 1).c_str(), nullptr, base);
}

template <size_t FieldBytes> uint64_t HexOf(const char (&field)[FieldBytes]) {
    return NumberOf(field, 16);
}

template <size_t FieldBytes> uint32_t Hex32Of(const char (&field)[FieldBytes]) {
    return static_cast<uint32_t>(HexOf(field));
}

template <size_t FieldBytes> CZuError ReadGuid(const char (&field)[FieldBytes], const char* failure, GUID& guid) {
    const std::string text = TextOf(field);
    return ParseGuidText(text.c_str(), &guid) != 0 ? CZuError() : Refusal(CZuString::Format(failure, text));
}

// Takes records off a dump, one behind the other, through a window that saves small reads.
class CDumpInput {
public:
    explicit CDumpInput(CZuFile& file) : m_File(file) {}

    CZuError Begin(uint64_t offset) {
        ZU_RETURN_IF_ERROR(m_File.Size(m_FileBytes));
        m_At = offset;
        return CZuError();
    }

    template <typename Record> CZuError Take(Record& record) { return TakeBytes(&record, sizeof(record)); }

    // A number that stands between the records.
    CZuError TakeCount(uint32_t& count) {
        char text[DumpCountBytes + 1] = {};
        ZU_RETURN_IF_ERROR(TakeBytes(text, DumpCountBytes));
        count = Hex32Of(text);
        return CZuError();
    }

    CZuError TakeBitmap(uint32_t bytes, CTableReader& tables, CAutoMemory<char>& bitmap) {
        if (bytes > WindowBytes) {
            ZU_RETURN_IF_ERROR(tables.Read(m_At, bytes, bitmap));
            m_At += bytes;
            return CZuError();
        }
        ZU_RETURN_IF_ERROR(tables.Charge(bytes));
        if (bitmap.Alloc(bytes) == nullptr && bytes != 0)
            return Refusal(OutOfMemory);
        return TakeBytes(bitmap.GetPtr(), bytes);
    }

private:
    static constexpr uint32_t WindowBytes = 1U << 18U;

    CZuError TakeBytes(void* target, uint32_t bytes) {
        if (bytes == 0)
            return CZuError();
        if (m_At < m_WindowStart || m_At - m_WindowStart > m_Window.GetSize() ||
            bytes > m_Window.GetSize() - (m_At - m_WindowStart))
            ZU_RETURN_IF_ERROR(FillWindow(bytes));
        std::memcpy(target, m_Window.GetPtr() + (m_At - m_WindowStart), bytes);
        m_At += bytes;
        return CZuError();
    }

    // Where the file ends in front of what is wanted, the read itself tells so.
    CZuError FillWindow(uint32_t wanted) {
        const uint64_t left = m_At < m_FileBytes ? m_FileBytes - m_At : 0;
        const auto bytes = static_cast<uint32_t>(std::max<uint64_t>(wanted, std::min<uint64_t>(left, WindowBytes)));
        if (m_Window.Alloc(bytes) == nullptr)
            return Refusal(OutOfMemory);
        m_WindowStart = m_At;
        CZuError error = ReadFileAt(m_File, m_At, 0, m_Window.GetPtr(), bytes, nullptr);
        if (error.IsErrorSet())
            m_Window.Free();
        return error;
    }

    CZuFile& m_File;
    uint64_t m_FileBytes = 0;
    uint64_t m_At = 0;
    CAutoMemory<char> m_Window;
    uint64_t m_WindowStart = 0;
};

// What the two versions have in common and where they differ. Version 1.0 logs its steps.
class CDumpReader {
public:
    CDumpReader(bool isOld, std::vector<LVM_Volume_t>& volumes, SparseInfo_t* sparseInfo)
        : m_IsOld(isOld), m_Input(m_File), m_Volumes(volumes), m_SparseInfo(sparseInfo) {}

    CZuError Read(const char* path) {
        m_Volumes.clear();
        if (m_SparseInfo != nullptr)
            m_SparseInfo->clear();
        if (m_IsOld)
            LgDebug().Debug(OldReader, "Opening file %s", path);  // of any length
        ZU_RETURN_IF_ERROR(m_File.Open(path, DumpFlags, 0));
        ZU_RETURN_IF_ERROR(CheckSignatures());
        ZU_RETURN_IF_ERROR(m_Input.Begin(DumpSignatureBytes));
        ZU_RETURN_IF_ERROR(ReadVolumes());
        if (m_SparseInfo == nullptr)
            return CZuError();
        Log("pSparseInfo is not NULL.");
        ZU_RETURN_IF_ERROR(ReadDisks());
        return m_File.Close();
    }

private:
    void Log(const char* format, ...) const DISKSTREAM_PRINTF(2, 3) {
        if (!m_IsOld)
            return;
        char line[512];
        va_list arguments;
        va_start(arguments, format);
        std::vsnprintf(line, sizeof(line), format, arguments);
        va_end(arguments);
        LgDebug().Debug(OldReader, "%s", line);
    }

    CZuError CheckSignatures() {
        const char* const expected = m_IsOld ? DumpSignature10 : DumpSignature11;
        Signatures_t found{};
        ZU_RETURN_IF_ERROR(ReadHeader(m_File, found));
        if (!Is(found.header, expected))
            return Refusal(CZuString::Format(UnlikeHeader, expected));
        ZU_RETURN_IF_ERROR(ReadFooter(m_File, found));
        if (!Is(found.footer, expected))
            return Refusal(CZuString::Format(UnlikeFooter, DumpSignature11));  // callers know both versions by this one
        return CZuError();
    }

    CZuError ReadVolumes() {
        uint32_t count = 0;
        ZU_RETURN_IF_ERROR(m_Input.TakeCount(count));
        Log("Number of volumes expected: %d", static_cast<int>(count));
        for (uint32_t index = 0; index < count; ++index) {
            LVM_Volume_t volume;
            ZU_RETURN_IF_ERROR(m_IsOld ? ReadOldVolume(static_cast<int>(index), volume) : ReadVolume(volume));
            m_Volumes.push_back(std::move(volume));
        }
        Log("Finished reading VolDump info. more to go int his function though.");
        return CZuError();
    }

    CZuError FillVolume(int index, const DumpVolumeHead_t& head, LVM_Volume_t& volume) const {
        ZU_RETURN_IF_ERROR(
            ReadGuid(head.guid, "Failed to read dump file. VolGUID conversion failed {1}", volume.VolGUID));
        Log("VolIdx: %d\tGUID read.", index);
        const std::string name = TextOf(head.name);
        std::memcpy(volume.VolName, name.c_str(), std::min(name.size(), sizeof(volume.VolName) - 1));
        volume.IsRaid5 = head.isRaid5 == '1' ? 1 : 0;
        volume.SystemID = static_cast<uint8_t>(HexOf(head.systemId));
        Log("VolIdx: %d\tSystemID: %d", index, int{volume.SystemID});
        volume.AllDiskFound = head.allDiskFound == '1' ? 1 : 0;
        Log("VolIdx: %d\tAllDiskFound: %c", index, int{head.allDiskFound});
        return CZuError();
    }

    CZuError ReadVolume(LVM_Volume_t& volume) {
        DumpVolumeRecord_t record{};
        ZU_RETURN_IF_ERROR(m_Input.Take(record));
        ZU_RETURN_IF_ERROR(FillVolume(0, record.head, volume));
        const uint32_t count = Hex32Of(record.segmentCount);
        for (uint32_t index = 0; index < count; ++index) {
            DumpSegmentRecord_t head{};
            ZU_RETURN_IF_ERROR(m_Input.Take(head));
            LVM_Segment_t segment;
            segment.StripeSize = HexOf(head.stripeSize);
            segment.LBAStart = HexOf(head.lbaStart);
            segment.LBAEnd = HexOf(head.lbaEnd);
            ZU_RETURN_IF_ERROR(ReadComponents(0, Hex32Of(head.componentCount), segment));
            volume.Segments.push_back(std::move(segment));
        }
        return CZuError();
    }

    CZuError ReadOldVolume(int index, LVM_Volume_t& volume) {
        DumpVolumeRecord10_t record{};
        ZU_RETURN_IF_ERROR(m_Input.Take(record));
        ZU_RETURN_IF_ERROR(FillVolume(index, record.head, volume));
        LVM_Segment_t segment;
        segment.StripeSize = HexOf(record.stripeSize);
        const auto count = static_cast<uint32_t>(NumberOf(record.componentCount, 10));
        Log("VolIdx: %d\tNum_Components: %d", index, static_cast<int>(count));
        ZU_RETURN_IF_ERROR(ReadComponents(index, count, segment));
        volume.Segments.push_back(std::move(segment));
        return CZuError();
    }

    CZuError ReadComponents(int volumeIndex, uint32_t count, LVM_Segment_t& segment) {
        for (uint32_t index = 0; index < count; ++index) {
            DumpComponentRecord_t record{};
            ZU_RETURN_IF_ERROR(m_Input.Take(record));
            LVM_Component_t component;
            ZU_RETURN_IF_ERROR(ReadGuid(record.diskGuid, "Failed to read dump file. DiskGUID conversion failed {1}",
                                        component.DiskGUID));
            Log("VolIdx: %d\tCompIdx: %d\tGUID scanned", volumeIndex, static_cast<int>(index));
            component.DiskLBAStart = HexOf(record.diskLbaStart);
            component.DiskLBAEnd = HexOf(record.diskLbaEnd);
            component.VolLBAStart = HexOf(record.volLbaStart);
            component.VolLBAEnd = HexOf(record.volLbaEnd);
            component.ColumnIndex = static_cast<int32_t>(Hex32Of(record.columnIndex));
            component.HardDiskIndex = Hex32Of(record.hardDiskIndex);
            // Callers rely on these ends, see the header.
            segment.LBAEnd += m_IsOld ? OldSectorsOfComponent : component.VolLBAEnd - component.VolLBAStart + 1;
            segment.Components.push_back(component);
            Log("VolIdx: %d\tCompIdx: %d\tRead of component complete.", volumeIndex, static_cast<int>(index));
        }
        return CZuError();
    }

    CZuError ReadDisks() {
        uint32_t disks = 0;
        ZU_RETURN_IF_ERROR(m_Input.TakeCount(disks));
        Log("Harddisk count: %d", static_cast<int>(disks));
        for (uint32_t disk = 0; disk < disks; ++disk) {
            m_SparseInfo->emplace_back();
            uint32_t links = 0;
            ZU_RETURN_IF_ERROR(m_Input.TakeCount(links));
            Log("HarddiskIdx: %d\tParentChildCnt: %d", static_cast<int>(disk), static_cast<int>(links));
            for (uint32_t link = 0; link < links; ++link) {
                m_SparseInfo->back().emplace_back();
                ZU_RETURN_IF_ERROR(ReadLink(static_cast<int>(disk), static_cast<int>(link)));
            }
        }
        return CZuError();
    }

    CZuError ReadLink(int disk, int link) {
        uint32_t extents = 0;
        ZU_RETURN_IF_ERROR(m_Input.TakeCount(extents));
        Log("HarddiskIdx: %d\tParentChildIdx: %d\tExtentCnt: %d", disk, link, static_cast<int>(extents));
        for (uint32_t index = 0; index < extents; ++index) {
            DumpExtentRecord_t record{};
            ZU_RETURN_IF_ERROR(m_Input.Take(record));
            Log("HarddiskIdx: %d\tParentChildIdx: %d\tExtentIdx: %d\tRead extent dump", disk, link,
                static_cast<int>(index));
            ExtentSparseInfo_t& extent = m_SparseInfo->back().back().emplace_back();
            FillExtent(record, extent);
            Log("HarddiskIdx: %d\tParentChildIdx: %d\tExtentIdx: %d\tInterpreted extent dump", disk, link,
                static_cast<int>(index));
            if (extent.TopBitmapBytes == 0)
                continue;
            ZU_RETURN_IF_ERROR(ReadBitmaps(extent));
            Log("HarddiskIdx: %d\tParentChildIdx: %d\tExtentIdx: %d\tBktBitmap initialized", disk, link,
                static_cast<int>(index));
        }
        return CZuError();
    }

    static void FillExtent(const DumpExtentRecord_t& record, ExtentSparseInfo_t& extent) {
        extent.ExtentName = TextOf(record.extentName);
        extent.ExtentStartLBA = HexOf(record.startLba);
        extent.ExtentEndLBA = HexOf(record.endLba);
        extent.BlockSize = HexOf(record.blockSectors);
        extent.GrainSize = HexOf(record.grainSectors);
        extent.ExtentFileOffset = Hex32Of(record.fileOffset);
        extent.GrainsPerBucket = HexOf(record.grainsPerBucket);
        extent.BucketCount = HexOf(record.bucketCount);
        extent.TopBitmapBytes = Hex32Of(record.topBitmapBytes);
        extent.BucketBytes = Hex32Of(record.bucketBytes);
    }

    CZuError ReadBitmaps(ExtentSparseInfo_t& extent) {
        CTableReader tables(m_File);
        ZU_RETURN_IF_ERROR(m_Input.TakeBitmap(extent.TopBitmapBytes, tables, extent.TopBitmap));
        if (extent.BucketCount > uint64_t{extent.TopBitmapBytes} * 8)
            return Refusal(OutOfMemory);  // buckets without a bit: a lying count
        ZU_RETURN_IF_ERROR(m_BucketMemory.Charge(extent.BucketCount * sizeof(CAutoMemory<char>)));
        extent.Buckets.reserve(static_cast<size_t>(extent.BucketCount));
        const CByteView top(extent.TopBitmap.GetPtr(), extent.TopBitmap.GetSize());
        for (uint64_t index = 0; index < extent.BucketCount;) {
            const uint64_t count = HasBit(top, index) ? 1 : CountEqualBits(top, index, extent.BucketCount - index);
            index += count;
            extent.Buckets.resize(static_cast<size_t>(index));
            if (HasBit(top, index - 1))
                ZU_RETURN_IF_ERROR(m_Input.TakeBitmap(extent.BucketBytes, tables, extent.Buckets.back()));
        }
        return CZuError();
    }

    const bool m_IsOld;
    CZuFile m_File;
    CDumpInput m_Input;
    std::vector<LVM_Volume_t>& m_Volumes;
    SparseInfo_t* m_SparseInfo;
    CTableReader m_BucketMemory{m_File};  // of all extents: no bytes of the file stand for the buckets that are empty
};

CZuError ReadSignatures(const char* path, Signatures_t& found) {
    CZuFile file;
    ZU_RETURN_IF_ERROR(file.Open(path, DumpFlags, 0));
    ZU_RETURN_IF_ERROR(ReadHeader(file, found));
    if (!Is(found.header, DumpSignature10) && !Is(found.header, DumpSignature11))
        return Refusal(CZuString::Format("Dump file signature does not match for header. Expecting {1} or {2}",
                                         DumpSignature10, DumpSignature11));
    ZU_RETURN_IF_ERROR(ReadFooter(file, found));
    if (!Is(found.footer, DumpSignature10) && !Is(found.footer, DumpSignature11))
        return Refusal(CZuString::Format(UnlikeFooter, DumpSignature11));
    ZU_RETURN_IF_ERROR(file.Close());
    return CZuError();
}

}  // namespace

CZuError CLVM::ReadVolumeInfoFromDump(const char* path, std::vector<LVM_Volume_t>& volumes, SparseInfo_t* sparseInfo) {
    if (path == nullptr)
        return Refusal(InvalidParameter);
    Signatures_t found{};
    ZU_RETURN_IF_ERROR(ReadSignatures(path, found));
    if (Is(found.footer, DumpSignature10)) {
        LgDebug().Debug("CLVM::ReadVolumeInfoFromDump()", "Found signature %s, entering ReadVolumeInfoFromDump10()",
                        DumpSignature10);
        return ReadVolumeInfoFromDump10(path, volumes, sparseInfo);
    }
    if (Is(found.footer, DumpSignature11))
        return ReadVolumeInfoFromDump11(path, volumes, sparseInfo);
    return Refusal("Dump file signature is unknown");
}

CZuError CLVM::ReadVolumeInfoFromDump10(const char* path, std::vector<LVM_Volume_t>& volumes,
                                        SparseInfo_t* sparseInfo) {
    LgDebug().Debug(OldReader, "Entered CLVM::ReadVolumeInfoFromDump10()");
    const ScopeGuard exiting([] { LgDebug().Debug(OldReader, "Exiting %s", OldReader); });
    if (path == nullptr)
        return Refusal(InvalidParameter);
    return WithinMemory(OutOfMemory, [&] { return CDumpReader(true, volumes, sparseInfo).Read(path); });
}

CZuError CLVM::ReadVolumeInfoFromDump11(const char* path, std::vector<LVM_Volume_t>& volumes,
                                        SparseInfo_t* sparseInfo) {
    if (path == nullptr)
        return Refusal(InvalidParameter);
    return WithinMemory(OutOfMemory, [&] { return CDumpReader(false, volumes, sparseInfo).Read(path); });
}
