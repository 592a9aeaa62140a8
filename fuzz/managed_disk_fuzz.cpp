// The input is what a server of disks answers: the size of its disk, what it tells of allocated and changed stretches,
// and the settings that go into the disk's record; and the record of a disk that is to be made. A server may answer
// anything.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "VirtualServer/VMInfo/ArchiveVirtualDiskFile.h"
#include "VirtualServer/VMInfo/IVMInfo.h"
#include "VirtualServer/VMInfo/VmdkVcb4ExtentReader.h"
#include "fuzz/support/Demand.h"
#include "fuzz/support/MemoryFiles.h"

namespace {

constexpr int MostBlocks = 100;
constexpr size_t MostStretches = 4;

// Numbers and texts off the front of the input, zeros behind its end.
class CInput {
public:
    CInput(const uint8_t* data, size_t size) : m_Data(data), m_Size(size) {}

    template <typename Number> Number Take() {
        Number number{};
        const size_t size = std::min(sizeof(number), m_Size);
        if (size != 0)
            std::memcpy(&number, m_Data, size);
        Skip(size);
        return number;
    }

    std::string TakeText(size_t size) {
        std::string text(reinterpret_cast<const char*>(m_Data), std::min(size, m_Size));
        Skip(text.size());
        return text;
    }

    size_t Left() const { return m_Size; }

private:
    void Skip(size_t size) {
        m_Data += size;
        m_Size -= size;
    }

    const uint8_t* m_Data;
    size_t m_Size;
};

class CAnyServer final : public IVMInfo {
public:
    explicit CAnyServer(CInput& input) : m_Sectors(input.Take<uint32_t>()), m_Input(input) {}
    CAnyServer(const CAnyServer&) = delete;
    CAnyServer& operator=(const CAnyServer&) = delete;
    virtual ~CAnyServer() = default;

    int GetLastErrorCode() override { return m_Input.Take<uint16_t>(); }
    int SetCurrVmdkFile(const char* /*name1*/, const char* /*name2*/, const std::string& /*fileName*/,
                        VmdkFileHandle_t& /*handle*/) override {
        return 1;
    }
    int CreateVmdkFile(const char* /*name1*/, const char* /*name2*/, const std::string& /*baseName*/,
                       VmdkFileHandle_t& /*handle*/, uint64_t /*sizeInBytes*/) override {
        return 1;
    }
    int GetCurrVmdkFileName(VmdkFileHandle_t& /*handle*/, std::string& /*fileName*/) override { return 1; }
    int GetCurrVmdkFileInfo(VmdkFileHandle_t& /*handle*/, VmdkFileInfo_t& info) override {
        info.sectors = m_Sectors;
        return 1;
    }
    int GetCurrVmdkFileMetaData(VmdkFileHandle_t& /*handle*/,
                                std::vector<std::pair<std::string, std::string>>& pairs) override {
        for (int count = m_Input.Take<uint8_t>() % 4; count > 0; --count) {
            std::string key = m_Input.TakeText(m_Input.Take<uint8_t>());
            pairs.emplace_back(std::move(key), m_Input.TakeText(m_Input.Take<uint8_t>()));
        }
        return 1;
    }

    // An answer is what the input has, but for the position, which most of the time is the one asked for. The input's
    // end ends the questions.
    int GetCurrVmdkFileExtents(VmdkFileHandle_t& /*handle*/, const char* /*changeId*/, uint64_t position,
                               VmdkFileExtents_t& extents) override {
        if (m_Input.Left() == 0)
            return 0;
        const uint8_t shape = m_Input.Take<uint8_t>();
        extents.position = shape % 16 == 15 ? m_Input.Take<uint64_t>() : position;
        extents.length = (shape & 16U) != 0 ? m_Input.Take<uint64_t>() : uint64_t{m_Input.Take<uint32_t>()} << 12U;
        extents.stretches.resize(shape % MostStretches);
        for (VmdkFileStretch_t& stretch : extents.stretches) {
            stretch.start = (shape & 32U) != 0 ? m_Input.Take<uint64_t>() : position + m_Input.Take<uint32_t>();
            stretch.length = (shape & 64U) != 0 ? m_Input.Take<uint64_t>() : m_Input.Take<uint32_t>();
        }
        return 1;
    }

    int ReadCurrVmdkFile(VmdkFileHandle_t& /*handle*/, uint64_t firstSector, uint32_t sectors, char* buffer) override {
        Demand(firstSector < m_Sectors && sectors <= m_Sectors - firstSector, "no read leaves the disk");
        std::memset(buffer, 'd', size_t{sectors} * 512);
        return 1;
    }
    int WriteCurrVmdkFile(VmdkFileHandle_t& /*handle*/, uint64_t /*firstSector*/, uint32_t sectors,
                          const char* data) override {
        volatile char last = data[size_t{sectors} * 512 - 1];
        static_cast<void>(last);
        return m_Input.Take<uint8_t>() % 4;
    }
    int PrepareVDI(xen_vdi_record& /*record*/) override { return 1; }
    int GetVDIRecord(xen_vdi_record& /*record*/) override { return 1; }
    int CreateVDI(xen_vdi_record& /*record*/, const std::string& /*text*/, std::string& /*device*/) override {
        return 1;
    }

    uint64_t Sectors() const { return m_Sectors; }

private:
    uint32_t m_Sectors;
    CInput& m_Input;
};

void TryStream(CAnyServer& server, uint32_t blockSectors, bool isIncremental) {
    CArchiveVirtualDiskFile disk(VirtualProdType_VMware);
    disk.SetVMInfo(&server, "", "");
    disk.SetExtentSize(blockSectors);
    disk.SetChangeId(isIncremental ? "since" : "");
    if (disk.Open("disk", DiskType_VMInfoDisk).IsErrorSet())
        return;
    CAutoMemory<char> metadata;
    CAutoMemory<char> block;
    Context_t context{};
    DemandSuccess(disk.GetFirstBlock(metadata, 0, context), "an open disk has a record");
    uint64_t expected = 0;
    for (int count = 0; count < MostBlocks; ++count) {
        uint64_t number = 0;
        const CZuError error = disk.GetNextBlock(block, number, context);
        if (disk.IsErrorEOF(error) != 0)
            return;
        DemandSuccess(error, "a block comes, or the end");
        Demand(number >= expected && number * context.blockSectors < server.Sectors(), "numbers go up, on the disk");
        Demand(block.GetSize() == 0 || block.GetSize() == context.blockSectors * 512, "a block is whole, or unchanged");
        expected = number + 1;
    }
}

void TryRecord(CAnyServer& server, std::string text, bool isManaged) {
    CMemoryFiles files;
    char size[9];
    std::snprintf(size, sizeof(size), "%08x", static_cast<unsigned int>(text.size()));
    if (text.size() >= 32)
        text.replace(0, 16, "VDVWVD10" + std::string(size));
    CAutoMemory<char> record;
    if (record.Alloc(static_cast<uint32_t>(text.size())) != nullptr)
        std::copy(text.begin(), text.end(), record.GetPtr());
    CVmdkVcb4ExtentReader reader;
    DiskGeometry_t geometry{};
    DiskProvisioningType_t provisioning{};
    std::string texts[3];
    const bool isSound =
        !reader.ParseDiskMetaData(record, geometry, provisioning, texts[0], texts[1], texts[2]).IsErrorSet();
    reader.SetVMInfo(isManaged ? &server : nullptr, "", "");
    if (reader.CreateDisk("disk.vmdk", VwExtentTypeFlat, record).IsErrorSet())
        return;
    Demand(isSound, "what makes a disk has settings, too");
    CAutoMemory<char> data;
    if (data.Alloc(700) == nullptr)
        return;
    std::memset(data.GetPtr(), 'w', data.GetSize());
    for (const uint64_t number : {uint64_t{0}, uint64_t{1}, uint64_t{1} << 32U, ~uint64_t{0}})
        EitherWay(reader.WriteBlock(number, 8, data));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    CInput input(data, size);
    const auto shape = input.Take<uint8_t>();
    const uint32_t blockSectors = uint32_t{input.Take<uint8_t>()} * 8;
    const std::string record = input.TakeText(input.Take<uint8_t>());
    CAnyServer server(input);
    TryRecord(server, record, (shape & 1U) != 0);
    TryStream(server, blockSectors, (shape & 2U) != 0);
    return 0;
}
