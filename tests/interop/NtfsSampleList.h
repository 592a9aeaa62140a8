#pragma once

#include <gtest/gtest.h>

#include <cctype>
#include <cstdint>
#include <filesystem>
#include <sstream>
#include <string>
#include <vector>

#include "tests/interop/NtfsComparison.h"

// NTFS volumes that Windows and drivers of others wrote, for machines that have the collection, and what is known of
// their streams.

constexpr uint64_t LongestContent = uint64_t{512} << 20U;  // longer ones take their time

struct NtfsSample_t {
    const char* archive;
    const char* files;               // of the archive, with an asterisk for any letters
    const char* manifest = nullptr;  // null where the streams aren't known
    const char* volume = "Volume1";
    bool isRaw = false;         // told to be, since its end looks like another kind's
    bool isWhole = false;       // nothing that can be reached from the root is damaged
    bool hasStrayFile = false;  // of which no directory knows
};

// A line of a manifest.
struct KnownStream_t {
    std::string sha256;
    uint64_t bytes = 0;
    uint64_t frn = 0;
    std::string path;
    std::string name;
};

inline KnownStream_t StreamOfLine(const std::string& line) {
    KnownStream_t stream;
    std::istringstream fields(line);
    fields >> stream.sha256 >> stream.bytes >> stream.frn;
    std::string rest;
    std::getline(fields, rest);
    const std::string path = rest.substr(rest.find(' ') + 1);
    const size_t colon = path.find(':');
    stream.path = path.substr(0, colon);
    stream.name = colon == std::string::npos ? std::string() : path.substr(colon + 1);
    return stream;
}

inline std::vector<KnownStream_t> StreamsOf(const std::string& manifest) {
    std::vector<KnownStream_t> streams;
    for (const std::string& line : LinesOf(ReadFileBytes(manifest))) {
        if (line.front() != '#')
            streams.push_back(StreamOfLine(line));
    }
    return streams;
}

constexpr NtfsSample_t KnownNtfsSamples[] = {
    {"ntfs/attrlist-ads", "charlie.dd", "ntfs-attrlist-ads", "Volume1", true},
    {"ntfs/disk-64g", "ntfs.raw", "ntfs-disk-64g"},
    {"ntfs/ea-linux", "ntfs3.raw", "ntfs-ea-linux", "Volume1", false, false, true},
    {"ntfs/gpt-vss", "vss_1_vol.raw", "ntfs-gpt-vss"},
    {"ntfs/large-dir-compressed", "ntfs.bin", "ntfs-large-dir-compressed", "Volume1", true},
    {"ntfs/links-reparse", "ntfs-links.dd", "ntfs-links-reparse"},
    {"ntfs/ptrn", "ntfs-ptrn.raw", "ntfs-ptrn"},
    {"ntfs/small-8m", "partition_image.raw", "ntfs-small-8m"},
    {"ntfs/win2003-vss", "vss_2003.raw", "ntfs-win2003-vss"},
    {"ntfs/xp-russian", "ntfs.img", "ntfs-xp-russian"},
    {"ntfs/xp-undelete", "7-ntfs-undel.dd", "ntfs-xp-undelete"},
    {"vhd/win10-dynamic-ntfs", "*.vhd", "vhd-win10-dynamic-ntfs"},
    {"vmdk/vmware-sparse-ntfs", "monolithicSparse.vmdk", "vmdk-vmware-sparse-ntfs"},
    {"vmdk/vmware-flat", "monolithicFlat.vmdk", "vmdk-vmware-sparse-ntfs"},
    {"ldm/2003r2", "*", "ldm-2003r2-F-spanned", "Volume1"},
    {"ldm/2003r2", "*", "ldm-2003r2-E-simple", "Volume2"},
    {"ldm/2003r2", "*", "ldm-2003r2-J-spanned", "Volume3"},
    {"ldm/2003r2", "*", "ldm-2003r2-G-striped", "Volume4"},
    {"ldm/2003r2", "*", "ldm-2003r2-I-raid5", "Volume5"},
    {"ldm/2003r2", "*", "ldm-2003r2-H-mirror1", "Volume6"},
    {"ldm/2008r2-spanned", "*", "ldm-2008r2-E-spanned", "Volume2"},
    {"lvm2/gpt-vg-test-3lv", "lvm2.raw", nullptr, "test-ntfs"},
};

constexpr NtfsSample_t DamagedNtfsImages[] = {
    {"ntfs/torn-records", "ntfs.img"},
    {"ntfs/broken-directory", "ntfs.img", nullptr, "Volume1", false, true},
    {"ntfs/metadata-2000-files", "ntfs.img"},
};

// Unpacks the sample's archive to `dir`, and tells its disks and its volume. False where it isn't there.
inline bool UnpackNtfsSample(const NtfsSample_t& sample, const CTempDir& dir, VolumeAt_t& at) {
    const std::string archive = std::string(DISKSTREAM_SAMPLES_DIR) + "/" + sample.archive + ".tar.xz";
    if (!std::filesystem::exists(archive))
        return false;
    EXPECT_TRUE(Runs("tar -C " + Quoted(dir.Path()) + " -xf " + Quoted(archive)));
    const std::string folder = dir.File(std::filesystem::path(sample.archive).filename());
    at.disks = LinesOf(OutputOf("ls -d " + folder + "/" + sample.files));
    at.volume = sample.volume;
    if (sample.isRaw)
        at.type = DiskTypeFromName("raw");
    return true;
}

inline std::string NameOfNtfsSample(const testing::TestParamInfo<NtfsSample_t>& sample) {
    std::string name = std::string(sample.param.archive) + "_" + sample.param.volume;
    for (char& character : name)
        character = std::isalnum(static_cast<unsigned char>(character)) != 0 ? character : '_';
    return name;
}
