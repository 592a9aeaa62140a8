// The input is the files of a metadata collection: which of them have no signature, the lengths of four of them, and
// these, one behind the other: volume information, associates, security, directory structure. The rest is the copy of
// the MFT, whose update sequences are put in afterwards. All files that open are read, their resident streams and the
// descriptions of the others.
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "archive/MAVolume.h"
#include "fuzz/support/Demand.h"
#include "fuzz/support/MemoryCeiling.h"
#include "fuzz/support/NtfsImage.h"

extern "C" __attribute__((weak)) size_t LLVMFuzzerMutate(uint8_t* data, size_t size, size_t maxSize);

namespace {

enum Part_t : size_t { Information, Associates, Security, Directory, Mft, PartCount };

constexpr size_t HeadBytes = 1 + 4 * 3;
constexpr char Signature[12] = {'O', 'b', 'I', 'M', 'G', 'D', 'C', 0, '1', '.', '0', 0};
constexpr size_t RecordBytesOffset = 4 + 48;  // in the volume information, behind its signature
// What one input may cost: each line of the associates merges a record.
constexpr uint32_t MostRecordBytes = 4096;
constexpr size_t MostAssociates = 2048;
constexpr uint64_t MostRecords = 40;
constexpr uint64_t MostMemory = 32U << 20U;
constexpr uint32_t LargeBuffer = 70'000;
constexpr uint32_t SmallBuffer = 150;

struct Stretch_t {
    size_t at = 0;
    size_t length = 0;
};

// Where the parts of an input lie. A length that goes beyond the end is cut.
std::vector<Stretch_t> PartsOf(const uint8_t* data, size_t size) {
    std::vector<Stretch_t> parts(PartCount);
    size_t at = std::min(size, HeadBytes);
    for (size_t part = 0; part < PartCount; ++part) {
        size_t length = size - at;
        if (part != Mft && size >= HeadBytes) {
            const uint8_t* const field = data + 1 + 3 * part;
            length = std::min<size_t>(length, field[0] + 256U * field[1] + 65536U * field[2]);
        }
        parts[part] = {at, length};
        at += length;
    }
    return parts;
}

// A file in memory that has a name.
class CNamedMemory {
public:
    CNamedMemory() : m_Fd(memfd_create("part", MFD_CLOEXEC)), m_Path("/proc/self/fd/" + std::to_string(m_Fd)) {
        Demand(m_Fd >= 0, "memory has a file");
    }

    void Put(const std::string& bytes) {
        Demand(ftruncate(m_Fd, 0) == 0 &&
                   pwrite(m_Fd, bytes.data(), bytes.size(), 0) == static_cast<ssize_t>(bytes.size()),
               "memory takes bytes");
    }
    const char* Path() const { return m_Path.c_str(); }

private:
    int m_Fd;
    std::string m_Path;
};

CNamedMemory& FileOf(Part_t part) {
    static CNamedMemory files[PartCount];
    return files[part];
}

// A record of a gibibyte would take one before it is found to be missing.
void BoundRecordBytes(std::string& information) {
    if (information.size() < RecordBytesOffset + 4)
        return;
    const uint64_t bytes = NtfsNumberAt(information, RecordBytesOffset, 4);
    for (size_t index = 0; bytes > MostRecordBytes && index < 4; ++index)
        information[RecordBytesOffset + index] =
            static_cast<char>(bytes % (MostRecordBytes + 1) >> (8 * index) & 0xFFU);
}

void PutFiles(const uint8_t* data, size_t size) {
    const std::vector<Stretch_t> parts = PartsOf(data, size);
    for (const Part_t part : {Information, Associates, Security, Directory, Mft}) {
        std::string bytes(reinterpret_cast<const char*>(data) + parts[part].at, parts[part].length);
        if (part == Associates)
            bytes.resize(std::min(bytes.size(), MostAssociates));
        if (part == Information)
            BoundRecordBytes(bytes);
        if (part == Mft)
            PutNtfsUpdateSequences(bytes);
        else if (size != 0 && (data[0] >> part & 1U) == 0)
            bytes.insert(0, Signature, sizeof(Signature));
        FileOf(part).Put(bytes);
    }
}

void CheckText(CMAVolume& volume, int result) {
    Demand(result != NtfsOk || volume.GetLastErrorStr()[0] == 0, "a success leaves no text");
    Demand(result == NtfsOk || result == NtfsEndOfRun || volume.GetLastErrorStr()[0] != 0, "a failure leaves a text");
}

struct File_t {
    CAutoMemory<char> record;
    MA_BACKUPREAD_CONTEXT context;
};

// Whole streams, each as long as its head says.
void CheckStreams(const std::string& bytes) {
    constexpr size_t headBytes = 20;
    for (size_t at = 0; at < bytes.size();) {
        Demand(bytes.size() - at >= headBytes, "a stream has its head");
        const uint64_t id = NtfsNumberAt(bytes, at, 4);
        Demand(id >= 1 && id <= 8 && id != 5 && id != 6, "a stream is of a known kind");
        const uint64_t length = headBytes + NtfsNumberAt(bytes, at + 8, 8) + NtfsNumberAt(bytes, at + 16, 4);
        Demand(length <= bytes.size() - at, "a stream is whole");
        at += length;
    }
}

// Every failure moves on in the order of the streams, so that it ends.
std::string ReadStreams(CMAVolume& volume, uint64_t frn, uint32_t bufferBytes) {
    File_t file;
    std::string all;
    Demand(volume.OpenFile(frn, &file.record, 1, &file.context) == NtfsOk, "a file opens again");
    for (;;) {
        std::string buffer(bufferBytes, '\0');
        uint32_t read = 0;
        const uint32_t before = file.context.tableIndex;
        const int result = volume.BackupReadRA(&file.record, buffer.data(), bufferBytes, &read, &file.context);
        Demand(read <= bufferBytes, "no more is read than there is room for");
        Demand(result == NtfsOk || file.context.tableIndex > before, "a stream that fails is passed over");
        CheckText(volume, result);
        CheckStreams(buffer.substr(0, read));
        all.append(buffer, 0, read);
        if (result == NtfsOk && read == 0)
            return all;
    }
}

void CheckDescription(const CAutoMemory<char>& extents) {
    if (extents.GetSize() == 0)
        return;
    Demand(extents.GetSize() >= sizeof(DATARUN_EXTENTS), "a decoded list has its head");
    const auto* const block = reinterpret_cast<const DATARUN_EXTENTS*>(extents.GetPtr());
    Demand(extents.GetSize() == sizeof(DATARUN_EXTENTS) + uint64_t{block->Count} * sizeof(DATARUN_EXTENT_t),
           "a decoded list is as long as its count says");
}

// Each call goes on behind the instance of the one before.
void ReadDescriptions(CMAVolume& volume, File_t& file) {
    for (bool isOver = false; !isOver;) {
        CAutoMemory<char> name;
        CAutoMemory<char> extents;
        uint64_t size = 0;
        uint64_t sizeOnDisk = 0;
        uint32_t type = 0;
        uint16_t unit = 0;
        const uint32_t before = file.context.instance;
        const int result =
            volume.BackupReadNRA(&file.record, &name, &size, &sizeOnDisk, &type, &unit, &extents, &file.context);
        CheckText(volume, result);
        isOver = result == NtfsEndOfRun && file.context.instance == before;
        Demand(isOver || file.context.instance > before, "each attribute is told once");
        Demand(result != NtfsOk || sizeOnDisk != 0, "an attribute that is told has room on the disk");
        if (result == NtfsOk)
            CheckDescription(extents);
    }
}

void ReadFacts(CMAVolume& volume, File_t& file) {
    uint64_t times[3];
    uint32_t attributes = 0;
    CheckText(volume, volume.GetFileTime(&file.record, &times[0], &times[1], &times[2]));
    CheckText(volume, volume.GetFileAttribute(&file.record, &attributes));
    for (uint32_t kind = 0; kind < 4; ++kind) {
        CAutoMemory<char> name;
        const int result = volume.GetFileName(&file.record, &name, kind);
        CheckText(volume, result);
        Demand(result != NtfsOk || name.GetSize() <= 510, "a name has 255 characters at most");
    }
}

void ReadFile(CMAVolume& volume, uint64_t frn) {
    File_t file;
    const int result = volume.OpenFile(frn, &file.record, 1, &file.context);
    CheckText(volume, result);
    if (result != NtfsOk)
        return;
    ReadFacts(volume, file);
    ReadDescriptions(volume, file);
    const std::string all = ReadStreams(volume, frn, LargeBuffer);
    const std::string part = ReadStreams(volume, frn, SmallBuffer);
    Demand(all.compare(0, part.size(), part) == 0, "a small buffer gives the same streams, as far as they fit");
    CheckText(volume, volume.CloseFile(&file.record, &file.context));
}

void ReadDirectory(CMAVolume& volume) {
    CheckText(volume, volume.OpenDirFile(FileOf(Directory).Path()));
    for (;;) {
        unsigned char kind = 0;
        uint64_t numbers[3];
        unsigned int d = 0;
        std::vector<char> name(MostDirFileNameBytes);  // of exactly the room that is needed
        const int result = volume.ReadDirFileRecord(&kind, &numbers[0], &numbers[1], &numbers[2], &d, name.data());
        if (result != NtfsOk)
            return;
        CheckText(volume, result);
    }
}

}  // namespace

extern "C" size_t LLVMFuzzerCustomMutator(uint8_t* data, size_t size, size_t maxSize, unsigned int seed) {
    std::minstd_rand random(seed);
    const Stretch_t part = PartsOf(data, size)[random() % PartCount];
    if (part.length < 8 || random() % 8 == 0)
        return LLVMFuzzerMutate(data, size, maxSize);
    for (size_t turn = random() % 3 + 1; turn > 0; --turn) {
        const size_t width = size_t{1} << random() % 4;
        uint8_t* const place = data + part.at + random() % (part.length / width) * width;
        const uint64_t power = uint64_t{1} << random() % 64;
        const uint64_t values[] = {0, ~uint64_t{0}, power, power - 1, random() % 64, 8 * (random() % 256)};
        const uint64_t value = values[random() % 6];
        if (random() % 3 == 0)
            LLVMFuzzerMutate(place, width, width);
        else
            std::memcpy(place, &value, width);
    }
    return size;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    PutFiles(data, size);
    const CMemoryCeiling ceiling(MostMemory);
    CMAVolume volume;
    const int opened = volume.OpenVolume(FileOf(Information).Path(), FileOf(Mft).Path(), FileOf(Associates).Path(),
                                         FileOf(Security).Path());
    CheckText(volume, opened);
    for (uint64_t frn = 0; opened == NtfsOk && frn < MostRecords; ++frn)
        ReadFile(volume, frn);
    ReadDirectory(volume);
    return 0;
}
