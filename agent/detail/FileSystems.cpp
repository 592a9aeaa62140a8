#include "agent/detail/FileSystems.h"

#include <algorithm>
#include <cstring>
#include <vector>

#include "foundation/ByteOrder.h"
#include "foundation/detail/ByteView.h"
#include "foundation/detail/CheckedMath.h"
#include "foundation/detail/ErrorHandling.h"

namespace {

// What stands where at the start of a volume. The marks lie far enough from each other that the
// first that fits is right.
struct Mark_t {
    uint64_t offset;
    const char* bytes;
    size_t size;
    const char* name;
};

constexpr Mark_t Marks[] = {
    {3, "NTFS    ", 8, NtfsFileSystem},  {3, "EXFAT   ", 8, "exfat"},
    {3, "ReFS\0\0\0\0", 8, "refs"},      {3, "-FVE-FS-", 8, "bitlocker"},
    {82, "FAT32   ", 8, "fat32"},        {54, "FAT16   ", 8, "fat16"},
    {54, "FAT12   ", 8, "fat12"},        {0, "XFSB", 4, "xfs"},
    {0, "LUKS\xBA\xBE", 6, "luks"},      {0, "hsqs", 4, "squashfs"},
    {512, "LABELONE", 8, "lvm2"},        {1024, "H+\0\4", 4, "hfsplus"},
    {1024, "HX\0\5", 4, "hfsplus"},      {4086, "SWAPSPACE2", 10, "swap"},
    {4096, "\xFC\x4E\x2B\xA9", 4, "md"}, {32769, "CD001", 5, "iso9660"},
    {65600, "_BHRfS_M", 8, "btrfs"},
};

constexpr uint64_t ExtSuperblock = 1024;
constexpr uint64_t MarksEnd = 65600 + 8;

bool HasMark(CByteView start, const Mark_t& mark) {
    return start.Holds(mark.offset, mark.size) && std::memcmp(start.Data() + mark.offset, mark.bytes, mark.size) == 0;
}

// ext2, ext3 and ext4 differ in the features that their superblock tells.
std::string ExtName(CByteView start) {
    struct Superblock_t {
        char unused0[56];
        Le16_t magic;  // 56
        char unused58[34];
        Le32_t compatible;          // 92
        Le32_t incompatible;        // 96
        Le32_t readOnlyCompatible;  // 100
    };
    constexpr uint16_t magic = 0xEF53;
    constexpr uint32_t journal = 0x4;
    constexpr uint32_t ext3Incompatible = 0x2 | 0x4 | 0x10;
    constexpr uint32_t ext3ReadOnly = 0x1 | 0x2 | 0x4;
    Superblock_t superblock{};
    if (!start.Get(ExtSuperblock, superblock) || superblock.magic != magic)
        return {};
    if ((superblock.incompatible & ~ext3Incompatible) != 0 || (superblock.readOnlyCompatible & ~ext3ReadOnly) != 0)
        return "ext4";
    return (superblock.compatible & journal) != 0 ? "ext3" : "ext2";
}

std::string NameOf(CByteView start) {
    const auto* const found =
        std::find_if(std::begin(Marks), std::end(Marks), [&](const Mark_t& mark) { return HasMark(start, mark); });
    return found != std::end(Marks) ? found->name : ExtName(start);
}

}  // namespace

void RecognizeFileSystem(CWholeDisk& disk, uint64_t startSector, uint64_t sectors, std::string& name) {
    name.clear();
    if (startSector >= disk.TotalSectors())
        return;
    const uint64_t inside = std::min(sectors, disk.TotalSectors() - startSector);
    name = RecognizeFileSystem(inside, [&](void* buffer, uint32_t size) {
        return !disk.Read(startSector << SectorShift, buffer, size).IsErrorSet();
    });
}

std::string RecognizeFileSystem(uint64_t sectors, const ReadStart_t& read) {
    const uint64_t wanted = std::min(sectors, DivideRoundingUp(MarksEnd, SectorSize));
    std::vector<char> start(static_cast<size_t>(wanted << SectorShift));
    if (!read(start.data(), static_cast<uint32_t>(start.size())))
        return {};
    return NameOf(CByteView(start.data(), start.size()));
}

bool IsVolumeBootSector(const char (&sector)[512]) {
    constexpr uint64_t mostOffset = 90;
    const CByteView start(sector, sizeof(sector));
    return std::any_of(std::begin(Marks), std::end(Marks),
                       [&](const Mark_t& mark) { return mark.offset < mostOffset && HasMark(start, mark); });
}
