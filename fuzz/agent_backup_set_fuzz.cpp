// The input is the file of a backup set, which may build on a small one that is always sound. Its lists are signed
// anew, as somebody would do it who knows the format, so that what they say is taken for true. Whatever people can ask
// of a set is asked: it ends, takes no more memory than a set of that kind may, and gives no block of another size than
// was told.
#include <sqlite3.h>

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <vector>

#include "agent/BackupSetReader.h"
#include "agent/BackupSetWriter.h"
#include "agent/CatalogVolume.h"
#include "agent/Consolidate.h"
#include "agent/Restore.h"
#include "agent/Verify.h"
#include "agent/detail/PrivateDirectoryGuard.h"
#include "agent/detail/SetDigest.h"
#include "agent/detail/SetLists.h"
#include "fuzz/support/Demand.h"
#include "fuzz/support/MemoryCeiling.h"

namespace {

constexpr uint64_t MostMemory = uint64_t{1} << 29U;
constexpr uint64_t RootFrn = 5;
constexpr uint64_t MostRestoredSectors = 32768;
constexpr size_t MostBlocks = 4096;
constexpr size_t MostEntries = 512;
constexpr size_t MostFiles = 16;
constexpr uint32_t BaseBlockSectors = 128;
constexpr uint64_t BaseBlocks = 32;

// The set that an input may build on: every second block of a disk behind a hypervisor.
SetBase_t WriteBase(const std::string& path) {
    CBackupSetWriter writer;
    DemandSuccess(writer.Create(path, true), "the base can be made");
    SetDisk_t disk;
    disk.imageName = "disk";
    disk.diskType = DiskType_VMInfoDisk;
    disk.diskSectors = BaseBlocks * BaseBlockSectors;
    DemandSuccess(writer.AddDisk(disk), "the base takes its disk");
    SetStream_t stream;
    stream.fileName = "disk";
    stream.diskType = DiskType_VMInfoDisk;
    stream.blockSectors = BaseBlockSectors;
    stream.diskSectors = disk.diskSectors;
    DemandSuccess(writer.BeginStream(stream, {}, NoCompression), "the base takes its stream");
    CBlockEncoder encoder(DefaultCompression);
    CAutoMemory<char> packed;
    for (uint64_t number = 0; number < BaseBlocks; number += 2) {
        const std::string bytes(BaseBlockSectors << 9U, static_cast<char>('a' + number));
        SetBlock_t block;
        block.number = number;
        block.sectors = BaseBlockSectors;
        encoder.Encode(bytes.data(), static_cast<uint32_t>(bytes.size()), packed, block.encoded);
        DemandSuccess(writer.AddBlock(block), "the base takes its blocks");
    }
    DemandSuccess(writer.EndStream(), "the base's stream ends");
    DemandSuccess(writer.Commit({"2026-11-22T00:00:00Z", "fuzz"}), "the base becomes whole");
    CBackupSetReader reader;
    DemandSuccess(reader.Open(path), "the base is a set");
    return {"base", reader.Identity(), "bitmap"};
}

// Runs a statement whose parameter, if it has one, is a digest.
void Alter(sqlite3* database, const char* sql, const BlockDigest_t& digest) {
    sqlite3_stmt* statement = nullptr;
    if (sqlite3_prepare_v2(database, sql, -1, &statement, nullptr) == SQLITE_OK) {
        sqlite3_bind_blob(statement, 1, digest.data(), static_cast<int>(digest.size()), SQLITE_STATIC);
        sqlite3_step(statement);
    }
    sqlite3_finalize(statement);
}

// Files of a process, in a directory that goes away with it.
class CSetOnDisk {
public:
    CSetOnDisk() : m_Base(WriteBase(m_Directory.File("base"))) {}

    std::string Base() const { return m_Directory.File("base"); }
    std::string Set() const { return m_Directory.File("set"); }
    std::string Target() const { return m_Directory.File("target"); }

    void Write(const uint8_t* data, size_t size) const {
        std::ofstream file(Set(), std::ios::binary | std::ios::trunc);
        file.write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
    }

    void Sign() const {
        Change("UPDATE base SET identity = ?", m_Base.identity);
        SetLists_t lists;
        {
            CSetDatabase database;
            if (database.OpenForReading(Set()).IsErrorSet())
                return;
            EitherWay(ReadSetLists(database, lists));  // but for the digest, perhaps
        }
        Change("UPDATE backup_set SET digest = ?", DigestOfSet(lists));
    }

    void RemoveTarget() const {
        std::error_code ignored;  // nothing may have been made
        std::filesystem::remove_all(Target(), ignored);
    }

private:
    void Change(const char* sql, const BlockDigest_t& digest) const {
        sqlite3* database = nullptr;
        if (sqlite3_open_v2(Set().c_str(), &database, SQLITE_OPEN_READWRITE, nullptr) == SQLITE_OK) {
            sqlite3_db_config(database, SQLITE_DBCONFIG_DEFENSIVE, 1, nullptr);
            sqlite3_db_config(database, SQLITE_DBCONFIG_ENABLE_TRIGGER, 0, nullptr);
            sqlite3_exec(database, "PRAGMA journal_mode = OFF", nullptr, nullptr, nullptr);
            Alter(database, sql, digest);
        }
        sqlite3_close(database);
    }

    const CPrivateDirectory m_Directory;
    const SetBase_t m_Base;
};

void CheckBlocks(CBackupSetReader& set, const SetStream_t& stream) {
    if (set.BeginBlocks(stream).IsErrorSet())
        return;
    CBlockDecoder decoder;
    CAutoMemory<char> plain;
    std::optional<SetBlock_t> block;
    std::optional<uint64_t> before;
    for (size_t count = 0; count < MostBlocks && !set.NextBlock(block).IsErrorSet() && block.has_value(); ++count) {
        Demand(!before.has_value() || *before < block->number, "blocks come in the order of their numbers");
        Demand(block->sectors != 0 && block->sectors <= stream.blockSectors, "no block is larger than its stream's");
        before = block->number;
        if (decoder.Decode(block->encoded, block->sectors << 9U, plain))
            Demand(plain.GetSize() == block->sectors << 9U, "a block has the bytes that it says");
    }
    for (const uint64_t number :
         {uint64_t{0}, uint64_t{1}, uint64_t{2}, uint64_t{31}, before.value_or(7), ~uint64_t{0}}) {
        bool isThere = false;
        bool isNamed = false;
        if (!set.ReadBlock(stream, number, plain, isThere).IsErrorSet() && isThere) {
            Demand(plain.GetSize() != 0 && plain.GetSize() <= stream.blockSectors << 9U,
                   "a block is as large as it may");
            DemandSuccess(set.HasBlock(stream, number, isNamed), "what can be read can be asked for");
            Demand(isNamed, "what can be read is there");
        }
    }
}

void CheckPart(CBackupSetReader& set, const SetPart_t& part) {
    EitherWay(set.ProvePart(part));
    char buffer[600];
    for (const uint64_t offset : {uint64_t{0}, part.bytes / 2, part.bytes - std::min<uint64_t>(part.bytes, 100)}) {
        const auto size = static_cast<uint32_t>(std::min<uint64_t>(part.bytes - offset, sizeof(buffer)));
        EitherWay(set.ReadPart(part, offset, buffer, size));
    }
}

void CheckVolume(CBackupSetReader& set, const SetVolume_t& info) {
    EitherWay(set.ProveEntries(info));
    CCatalogVolume volume;
    if (volume.Open(set, info).IsErrorSet())
        return;
    NtfsListing_t listing;
    listing.isRecursive = true;
    std::vector<uint64_t> files;
    size_t entries = 0;
    EitherWay(volume.List(RootFrn, listing, [&](const NtfsEntry_t& entry) {
        if (files.size() < MostFiles)
            files.push_back(entry.file.frn);
        return ++entries < MostEntries;
    }));
    const TakeBytes_t takeSome = [](const char* /*bytes*/, uint32_t size) { return size < 1000; };
    for (const uint64_t frn : files) {
        NtfsFileInfo_t file;
        EitherWay(volume.Describe(frn, file));
        EitherWay(volume.ReadStream(frn, "", takeSome));
        EitherWay(volume.ReadBackupStream(frn, takeSome));
        std::string descriptor;
        EitherWay(volume.ReadSecurity(frn, descriptor));
    }
    uint64_t frn = 0;
    EitherWay(volume.Find("/folder\\a file.txt", frn));
}

bool IsSmall(const CBackupSetReader& set) {
    uint64_t sectors = 0;
    for (const SetStream_t& stream : set.Streams())
        sectors +=
            std::min(stream.diskSectors, MostRestoredSectors) + std::min(stream.fileBytes >> 9U, MostRestoredSectors);
    return sectors < MostRestoredSectors;
}

void CheckSet(const CSetOnDisk& files) {
    const CMemoryCeiling ceiling(MostMemory);
    CBackupSetReader set;
    if (set.Open(files.Set()).IsErrorSet())
        return;
    EitherWay(set.OpenBases({files.Base()}));
    for (const SetStream_t& stream : set.Streams()) {
        CAutoMemory<char> record;
        if (!set.ReadRecord(stream, record).IsErrorSet())
            Demand(record.GetSize() == stream.recordBytes, "a record has the bytes that its stream says");
        CheckBlocks(set, stream);
    }
    for (const SetPart_t& part : set.Parts())
        CheckPart(set, part);
    for (const SetVolume_t& volume : set.Volumes())
        CheckVolume(set, volume);
    VerifyOptions_t verify;
    verify.bases = {files.Base()};
    VerifyResult_t verified;
    EitherWay(VerifySet(files.Set(), verify, verified));
    if (!IsSmall(set))
        return;
    for (const bool asRaw : {true, false}) {
        RestoreOptions_t restore;
        restore.asRaw = asRaw;
        restore.bases = {files.Base()};
        RestoreResult_t restored;
        std::filesystem::create_directory(files.Target());
        EitherWay(RestoreDisk(files.Set(), files.Target(), restore, restored));
        files.RemoveTarget();
    }
    ConsolidateOptions_t consolidate;
    consolidate.bases = {files.Base()};
    ConsolidateResult_t consolidated;
    if (!ConsolidateSet(files.Set(), files.Target(), consolidate, consolidated).IsErrorSet()) {
        CBackupSetReader whole;
        DemandSuccess(whole.Open(files.Target()), "a consolidated set is a set");
        Demand(!whole.Info().base.has_value(), "a consolidated set builds on none");
    }
    files.RemoveTarget();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const CSetOnDisk files;
    files.Write(data, size);
    files.Sign();
    CheckSet(files);
    return 0;
}
