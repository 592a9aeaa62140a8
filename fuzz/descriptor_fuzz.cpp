// The input is a descriptor file. What it parses to must keep what callers rely on, and the disk
// that it describes is opened, with the same small extent under every name.
#include <cstdint>
#include <cstring>
#include <string>

#include "VirtualServer/VMInfo/VmdkFileReader.h"
#include "fuzz/support/Demand.h"
#include "fuzz/support/MemoryFiles.h"

namespace {

constexpr char DescriptorName[] = "folder/disk.vmdk";
constexpr char ExtentName[] = "extent";
constexpr char DumpName[] = "dump";
constexpr uint64_t LargestDescriptorBytes = 20480;

void CheckExtent(const VmdkExtentDescriptor_t& extent) {
    Demand(extent.access >= VmdkAccessReadWrite && extent.access <= VmdkAccessNone, "an access is one of three");
    Demand(extent.type >= VwExtentTypeFlat && extent.type <= VwExtentTypeVmfsRaw, "an extent type is one of seven");
    Demand(extent.size > 0 && extent.size < uint64_t{1} << 63U, "a size is above 0 and has no sign");
    Demand(extent.offset == 0, "an offset is 0");
    Demand(std::strncmp(extent.fileName, "folder\\", 7) == 0, "an extent lies beside its descriptor");
}

bool SameText(const VmdkDescriptorFile_t& one, const VmdkDescriptorFile_t& other) {
    if (one.version != other.version || one.CID != other.CID || one.parentCID != other.parentCID ||
        one.createType != other.createType || one.extents.size() != other.extents.size())
        return false;
    for (size_t index = 0; index < one.extents.size(); ++index) {
        if (!(one.extents[index].fileName == other.extents[index].fileName))
            return false;
    }
    return true;
}

void TryParsing(size_t size) {
    CVmdkFileReader reader;
    VmdkDescriptorFile_t descriptor;
    if (reader.ParseVmdkDescriptorFile(DescriptorName, descriptor, DiskType_MonolithicFlat).IsErrorSet())
        return;
    Demand(size <= LargestDescriptorBytes, "a descriptor is no larger than 20 KiB");
    Demand(descriptor.createType >= NoDiskType && descriptor.createType <= DiskType_VmfsPassthroughRawDeviceMap,
           "a create type is one of the words or none");
    Demand(descriptor.extents.size() <= size / 8 + 1, "extents don't outnumber their lines");
    for (const VmdkExtentDescriptor_t& extent : descriptor.extents)
        CheckExtent(extent);

    VmdkDescriptorFile_t again;
    DemandSuccess(reader.ParseVmdkDescriptorFile(DescriptorName, again, DiskType_TwoGbMaxExtentSparse),
                  "what parses once parses twice");
    Demand(SameText(descriptor, again), "parsing twice gives the same");
}

void ReadAndDump(CVmdkFileReader& reader) {
    char sector[512];
    for (const uint64_t number : {uint64_t{0}, uint64_t{1}, uint64_t{7}, uint64_t{8}, ~uint64_t{0}})
        EitherWay(reader.ReadSector(number, sector, sizeof(sector)));
    CZuFile out;
    DemandSuccess(out.Open(DumpName, OpenForWriting | OpenCreating | OpenTruncating | OpenAsBinary, 384),
                  "a file in memory opens");
    DemandSuccess(reader.DumpSparseInfo(out, "disk", 128), "an open disk can be dumped");
}

void TryDisk(const CMemoryFiles& files, DiskType_t type) {
    CVmdkFileReader reader;
    if (reader.OpenDisk(DescriptorName, type).IsErrorSet()) {
        Demand(files.OpenCount() == 0, "a failed open leaves no file open");
        return;
    }
    ReadAndDump(reader);
    DemandSuccess(reader.CloseDisk(), "a disk closes");
}

void Put64(std::string& file, size_t offset, uint64_t value) {
    for (size_t byte = 0; byte < 8; ++byte, value >>= 8U)
        file[offset + byte] = static_cast<char>(value);
}

// Eight sectors in one grain, which lies behind the one table that both directories name.
std::string SparseExtent() {
    std::string file(16 * 512, '\0');
    file.replace(0, 4, "KDMV");
    file[4] = 1;
    Put64(file, 12, 8);
    Put64(file, 20, 8);
    file[45] = 2;  // 512 entries in a table
    Put64(file, 48, 1);
    Put64(file, 56, 1);
    file.replace(73, 4, "\n \r\n");
    file[512] = 2;
    file[1024] = 8;
    return file;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const std::string extent = SparseExtent();
    CMemoryFiles files;
    files.Put(DescriptorName, data, size);
    files.Put(ExtentName, extent.data(), extent.size());
    TryParsing(size);
    files.ServeAnyNameWith(ExtentName);
    TryDisk(files, DiskType_MonolithicFlat);
    TryDisk(files, DiskType_TwoGbMaxExtentSparse);
    Demand(files.OpenCount() == 0, "every file is closed in the end");
    return 0;
}
