// Times what makes the metadata of a volume. The directory tree library is the one that the loader finds, so that
// LD_LIBRARY_PATH chooses between the real one and the one that only counts.
//
//   metadata_bench table COUNT PATH          a directory tree of so many files, the closing included
//   metadata_bench collect DESCRIPTOR DIR    all metadata of the first volume of a flat disk
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "VirtualServer/VMInfo/LVM.h"
#include "archive/CreateMFTTree.h"
#include "ntfs/DRVolume.h"

namespace {

constexpr uint64_t FirstUserFrn = 64;
constexpr uint64_t FilesOfDirectory = 400;

class CClock {
public:
    double Seconds() const { return std::chrono::duration<double>(std::chrono::steady_clock::now() - m_Start).count(); }

private:
    std::chrono::steady_clock::time_point m_Start = std::chrono::steady_clock::now();
};

int Fail(const char* what, int result) {
    std::fprintf(stderr, "metadata_bench: %s failed: %d\n", what, result);
    return 1;
}

// As a volume of directories of 400 files each: a directory, and its files behind it.
int AddFiles(CCreateMFTTree& tree, uint64_t count) {
    uint64_t directory = FirstUserFrn;
    for (uint64_t frn = FirstUserFrn; frn < FirstUserFrn + count; ++frn) {
        const bool isDirectory = (frn - FirstUserFrn) % FilesOfDirectory == 0;
        if (isDirectory)
            directory = frn;
        std::string name = "document " + std::to_string(frn * 7919 % 1000003) + ".txt";
        const auto time = static_cast<unsigned int>(1700000000 + frn);
        const int added = tree.Add(isDirectory ? 5 : directory, frn, frn * 37 % 100000, time, isDirectory ? 1 : 0,
                                   name.data(), isDirectory ? 0x10 : 0x20, time, time);
        if (added != 0)
            return added;
    }
    return 0;
}

int TimeTable(uint64_t count, char* path) {
    CCreateMFTTree tree;
    const CClock clock;
    if (const unsigned long loaded = tree.Init(); loaded != 0)
        return Fail("loading the tree's library", static_cast<int>(loaded));
    if (tree.Open(path) != 0)
        return Fail("opening the table", 1);
    if (const int added = AddFiles(tree, count); added != 0)
        return Fail("adding a file", added);
    const double addedAfter = clock.Seconds();
    if (tree.Close() != 0)
        return Fail("closing the table", 1);
    const double seconds = clock.Seconds();
    std::printf("%.6f s, %.6f s of it behind the last file, %.0f files a second\n", seconds, seconds - addedAfter,
                static_cast<double>(count) / seconds);
    return 0;
}

int TimeCollection(const char* descriptor, const std::string& dir) {
    Disk_t link;
    link.FileName = descriptor;
    link.Type = DiskType_TwoGbMaxExtentFlat;
    std::vector<LVM_HardDisk_t> disks(1);
    disks[0].Disks = {link};
    CLVM volumes;
    const CZuError error = volumes.InitializeFromDisk(disks);
    if (error.IsErrorSet() || volumes.GetVolumes().empty())
        return Fail("finding a volume", 1);
    LVM_Volume_t volume = volumes.GetVolumes().front();
    CDRVolume ntfs;
    if (const int opened = ntfs.OpenVolume(&volumes, volume); opened != NtfsOk)
        return Fail("opening the volume", opened);
    std::string root = "C:";
    std::string paths[] = {dir + "/information", dir + "/tree", dir + "/associate", dir + "/security"};
    const CClock clock;
    const int collected = ntfs.DumpMetadataInformation(root.data(), paths[0].data(), paths[1].data(), paths[2].data(),
                                                       paths[3].data(), 0);
    if (collected != NtfsOk)
        return Fail("collecting", collected);
    std::printf("%.6f s\n", clock.Seconds());
    return 0;
}

}  // namespace

int main(int count, char** arguments) {
    const std::string job = count == 4 ? arguments[1] : "";
    if (job == "table")
        return TimeTable(std::strtoull(arguments[2], nullptr, 10), arguments[3]);
    if (job == "collect")
        return TimeCollection(arguments[2], arguments[3]);
    std::fputs("usage: metadata_bench table COUNT PATH\n       metadata_bench collect DESCRIPTOR DIR\n", stderr);
    return 2;
}
