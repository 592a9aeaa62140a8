#include <cstring>
#include <iterator>
#include <optional>
#include <string>

#include "VirtualServer/VMInfo/HardDiskReader.h"
#include "VirtualServer/VMInfo/UtilityFunctions.h"
#include "VirtualServer/VMInfo/detail/LDMFormat.h"
#include "VirtualServer/VMInfo/detail/TableReader.h"
#include "foundation/LgDebug.h"
#include "foundation/detail/ByteView.h"
#include "foundation/detail/CheckedMath.h"
#include "foundation/detail/ErrorHandling.h"

// Finds the database of a dynamic disk from its private header. The records are read in
// HardDiskVblk.cpp.

namespace {

constexpr char ConfigName[] = "config";
constexpr char LogName[] = "log";
constexpr uint64_t TocBlockOffsets[] = {1, 2, 2045, 2046};  // sectors from the database's start

// Replaces the words of a failure of an inner step.
CZuError Reworded(const CZuError& error, const CZuString& text) {
    return error.IsErrorSet() ? Refusal(text) : CZuError();
}

// A name of eight bytes at most, ended by 0.
void CopyName(const char (&onDisk)[8], char (&name)[9]) {
    std::memcpy(name, onDisk, sizeof(onDisk));
    name[sizeof(onDisk)] = '\0';
}

CZuError CheckBitmapName(const char* which, const char* found, const char* expected) {
    if (std::strcmp(found, expected) == 0)
        return CZuError();
    const CZuString text = CZuString("LDM partition TOC Block ") + which + " bitmap name is [{1}], expecting [{2}]";
    return Refusal(CZuString::Format(text, found, expected));
}

bool HasSamePlaces(const LDM_tocblock_t& left, const LDM_tocblock_t& right) {
    return left.Bitmap1Start == right.Bitmap1Start && left.Bitmap1Size == right.Bitmap1Size &&
           left.Bitmap2Start == right.Bitmap2Start && left.Bitmap2Size == right.Bitmap2Size;
}

bool LiesInside(uint64_t start, uint64_t size, uint64_t wholeSize) {
    uint64_t end = 0;
    return CheckedAdd(start, size, end) && end <= wholeSize;
}

// The record at the start of a sector; the caller's sector holds 512 bytes.
template <typename Record> Record RecordOf(const char* sector) {
    static_assert(sizeof(Record) <= SectorSize);
    Record record{};
    std::memcpy(&record, sector, sizeof(record));
    return record;
}

}  // namespace

CZuError CHardDiskReader::ParseLDMPrivateHead(char* sector, LDM_privhead_t& head) {
    head = LDM_privhead_t();
    const auto record = RecordOf<LdmPrivateHead_t>(sector);
    if (std::memcmp(record.signature, "PRIVHEAD", sizeof(record.signature)) != 0)
        return Refusal("LDM partition Private Head is corrupted");
    head.VersionMajor = record.versionMajor;
    head.VersionMinor = record.versionMinor;
    head.LogicalDiskStart = record.logicalDiskStart;
    head.LogicalDiskSize = record.logicalDiskSize;
    head.ConfigStart = record.configStart;
    head.ConfigSize = record.configSize;
    if (head.VersionMajor != 2 || (head.VersionMinor != 11 && head.VersionMinor != 12))
        return Refusal(CZuString::Format("LDM partition Private Head verion expecting 2.11 or 2.12. Got {1}.{2}",
                                         head.VersionMajor, head.VersionMinor));
    const std::string guidText(record.diskGuid, sizeof(record.diskGuid));
    if (ParseGuidText(guidText.c_str(), &head.DiskGUID) == 0)
        return Refusal("LDM partition, GUID value is not valid");
    return CZuError();
}

CZuError CHardDiskReader::ParseLDMTOCBlock(char* sector, LDM_tocblock_t& block) {
    block = LDM_tocblock_t();
    const auto record = RecordOf<LdmTocBlock_t>(sector);
    if (std::memcmp(record.signature, "TOCBLOCK", sizeof(record.signature)) != 0)
        return Refusal("LDM partition TOC Block is corrupted");
    CopyName(record.bitmap1Name, block.Bitmap1Name);
    block.Bitmap1Start = record.bitmap1Start;
    block.Bitmap1Size = record.bitmap1Size;
    ZU_RETURN_IF_ERROR(CheckBitmapName("first", block.Bitmap1Name, ConfigName));
    CopyName(record.bitmap2Name, block.Bitmap2Name);
    block.Bitmap2Start = record.bitmap2Start;
    block.Bitmap2Size = record.bitmap2Size;
    ZU_RETURN_IF_ERROR(CheckBitmapName("second", block.Bitmap2Name, LogName));
    return CZuError();
}

CZuError CHardDiskReader::ParseLDMVMDB(char* sector, LDM_vmdb_t& vmdb) {
    constexpr uint16_t consistent = 1;
    vmdb = LDM_vmdb_t();
    const auto record = RecordOf<LdmVmdb_t>(sector);
    if (std::memcmp(record.signature, "VMDB", sizeof(record.signature)) != 0)
        return Refusal("LDM partition VMDB is corrupted");
    vmdb.LastVBLKSeq = record.lastVblk;
    vmdb.VBLKSize = record.vblkSize;
    vmdb.VBLKFirstOffset = record.firstVblkOffset;
    vmdb.VersionMajor = record.versionMajor;
    vmdb.VersionMinor = record.versionMinor;
    if (vmdb.VersionMajor != 4 || vmdb.VersionMinor != 10)
        return Refusal(CZuString::Format("LDM partition VMDB verion expecting 4.10. Got {1}.{2}", vmdb.VersionMajor,
                                         vmdb.VersionMinor));
    if (record.state != consistent)
        return Refusal("LDM partition VMDB is not in consistent state");
    return CZuError();
}

CZuError CHardDiskReader::GetDynamicDiskDatabase(LDM_DB_t& db, uint64_t privateHeadLBA) {
    return WithinMemory(OutOfMemory, [&]() -> CZuError {
        ZU_RETURN_IF_ERROR(ReadPrivateHead(db, privateHeadLBA));
        ZU_RETURN_IF_ERROR(FindTocBlock(db));
        ZU_RETURN_IF_ERROR(ReadVmdb(db));
        const uint64_t vmdbLBA = db.PrivateHead.ConfigStart + db.TocBlock.Bitmap1Start;
        ZU_RETURN_IF_ERROR(Reworded(ParseLDMVBLK(vmdbLBA, db.Vmdb, db.Group), "Failed to parse VMBLK"));
        return CZuError();
    });
}

CZuError CHardDiskReader::ReadPrivateHead(LDM_DB_t& db, uint64_t lba) {
    char sector[SectorSize];
    ZU_RETURN_IF_ERROR(Reworded(ReadHardDiskData(FileOffsetOfSector(lba), sector, sizeof(sector)),
                                "Failed to read disk for private head"));
    ZU_RETURN_IF_ERROR(Reworded(ParseLDMPrivateHead(sector, db.PrivateHead), "Failed to parse private head"));
    return CZuError();
}

// One good copy of the four is enough, but all good ones have to agree.
CZuError CHardDiskReader::FindTocBlock(LDM_DB_t& db) {
    unsigned int found = 0;
    std::optional<unsigned int> different;
    for (unsigned int copy = 0; copy < std::size(TocBlockOffsets); ++copy) {
        LDM_tocblock_t block;
        if (!ReadTocBlock(db.PrivateHead.ConfigStart + TocBlockOffsets[copy], copy, block))
            continue;
        if (found == 0)
            db.TocBlock = block;
        else if (!different.has_value() && !HasSamePlaces(db.TocBlock, block))
            different = found;
        ++found;
    }
    if (found == 0)
        return Refusal("Failing because no valid tocblocks were found");
    const uint64_t size = db.PrivateHead.ConfigSize;
    if (!LiesInside(db.TocBlock.Bitmap1Start, db.TocBlock.Bitmap1Size, size) ||
        !LiesInside(db.TocBlock.Bitmap2Start, db.TocBlock.Bitmap2Size, size))
        return Refusal("Failing because the tocblock bitmaps are out of range");
    if (different.has_value())
        return Refusal(CZuString::Format("Failing because tocblocks 0 and {1} do not match", *different));
    return CZuError();
}

// False for a copy that isn't good, which is no failure of the disk.
bool CHardDiskReader::ReadTocBlock(uint64_t lba, unsigned int copy, LDM_tocblock_t& block) {
    char sector[SectorSize];
    if (!ReadHardDiskData(FileOffsetOfSector(lba), sector, sizeof(sector)).IsErrorSet())
        return !ParseLDMTOCBlock(sector, block).IsErrorSet();
    LgDebug().Error("CHardDiskReader::GetDynamicDiskDatabase", "Failed to find tocblock %u", copy);
    return false;
}

// Callers rely on the 32-bit product of the size test.
CZuError CHardDiskReader::ReadVmdb(LDM_DB_t& db) {
    char sector[SectorSize];
    const uint64_t lba = db.PrivateHead.ConfigStart + db.TocBlock.Bitmap1Start;
    ZU_RETURN_IF_ERROR(
        Reworded(ReadHardDiskData(FileOffsetOfSector(lba), sector, sizeof(sector)), "Failed to read disk for VMDB"));
    ZU_RETURN_IF_ERROR(Reworded(ParseLDMVMDB(sector, db.Vmdb), "Failed to parse VMDB"));
    const uint32_t recordBytes = db.Vmdb.VBLKSize * db.Vmdb.LastVBLKSeq;
    if (recordBytes > FileOffsetOfSector(db.TocBlock.Bitmap1Size))
        return Refusal("LDM partition VMDB exceeds allowed size specified by TOCBLOCK. Database is corrupt");
    return CZuError();
}
