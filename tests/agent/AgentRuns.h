#pragma once

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include "agent/Backup.h"
#include "agent/Restore.h"
#include "agent/Verify.h"
#include "tests/support/Bytes.h"
#include "tests/support/TempDir.h"
#include "tests/support/VmdkDescriptorBuilder.h"

// The operations of the agent with the options that most tests want, and disks for them.

inline CZuError BackUp(const std::string& image, const std::string& set, bool force = false) {
    BackupOptions_t options;
    options.force = force;
    BackupResult_t result;
    return BackUpDisk(image, set, options, result);
}

inline CZuError BackUpAs(DiskType_t type, const std::string& image, const std::string& set) {
    BackupOptions_t options;
    options.image.type = type;
    BackupResult_t result;
    return BackUpDisk(image, set, options, result);
}

inline CZuError Restore(const std::string& set, const std::string& target, bool force = false) {
    RestoreOptions_t options;
    options.force = force;
    RestoreResult_t result;
    return RestoreDisk(set, target, options, result);
}

inline CZuError RestoreRaw(const std::string& set, const std::string& target, bool force = false) {
    RestoreOptions_t options;
    options.asRaw = true;
    options.force = force;
    RestoreResult_t result;
    return RestoreDisk(set, target, options, result);
}

inline CZuError Verify(const std::string& set) {
    VerifyResult_t result;
    return VerifySet(set, VerifyOptions_t(), result);
}

// `differences` becomes what the set and the image don't have in common.
inline CZuError VerifyAgainst(const std::string& set, const std::string& image, std::vector<std::string>& differences,
                              const ImageOptions_t& imageOptions = ImageOptions_t()) {
    VerifyOptions_t options;
    options.against = image;
    options.image = imageOptions;
    VerifyResult_t result;
    CZuError error = VerifySet(set, options, result);
    differences = result.differences;
    return error;
}

// The content of a disk of `sectors` sectors: a block of zeros, blocks that shrink and blocks that
// don't, and data in its last sector.
inline std::string DiskContent(uint64_t sectors, uint64_t seed = 1) {
    constexpr uint64_t blockBytes = 65536;
    std::string bytes = PatternedBytes(sectors * 512, seed);
    for (uint64_t at = 0, block = 0; at < bytes.size(); at += blockBytes, ++block) {
        const uint64_t size = std::min<uint64_t>(blockBytes, bytes.size() - at);
        if (block % 3 == 1)
            bytes.replace(at, size, size, '\0');
        if (block % 3 == 2)
            bytes.replace(at, size, size, static_cast<char>('a' + block % 26));
    }
    PutBytes(bytes, bytes.size() - 16, "the last sector.");
    return bytes;
}

// A flat disk of these contents, one extent each, and its descriptor; returns the descriptor's path.
inline std::string WriteFlatDisk(const CTempDir& dir, const std::vector<std::string>& extents,
                                 const std::string& name = "disk") {
    CVmdkDescriptorBuilder descriptor;
    descriptor.CreateType(extents.size() == 1 ? "monolithicFlat" : "twoGbMaxExtentFlat");
    descriptor.Line("encoding=\"UTF-8\"").Line("isNativeSnapshot=\"no\"");
    for (size_t index = 0; index < extents.size(); ++index) {
        const std::string file =
            extents.size() == 1 ? name + "-flat.vmdk" : name + "-f00" + std::to_string(index + 1) + ".vmdk";
        dir.Write(file, extents[index]);
        descriptor.Extent(extents[index].size() / 512, "FLAT", file);
    }
    return descriptor.WriteTo(dir, name + ".vmdk");
}
