#include "agent/detail/CatalogClusters.h"

#include <algorithm>
#include <cstdio>

#include "agent/ErrorText.h"
#include "agent/detail/CatalogParts.h"
#include "agent/detail/PartFile.h"
#include "agent/detail/PrivateDirectoryGuard.h"
#include "foundation/detail/ErrorHandling.h"

namespace {

// A dump has bits for every sector or grain of its disks. One of many takes longer to read than the files that are
// asked for, and the layout leads to the same bytes.
constexpr uint64_t LargestDump = uint64_t{4} << 20U;

}  // namespace

CZuError CCatalogClusters::Open(const SetVolume_t& volume) {
    ZU_RETURN_IF_ERROR(
        ErrorAt(m_Set.Path() + ": " + volume.name, ReadCatalogFacts(volume.facts, m_Disks.DiskCount(), m_Facts)));
    m_Facts.volume.name = volume.name;
    if (m_Facts.isInDump)
        OpenDump(volume);
    return CZuError();
}

// Without it the layout tells all the same.
void CCatalogClusters::OpenDump(const SetVolume_t& volume) {
    const SetPart_t* const part = m_Set.FindPart(CatalogDumpPart);
    if (part == nullptr || part->bytes > LargestDump)
        return;
    const CPrivateDirectory directory;
    const std::string file = directory.File("dump");
    std::vector<LVM_Volume_t> volumes;
    if (!directory.IsMade() || CopyPartToFile(m_Set, *part, file).IsErrorSet() ||
        CLVM::ReadVolumeInfoFromDump(file.c_str(), volumes, &m_SparseInfo).IsErrorSet())
        return;
    const auto found = std::find_if(volumes.begin(), volumes.end(),
                                    [&](const LVM_Volume_t& each) { return volume.name == each.VolName; });
    if (found == volumes.end())
        return;
    m_DumpedVolume = std::make_unique<LVM_Volume_t>(std::move(*found));
    NameStreams();
}

// The core numbers the extents of a disk that may have several.
void CCatalogClusters::NameStreams() {
    for (const SetDisk_t& disk : m_Set.Disks()) {
        unsigned index = 0;
        for (const SetStream_t& stream : m_Set.StreamsOf(disk.id)) {
            char suffix[16];
            std::snprintf(suffix, sizeof(suffix), "_%08x", index++);
            const std::string name = CatalogDumpName(disk.id);
            m_Streams[disk.product == VirtualProdType_VMware ? name + suffix : name] = &stream;
        }
    }
}

CZuError CCatalogClusters::Read(uint64_t offset, char* buffer, uint32_t length) {
    CZuError error;
    if (m_DumpedVolume != nullptr && ReadByDump(offset, buffer, length, error))
        return error;
    return m_Reader.Read(m_Facts.volume, offset, buffer, length);
}

// False where the dump doesn't lead to all of the bytes.
bool CCatalogClusters::ReadByDump(uint64_t offset, char* buffer, uint32_t length, CZuError& error) {
    m_Runs.clear();
    if (CLVM::ConvertVolumeOffsetToDiskExtents(offset, length, *m_DumpedVolume, m_SparseInfo, m_Runs).IsErrorSet())
        return false;
    for (const LVM_Disk_Offset_Len_t& run : m_Runs) {
        const auto stream = m_Streams.find(run.ExtentName.c_str());
        if (stream == m_Streams.end())
            return false;
        const auto bytes = static_cast<uint32_t>(run.Length);
        error = m_Disks.ReadBlock(*stream->second, run.BlockNumber, run.BlockOffset, buffer, bytes);
        if (error.IsErrorSet())
            return true;
        buffer += bytes;
    }
    return true;
}
