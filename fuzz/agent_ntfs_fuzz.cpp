// The input is pieces of a small NTFS volume, see NtfsImage.h, on a disk of its own. Everything that people can ask of
// it is asked: the tree, each file's facts, streams, backup stream and descriptor. What is said of a file has to be
// what is given, and the volume's size bounds the memory that this takes.
#include <cstdint>
#include <set>
#include <string>
#include <vector>

#include "agent/NtfsVolume.h"
#include "agent/SecurityText.h"
#include "agent/VolumeSet.h"
#include "fuzz/support/Demand.h"
#include "fuzz/support/MemoryCeiling.h"
#include "fuzz/support/MemoryFiles.h"
#include "fuzz/support/NtfsImage.h"
#include "platform/DriveName.h"

extern "C" __attribute__((weak)) size_t LLVMFuzzerMutate(uint8_t* data, size_t size, size_t maxSize);

namespace {

constexpr uint64_t MostMemory = 32 * NtfsImageBytes;
constexpr uint64_t RootFrn = 5;
constexpr size_t MostEntries = 4096;
constexpr size_t MostFiles = 48;
constexpr uint64_t MostContents = 300000;

const char* const Paths[] = {"/", "\\folder/upper AND lower.TXT", "/many/file with a long name 40.txt", "/folder/none"};

// Takes bytes up to a limit.
class CTaker {
public:
    TakeBytes_t Take() {
        return [this](const char* bytes, uint32_t size) {
            Demand(size != 0 && bytes != nullptr, "bytes come in pieces that aren't empty");
            m_Taken += size;
            m_IsEnded = m_Taken >= MostContents;
            return !m_IsEnded;
        };
    }

    uint64_t Taken() const { return m_Taken; }
    bool IsEnded() const { return m_IsEnded; }

private:
    uint64_t m_Taken = 0;
    bool m_IsEnded = false;
};

void CheckStream(CNtfsVolume& volume, uint64_t frn, const NtfsStreamInfo_t& stream) {
    CTaker taker;
    const CZuError error = volume.ReadStream(frn, stream.name, taker.Take());
    Demand(!stream.isEncrypted || taker.Taken() == 0, "an encrypted stream is refused before its first byte");
    if (!error.IsErrorSet() && !taker.IsEnded())
        Demand(taker.Taken() == stream.bytes, "a stream has as many bytes as its file says");
}

void CheckFile(CNtfsVolume& volume, uint64_t frn) {
    NtfsFileInfo_t info;
    if (volume.Describe(frn, info).IsErrorSet())
        return;
    Demand(info.frn == frn, "a file has the number that it was asked for by");
    std::set<std::string> names;
    for (const NtfsStreamInfo_t& stream : info.streams) {
        // Of two streams of one name, which only damage makes, the first is read.
        if (names.insert(stream.name).second)
            CheckStream(volume, frn, stream);
    }
    CTaker taker;
    EitherWay(volume.ReadBackupStream(frn, taker.Take()));
    std::string descriptor;
    SecurityText_t text;
    if (!volume.ReadSecurity(frn, descriptor).IsErrorSet())
        EitherWay(DescribeSecurity(descriptor, text));
}

void CheckVolume(CVolumeSet& set, const VolumeInfo_t& info) {
    CNtfsVolume volume;
    if (volume.Open(set, info).IsErrorSet())
        return;
    volume.Warnings();
    std::set<uint64_t> files;
    NtfsListing_t listing;
    listing.isRecursive = true;
    listing.withMetadata = true;
    size_t entries = 0;
    EitherWay(volume.List(RootFrn, listing, [&](const NtfsEntry_t& entry) {
        Demand(entry.path.size() >= entry.name.size(), "a path ends in its name");
        if (files.size() < MostFiles)
            files.insert(entry.file.frn);
        return ++entries < MostEntries;
    }));
    for (const uint64_t frn : files)
        CheckFile(volume, frn);
    for (const char* const path : Paths) {
        uint64_t frn = 0;
        EitherWay(volume.Find(path, frn));
    }
}

void TryDisk(const std::string& path) {
    ImageOptions_t options;
    options.rawUnlessKnown = true;
    CVolumeSet set;
    if (set.Open({path}, options).IsErrorSet())
        return;
    const CMemoryCeiling ceiling(MostMemory);
    for (const VolumeInfo_t& info : set.Volumes())
        CheckVolume(set, info);
}

}  // namespace

extern "C" size_t LLVMFuzzerCustomMutator(uint8_t* data, size_t size, size_t maxSize, unsigned int seed) {
    return CNtfsImageMutator(data, size, maxSize, seed, LLVMFuzzerMutate).Run();
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    CMemoryFiles files;
    {
        const std::string image = NtfsImageFrom(data, size);
        const std::string path = std::string(DriveNamePrefix) + "disk";
        files.Put(path, image.data(), image.size());
        TryDisk(path);
    }
    Demand(files.OpenCount() == 0, "every file is closed in the end");
    return 0;
}
