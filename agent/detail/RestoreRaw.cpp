#include <algorithm>
#include <filesystem>
#include <optional>

#include "agent/ErrorText.h"
#include "agent/detail/RawOutput.h"
#include "agent/detail/RestoreTarget.h"
#include "agent/detail/VhdRecord.h"
#include "agent/detail/VmdkDescriptor.h"
#include "foundation/detail/Bitmap.h"
#include "foundation/detail/CheckedMath.h"
#include "foundation/detail/ErrorHandling.h"
#include "hypervisor/NbdVMInfo.h"

namespace {

// One file or device with the disk's sectors. What the set has no block for is zeros.
class CRawTarget final : public IRestoreTarget {
public:
    CZuError Prepare(CBackupSetReader& set, const SetDisk_t& disk, const std::string& target,
                     const RestoreOptions_t& options) override {
        std::string directChild;  // the name comes from the set, so it is proved before it is used
        ZU_RETURN_IF_ERROR(ErrorAt(set.Path(), ResolveExtentName(".", disk.imageName, false, directChild)));
        ZU_RETURN_IF_ERROR(SumSectors(set, disk));
        m_SetPath = set.Path();
        const uint64_t diskBytes = m_TotalSectors << SectorShift;
        if (IsNbdUri(target)) {
            m_Output = MakeNbdOutput();
            return m_Output->Prepare(set, target, diskBytes, options);
        }
        m_Output = std::make_unique<CRawOutput>();
        return m_Output->Prepare(set, TargetFile(target, RawName(disk)), diskBytes, options);
    }

    CZuError BeginStream(CBackupSetReader& set, const SetStream_t& stream) override {
        if (!m_Output->HasBegun())
            ZU_RETURN_IF_ERROR(m_Output->Begin());
        m_Stream = stream;
        m_FirstSector = m_NextFirstSector;
        m_NextFirstSector += stream.diskSectors;
        m_VhdShape.reset();
        return IsDynamicVhd(stream.diskType) ? ReadVhdShape(set) : CZuError();
    }

    CZuError WriteBlock(const SetBlock_t& block, CAutoMemory<char>& plain) override {
        if (m_VhdShape.has_value())
            return WriteVhdBlock(block, plain);
        return WriteSectors(block.number * m_Stream.blockSectors, plain.GetPtr(), block.sectors);
    }

    CZuError EndStream() override { return m_Output->FinishUpTo(m_NextFirstSector << SectorShift); }

    bool IsHalfWritten() const override { return m_Output->HasOverwritten(); }

    CZuError Commit(RestoreResult_t& result) override {
        if (!m_Output->HasBegun())
            ZU_RETURN_IF_ERROR(m_Output->Begin());
        return m_Output->Commit(result);
    }

private:
    // A raw disk keeps its name, but not that of a disk of another kind which was flattened.
    static std::string RawName(const SetDisk_t& disk) {
        const std::filesystem::path imageName(disk.imageName);
        const bool namesAnotherKind = imageName.extension() == ".vhd" || imageName.extension() == ".vmdk";
        return disk.product == VirtualProdType_Physical && !namesAnotherKind ? imageName.string()
                                                                             : imageName.stem().string() + ".raw";
    }

    CZuError SumSectors(CBackupSetReader& set, const SetDisk_t& disk) {
        uint64_t bytes = 0;
        for (const SetStream_t& stream : set.StreamsOf(disk.id)) {
            if (!CheckedAdd(m_TotalSectors, stream.diskSectors, m_TotalSectors) ||
                !SectorsToBytes(m_TotalSectors, bytes) || bytes > uint64_t{INT64_MAX})
                return set.Damaged("its streams are larger than a disk can be");
        }
        return CZuError();
    }

    CZuError ReadVhdShape(CBackupSetReader& set) {
        CAutoMemory<char> bytes;
        CVhdRecord record;
        ZU_RETURN_IF_ERROR(set.ReadRecord(m_Stream, bytes));
        ZU_RETURN_IF_ERROR(ErrorAt(set.Path(), record.Open(bytes)));
        if (record.IsFixed() ||
            uint64_t{record.Shape().bitmapSectors} + record.Shape().dataSectors != m_Stream.blockSectors)
            return set.Damaged("the block size of " + m_Stream.fileName + " isn't that of its record");
        m_VhdShape = record.Shape();
        return CZuError();
    }

    // The bitmap in front tells which sectors the block has; the others are zeros.
    CZuError WriteVhdBlock(const SetBlock_t& block, CAutoMemory<char>& plain) {
        if (block.sectors != m_Stream.blockSectors)
            return Refusal(CZuString::Format("{1}: the set is damaged: block {2} of {3} isn't whole", m_SetPath,
                                             block.number, m_Stream.fileName));
        const uint64_t firstSector = block.number * m_VhdShape->dataSectors;
        const uint32_t sectors = m_VhdShape->dataSectors;
        const CByteView bitmap(plain.GetPtr(), uint64_t{m_VhdShape->bitmapSectors} << SectorShift);
        const char* const data = bitmap.Data() + bitmap.Size();
        for (uint32_t first = 0; first < sectors;) {
            const auto count = static_cast<uint32_t>(CountEqualBits(bitmap, first, sectors - first));
            if (HasBit(bitmap, first))
                ZU_RETURN_IF_ERROR(WriteSectors(firstSector + first, data + (first << SectorShift), count));
            first += count;
        }
        return CZuError();
    }

    // Of what lies behind the disk's end nothing is written.
    CZuError WriteSectors(uint64_t sector, const char* bytes, uint32_t sectors) {
        if (sector >= m_Stream.diskSectors)
            return CZuError();
        const uint64_t count = std::min<uint64_t>(sectors, m_Stream.diskSectors - sector);
        return m_Output->Write((m_FirstSector + sector) << SectorShift, bytes,
                               static_cast<uint32_t>(count << SectorShift));
    }

    std::string m_SetPath;
    std::unique_ptr<IRawOutput> m_Output;
    SetStream_t m_Stream;
    std::optional<VhdBlockShape_t> m_VhdShape;  // of a stream whose blocks have bitmaps
    uint64_t m_TotalSectors = 0;
    uint64_t m_FirstSector = 0;  // of the current stream, on the disk
    uint64_t m_NextFirstSector = 0;
};

}  // namespace

std::unique_ptr<IRestoreTarget> MakeRawTarget() {
    return std::make_unique<CRawTarget>();
}

CZuError BeginRestored(CStagedFile& file, const CBackupSetReader& set, const std::string& path, bool replacing) {
    if (IsSameFile(path, set.Path()))
        return Refusal(path + ": is the set that is to be restored; give another target");
    return file.Begin(path, replacing);
}

std::string TargetFile(const std::string& target, const std::string& name) {
    std::error_code ignored;  // what can't be looked at is no directory
    return std::filesystem::is_directory(target, ignored) ? (std::filesystem::path(target) / name).string() : target;
}
