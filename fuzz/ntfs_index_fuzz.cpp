// The input is a node of a directory's index, from its header on. It is walked in a block of its own size, and it is
// met as the root of a directory and as a block of its allocation, on a volume that has nothing else. No entry may
// leave the node, and a name that is found has to be in it.
#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include "fuzz/support/Demand.h"
#include "fuzz/support/MemoryCeiling.h"
#include "ntfs/DRVolume.h"
#include "ntfs/detail/IndexWalk.h"

namespace {

constexpr size_t ClusterBytes = 4096;
constexpr size_t FileRecordBytes = 4096;
constexpr size_t SectorBytes = 512;
constexpr size_t Records = 8;
constexpr size_t LargestRoot = 3000;
constexpr size_t MftLcn = 1;
constexpr size_t AllocationLcn = MftLcn + Records;
constexpr size_t VolumeClusters = AllocationLcn + 16;
constexpr uint64_t RootFrn = 5;
constexpr uint64_t MostMemory = 64 * VolumeClusters * ClusterBytes;

std::string Number(uint64_t value, size_t width) {
    std::string bytes;
    for (size_t index = 0; index < width; ++index)
        bytes += static_cast<char>(value >> (8 * index));
    return bytes;
}

void PutAt(std::string& bytes, size_t offset, const std::string& part) {
    bytes.resize(std::max(bytes.size(), offset + part.size()));
    bytes.replace(offset, part.size(), part);
}

std::string Padded(std::string bytes) {
    bytes.resize((bytes.size() + 7) / 8 * 8);
    return bytes;
}

std::string Resident(uint32_t type, const std::string& value) {
    const std::string content = Padded(value);
    return Number(type, 4) + Number(24 + content.size(), 4) + Number(0, 8) + Number(value.size(), 4) + Number(24, 4) +
           content;
}

std::string InClusters(uint32_t type, size_t lcn, size_t clusters) {
    const uint64_t bytes = clusters * ClusterBytes;
    const std::string runs = Padded(Number(0x11, 1) + Number(clusters, 1) + Number(lcn, 1) + Number(0, 1));
    return Number(type, 4) + Number(64 + runs.size(), 4) + Number(1, 8) + Number(0, 8) + Number(clusters - 1, 8) +
           Number(64, 8) + Number(bytes, 8) + Number(bytes, 8) + Number(bytes, 8) + runs;
}

std::string FileRecord(const std::string& attributes, uint16_t flags) {
    std::string record = "FILE" + Number(48, 2) + Number(1, 2);  // no sector's end is put aside
    PutAt(record, 16, Number(1, 2) + Number(1, 2) + Number(56, 2) + Number(flags, 2));
    PutAt(record, 56, attributes + Number(0xFFFFFFFF, 4));
    record.resize(FileRecordBytes);
    return record;
}

// A volume whose root directory has that index, and whose other files have no name.
class CIndexVolume : public CDRVolume {
public:
    CIndexVolume(const std::string& root, const std::string& allocation, uint32_t blockBytes)
        : m_Image(VolumeClusters * ClusterBytes, '\0') {
        const size_t clusters = std::clamp<size_t>(allocation.size() / ClusterBytes, 1, VolumeClusters - AllocationLcn);
        const std::string head = Number(0x30, 4) + Number(1, 4) + Number(blockBytes, 4) + Number(1, 4);
        PutRecord(0, FileRecord(InClusters(0x80, MftLcn, Records), 1));
        for (uint64_t frn = 1; frn < Records; ++frn)
            PutRecord(frn, FileRecord("", 1));
        PutRecord(RootFrn, FileRecord(Resident(0x90, head + root) + InClusters(0xA0, AllocationLcn, clusters), 3));
        PutAt(m_Image, AllocationLcn * ClusterBytes, allocation.substr(0, clusters * ClusterBytes));
    }

    void Search(const wchar_t* name) {
        LVM_Volume_t volume;
        OpenVolume(nullptr, volume);
        std::wstring path = std::wstring(L"\\") + name;
        uint64_t frn = 0;
        const int result = CrackFileName(path.data(), &frn);
        Demand((result == NtfsOk) == (frn != ~uint64_t{0}), "a name that is found has a number");
        CloseVolume();
    }

protected:
    int ReadVolumeInformation(NTFS_VOLUME_DATA_BUFFER* info) override {
        info->BytesPerSector = SectorBytes;
        info->BytesPerCluster = ClusterBytes;
        info->BytesPerFileRecordSegment = FileRecordBytes;
        info->MftStartLcn.QuadPart = MftLcn;
        return NtfsOk;
    }

    int ReadDisk(uint64_t offset, char* buffer, uint32_t size) override {
        if (offset > m_Image.size() || size > m_Image.size() - offset)
            return NtfsSeeLog;
        m_Image.copy(buffer, size, static_cast<size_t>(offset));
        return NtfsOk;
    }

private:
    void PutRecord(uint64_t frn, const std::string& record) {
        PutAt(m_Image, MftLcn * ClusterBytes + static_cast<size_t>(frn) * FileRecordBytes, record);
    }

    std::string m_Image;
};

// In a block of exactly its size.
void CheckWalk(const std::vector<char>& node) {
    CIndexWalk walk(CByteView(node.data(), node.size()));
    uint64_t behind = 0;
    for (;;) {
        uint64_t offset = 0;
        NtfsIndexEntryHead_t head{};
        const int result = walk.Next(offset, head);
        Demand(result == NtfsOk || result == NtfsIndexNotFound || result == NtfsIndexCorrupted, "a walk has few ends");
        if (result != NtfsOk)
            return;
        Demand(offset >= behind && head.length >= sizeof(head), "entries lie one behind the other");
        behind = offset + head.length;
        Demand(behind <= node.size(), "an entry lies in its node");
    }
}

void CheckSearches(const std::string& node) {
    const std::string block = "INDX" + Number(40, 2) + Number(1, 2) + std::string(16, '\0') + node;
    const std::string empty = Number(16, 4) + Number(32, 4) + Number(32, 4) + Number(0, 4) + Number(0, 8) +
                              Number(16, 2) + Number(0, 2) + Number(2, 4);
    const CMemoryCeiling ceiling(MostMemory);
    for (const wchar_t* const name : {L"$Secure", L"a", L"Name of a file.txt"}) {
        CIndexVolume(node.substr(0, LargestRoot), block, ClusterBytes).Search(name);
        CIndexVolume(empty, block, ClusterBytes).Search(name);
        CIndexVolume(empty, block, SectorBytes).Search(name);
        CIndexVolume(empty, block, static_cast<uint32_t>(block.size())).Search(name);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    CheckWalk(std::vector<char>(data, data + size));
    CheckSearches(std::string(reinterpret_cast<const char*>(data), size));
    return 0;
}
