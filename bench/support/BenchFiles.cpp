#include "bench/support/BenchFiles.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <iterator>
#include <numeric>
#include <random>
#include <utility>

namespace {

namespace fs = std::filesystem;

constexpr uint64_t SectorBytes = 512;
constexpr uint64_t GrainSectors = BenchGrainBytes / SectorBytes;
constexpr uint64_t TableEntries = 512;
constexpr uint64_t TableSectors = TableEntries * 4 / SectorBytes;
constexpr uint64_t FlatPieceBytes = 1 << 20;

// Part of every name: a file of an older layout is left alone.
constexpr char LayoutVersion[] = "1";

[[noreturn]] void GiveUp(const std::string& path) {
    std::perror(path.c_str());
    std::exit(1);
}

// A file that gets its name only when it is whole.
class CNewFile {
public:
    explicit CNewFile(std::string path)
        : m_Path(std::move(path)), m_Fd(open(Part().c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600)) {
        if (m_Fd < 0)
            GiveUp(m_Path);
    }
    CNewFile(const CNewFile&) = delete;
    CNewFile& operator=(const CNewFile&) = delete;
    ~CNewFile() { close(m_Fd); }

    void Write(uint64_t offset, const void* bytes, uint64_t size) {
        if (pwrite(m_Fd, bytes, size, static_cast<off_t>(offset)) != static_cast<ssize_t>(size))
            GiveUp(m_Path);
    }

    // Writes behind what was appended before, in whole pieces: in some page caches a file that was
    // written across the borders of its pages reads a third slower ever after.
    void Append(const std::string& bytes) {
        m_Pending += bytes;
        const uint64_t whole = m_Pending.size() / AppendBytes * AppendBytes;
        Write(m_Appended, m_Pending.data(), whole);
        m_Appended += whole;
        m_Pending.erase(0, whole);
    }

    void FinishAppended() {
        Write(m_Appended, m_Pending.data(), m_Pending.size());
        Finish(m_Appended + m_Pending.size());
    }

    // The time that the disk takes would otherwise fall into what is measured.
    void Finish(uint64_t sizeBytes) {
        if (ftruncate(m_Fd, static_cast<off_t>(sizeBytes)) != 0 || fsync(m_Fd) != 0 ||
            rename(Part().c_str(), m_Path.c_str()) != 0)
            GiveUp(m_Path);
    }

private:
    static constexpr uint64_t AppendBytes = 1U << 20U;

    std::string Part() const { return m_Path + ".part"; }

    const std::string m_Path;
    const int m_Fd;
    std::string m_Pending;
    uint64_t m_Appended = 0;
};

void FillRandomly(std::vector<uint64_t>& words, std::mt19937_64& random) {
    std::generate(words.begin(), words.end(), std::ref(random));
}

void Put32(std::string& bytes, size_t offset, uint64_t value) {
    for (size_t byte = 0; byte < 4; ++byte, value >>= 8U)
        bytes[offset + byte] = static_cast<char>(value);
}

void Put64(std::string& bytes, size_t offset, uint64_t value) {
    Put32(bytes, offset, value);
    Put32(bytes, offset + 4, value >> 32U);
}

// Where the parts of a sparse extent lie, in sectors: the header, then twice a directory with its
// tables behind it, then grains.
struct SparseLayout_t {
    explicit SparseLayout_t(uint64_t diskBytes, bool withTables)
        : capacity(diskBytes / SectorBytes), tableCount(capacity / GrainSectors / TableEntries),
          directorySectors((tableCount * 4 + SectorBytes - 1) / SectorBytes), hasTables(withTables) {}

    uint64_t SetSectors() const { return directorySectors + (hasTables ? tableCount * TableSectors : 0); }
    uint64_t Directory(uint64_t set) const { return 1 + set * SetSectors(); }
    uint64_t Table(uint64_t set, uint64_t table) const {
        return Directory(set) + directorySectors + table * TableSectors;
    }
    uint64_t FirstGrain() const { return (Directory(2) + GrainSectors - 1) / GrainSectors * GrainSectors; }

    uint64_t capacity;
    uint64_t tableCount;
    uint64_t directorySectors;
    bool hasTables;
};

std::string SparseHeader(const SparseLayout_t& layout) {
    std::string header(SectorBytes, '\0');
    header.replace(0, 4, "KDMV");
    Put32(header, 4, 1);
    Put32(header, 8, 3);  // the redundant tables are the active ones, as most writers leave it
    Put64(header, 12, layout.capacity);
    Put64(header, 20, GrainSectors);
    Put32(header, 44, TableEntries);
    Put64(header, 48, layout.Directory(0));
    Put64(header, 56, layout.Directory(1));
    Put64(header, 64, layout.FirstGrain());
    header.replace(73, 4, "\n \r\n");
    return header;
}

void WriteHeaderAndDirectories(CNewFile& file, const SparseLayout_t& layout) {
    file.Write(0, SparseHeader(layout).data(), SectorBytes);
    for (uint64_t set = 0; set < 2 && layout.hasTables; ++set) {
        std::string directory(layout.tableCount * 4, '\0');
        for (uint64_t table = 0; table < layout.tableCount; ++table)
            Put32(directory, table * 4, layout.Table(set, table));
        file.Write(layout.Directory(set) * SectorBytes, directory.data(), directory.size());
    }
}

// The tables as one piece: they lie one behind the other. `entries` is by grain of the disk.
void WriteTables(CNewFile& file, const SparseLayout_t& layout, const std::vector<uint64_t>& entries) {
    std::string tables(entries.size() * 4, '\0');
    for (size_t grain = 0; grain < entries.size(); ++grain)
        Put32(tables, grain * 4, entries[grain]);
    for (uint64_t set = 0; set < 2; ++set)
        file.Write(layout.Table(set, 0) * SectorBytes, tables.data(), tables.size());
}

// The file sector of each grain of the disk, 0 for none. The same on every run.
std::vector<uint64_t> ScatterGrains(const SparseLayout_t& layout) {
    std::vector<uint64_t> grains(layout.capacity / GrainSectors);
    std::iota(grains.begin(), grains.end(), uint64_t{0});
    std::mt19937_64 random(20240229);
    for (size_t left = grains.size(); left > 1; --left)  // std::shuffle's result depends on the library
        std::swap(grains[left - 1], grains[random() % left]);
    std::vector<uint64_t> entries(grains.size());
    for (size_t slot = 0; slot < grains.size() / 2; ++slot)
        entries[grains[slot]] = layout.FirstGrain() + slot * GrainSectors;
    return entries;
}

void WriteRandomRange(CNewFile& file, FileRange_t range, uint64_t pieceBytes) {
    std::mt19937_64 random(range.offset);
    std::vector<uint64_t> piece(pieceBytes / sizeof(uint64_t));
    for (uint64_t done = 0; done < range.size; done += pieceBytes) {
        FillRandomly(piece, random);
        file.Write(range.offset + done, piece.data(), pieceBytes);
    }
}

std::string PathOf(const std::string& name) {
    const char* const directory = std::getenv("DISKSTREAM_BENCH_DIR");
    const fs::path path = directory != nullptr ? directory : "/tmp/diskstream-bench";
    std::error_code error;
    fs::create_directories(path, error);  // a failure shows when the file is opened
    return (path / name).string();
}

std::vector<FileRange_t> TableRanges(const SparseLayout_t& layout) {
    std::vector<FileRange_t> ranges;
    for (uint64_t set = 0; set < 2; ++set)
        ranges.push_back({layout.Directory(set) * SectorBytes, layout.SetSectors() * SectorBytes});
    return ranges;
}

BenchFile_t MakeHalfFullSparseDisk() {
    const SparseLayout_t layout(uint64_t{4} << 30U, true);
    const std::vector<uint64_t> entries = ScatterGrains(layout);
    BenchFile_t result{PathOf(std::string("half-full-") + LayoutVersion + ".vmdk"), {}, TableRanges(layout)};
    for (const uint64_t sector : entries) {
        if (sector != 0)
            result.data.push_back({sector * SectorBytes, BenchGrainBytes});
    }
    if (fs::exists(result.path))
        return result;
    CNewFile file(result.path);
    WriteHeaderAndDirectories(file, layout);
    WriteTables(file, layout, entries);
    const FileRange_t grains{layout.FirstGrain() * SectorBytes, result.data.size() * BenchGrainBytes};
    WriteRandomRange(file, grains, BenchGrainBytes);
    file.Finish(grains.offset + grains.size);
    return result;
}

BenchFile_t MakeEmptySparseDisk(bool hasTables) {
    const SparseLayout_t layout(uint64_t{2} << 40U, hasTables);
    const char* const name = hasTables ? "empty-tables-" : "empty-";
    BenchFile_t result{PathOf(std::string(name) + LayoutVersion + ".vmdk"), {}, TableRanges(layout)};
    if (fs::exists(result.path))
        return result;
    CNewFile file(result.path);
    WriteHeaderAndDirectories(file, layout);
    file.Finish(layout.FirstGrain() * SectorBytes);
    return result;
}

BenchFile_t MakeFlatDisk() {
    constexpr uint64_t diskBytes = uint64_t{1} << 30U;
    BenchFile_t result{PathOf(std::string("flat-") + LayoutVersion + ".vmdk"), {}, {}};
    for (uint64_t offset = 0; offset < diskBytes; offset += FlatPieceBytes)
        result.data.push_back({offset, FlatPieceBytes});
    if (fs::exists(result.path))
        return result;
    CNewFile file(result.path);
    WriteRandomRange(file, {0, diskBytes}, FlatPieceBytes);
    file.Finish(diskBytes);
    return result;
}

// A boot record with one NTFS partition, and bytes that look random behind it.
std::string DiskPiece(uint64_t offset, uint64_t size) {
    std::vector<uint64_t> words(size / sizeof(uint64_t));
    std::mt19937_64 random(offset);
    FillRandomly(words, random);
    std::string piece(reinterpret_cast<const char*>(words.data()), size);
    if (offset != 0)
        return piece;
    piece.replace(0, SectorBytes, SectorBytes, '\0');
    piece[450] = 7;
    Put32(piece, 454, 2048);
    Put32(piece, 458, WholeDiskBytes / SectorBytes - 2048);
    piece.replace(510, 2, "\x55\xAA");
    return piece;
}

BenchFile_t MakeWholeSparseDisk(const std::string& name, const std::function<bool(uint64_t)>& isHeld) {
    const SparseLayout_t layout(WholeDiskBytes, true);
    BenchFile_t result{PathOf(name + "-" + LayoutVersion + ".vmdk"), {}, TableRanges(layout)};
    if (fs::exists(result.path))
        return result;
    CNewFile file(result.path);
    std::vector<uint64_t> entries(layout.capacity / GrainSectors);
    uint64_t next = layout.FirstGrain();
    for (uint64_t grain = 0; grain < entries.size(); ++grain) {
        if (!isHeld(grain))
            continue;
        entries[grain] = next;
        file.Write(next * SectorBytes, DiskPiece(grain * BenchGrainBytes, BenchGrainBytes).data(), BenchGrainBytes);
        next += GrainSectors;
    }
    WriteHeaderAndDirectories(file, layout);
    WriteTables(file, layout, entries);
    file.Finish(next * SectorBytes);
    return result;
}

void PutBig32(std::string& bytes, size_t offset, uint64_t value) {
    for (size_t byte = 4; byte-- > 0; value >>= 8U)
        bytes[offset + byte] = static_cast<char>(value);
}

void PutBig64(std::string& bytes, size_t offset, uint64_t value) {
    PutBig32(bytes, offset, value >> 32U);
    PutBig32(bytes, offset + 4, value);
}

std::string VhdFooter() {
    std::string footer(SectorBytes, '\0');
    footer.replace(0, 8, "conectix");
    PutBig32(footer, 12, 0x00010000);
    PutBig64(footer, 16, SectorBytes);
    PutBig64(footer, 48, WholeDiskBytes);
    PutBig32(footer, 60, 3);
    return footer;
}

std::string VhdHeader(uint64_t entries, uint64_t blockBytes) {
    std::string header(2 * SectorBytes, '\0');
    header.replace(0, 8, "cxsparse");
    PutBig64(header, 16, 3 * SectorBytes);
    PutBig32(header, 24, 0x00010000);
    PutBig32(header, 28, entries);
    PutBig32(header, 32, blockBytes);
    return header;
}

// Footer copy, header and table, then blocks with one sector of bitmap each, then the footer.
BenchFile_t MakeDynamicVhdDisk() {
    constexpr uint64_t blockBytes = uint64_t{2} << 20U;
    constexpr uint64_t blocks = WholeDiskBytes / blockBytes;
    constexpr uint64_t firstBlock = 3 * SectorBytes + blocks * 4;
    static_assert(firstBlock % SectorBytes == 0);
    BenchFile_t result{PathOf(std::string("dynamic-") + LayoutVersion + ".vhd"), {}, {}};
    if (fs::exists(result.path))
        return result;
    std::string table(blocks * 4, '\0');
    for (uint64_t block = 0; block < blocks; ++block)
        PutBig32(table, block * 4, (firstBlock + block * (SectorBytes + blockBytes)) / SectorBytes);
    CNewFile file(result.path);
    file.Append(VhdFooter() + VhdHeader(blocks, blockBytes) + table);
    for (uint64_t block = 0; block < blocks; ++block)
        file.Append(std::string(SectorBytes, '\xFF') + DiskPiece(block * blockBytes, blockBytes));
    file.Append(VhdFooter());
    file.FinishAppended();
    return result;
}

}  // namespace

const BenchFile_t& HalfFullSparseDisk() {
    static const BenchFile_t file = MakeHalfFullSparseDisk();
    return file;
}

const BenchFile_t& EmptySparseDisk(bool hasTables) {
    static const BenchFile_t with = MakeEmptySparseDisk(true);
    static const BenchFile_t without = MakeEmptySparseDisk(false);
    return hasTables ? with : without;
}

const BenchFile_t& FlatDisk() {
    static const BenchFile_t file = MakeFlatDisk();
    return file;
}

const BenchFile_t& FullSparseDisk() {
    static const BenchFile_t file = MakeWholeSparseDisk("full", [](uint64_t /*grain*/) { return true; });
    return file;
}

const BenchFile_t& SparseLink(uint64_t link) {
    constexpr uint64_t step = 8;
    static const auto make = [](uint64_t first) {
        return MakeWholeSparseDisk("link-" + std::to_string(first),
                                   [first](uint64_t grain) { return grain % step == first; });
    };
    static const BenchFile_t links[] = {make(3), make(6)};
    return links[link % std::size(links)];
}

const BenchFile_t& DynamicVhdDisk() {
    static const BenchFile_t file = MakeDynamicVhdDisk();
    return file;
}

std::string BenchTarget(const char* name) {
    return PathOf(name);
}
