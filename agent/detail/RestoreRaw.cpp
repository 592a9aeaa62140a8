#include <algorithm>
#include <filesystem>

#include "VirtualServer/VMInfo/UtilityFunctions.h"
#include "agent/ErrorText.h"
#include "agent/detail/RestoreTarget.h"
#include "agent/detail/VmdkDescriptor.h"
#include "foundation/detail/CheckedMath.h"
#include "foundation/detail/ErrorHandling.h"

namespace {

// One file with the disk's sectors. What the set has no block for stays a hole.
class CRawTarget final : public IRestoreTarget {
public:
    CZuError Prepare(CBackupSetReader& set, const std::string& target, const RestoreOptions_t& options) override {
        std::string directChild;  // the name comes from the set, so it is proved before it is used
        ZU_RETURN_IF_ERROR(ErrorAt(set.Path(), ResolveExtentName(".", set.Info().imageName, false, directChild)));
        const std::string name = std::filesystem::path(set.Info().imageName).stem().string() + ".raw";
        ZU_RETURN_IF_ERROR(SumSectors(set));
        return BeginRestored(m_File, set, TargetFile(target, name), options.force);
    }

    CZuError BeginStream(CBackupSetReader& /*set*/, const SetStream_t& stream) override {
        if (!m_Raw.IsValid())
            ZU_RETURN_IF_ERROR(ErrorAt(m_File.Target(), CreateFile()));
        m_Stream = stream;
        m_FirstSector = m_NextFirstSector;
        m_NextFirstSector += stream.diskSectors;
        return CZuError();
    }

    CZuError WriteBlock(const SetBlock_t& block, CAutoMemory<char>& plain) override {
        const uint64_t sector = block.number * m_Stream.blockSectors;
        if (sector >= m_Stream.diskSectors)
            return CZuError();  // behind the disk's end
        const uint64_t sectors = std::min<uint64_t>(block.sectors, m_Stream.diskSectors - sector);
        return ErrorAt(m_File.Target(), WriteFileAt(m_Raw, (m_FirstSector + sector) << SectorShift, 0, plain.GetPtr(),
                                                    static_cast<unsigned int>(sectors << SectorShift), nullptr));
    }

    CZuError EndStream() override { return CZuError(); }

    CZuError Commit(std::vector<std::string>& files) override {
        ZU_RETURN_IF_ERROR(ErrorAt(m_File.Target(), m_Raw.Close()));
        ZU_RETURN_IF_ERROR(m_File.Commit());
        files.push_back(m_File.Target());
        return CZuError();
    }

private:
    CZuError SumSectors(CBackupSetReader& set) {
        uint64_t bytes = 0;
        for (const SetStream_t& stream : set.Streams()) {
            if (!CheckedAdd(m_TotalSectors, stream.diskSectors, m_TotalSectors) ||
                !SectorsToBytes(m_TotalSectors, bytes) || bytes > uint64_t{INT64_MAX})
                return set.Damaged("its streams are larger than a disk can be");
        }
        return CZuError();
    }

    CZuError CreateFile() {
        constexpr int ownerReadsAndWrites = 384;
        ZU_RETURN_IF_ERROR(m_Raw.Open(m_File.TemporaryName().c_str(),
                                      OpenAsBinary | OpenNotInherited | OpenCreating | OpenTruncating | OpenForBoth,
                                      ownerReadsAndWrites));
        return m_Raw.Truncate(static_cast<int64_t>(m_TotalSectors << SectorShift));
    }

    CStagedFile m_File;
    CZuFile m_Raw;
    SetStream_t m_Stream;
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
