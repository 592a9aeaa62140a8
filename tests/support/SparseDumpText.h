#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

#include "tests/support/Bytes.h"
#include "tests/support/MetadataRecordText.h"

// The sparse dump of one extent as a test sees it: put together and taken apart by its own offsets.
struct SparseDumpText_t {
    std::string name;
    uint64_t startLba = 0;
    uint64_t endLba = 0;
    uint64_t blockSize = 0;
    uint64_t grainSize = 0;
    uint64_t fileOffset = 0;
    uint64_t grainsPerBucket = 0;
    uint64_t bucketCount = 0;
    uint64_t topBitmapBytes = 0;
    uint64_t bucketBytes = 0;
    std::string topBitmap;
    std::vector<std::string> buckets;  // empty texts where the top bitmap has no bit

    static constexpr size_t RecordBytes = 1153;

    // The record, then the bitmaps that are there.
    std::string Bytes() const {
        std::string bytes(RecordBytes, '\0');
        PutBytes(bytes, 0, name);
        PutBytes(bytes, 1024, HexDigits(startLba, 16));
        PutBytes(bytes, 1041, HexDigits(endLba, 16));
        PutBytes(bytes, 1058, HexDigits(blockSize, 16));
        PutBytes(bytes, 1075, HexDigits(grainSize, 16));
        PutBytes(bytes, 1092, HexDigits(fileOffset, 8));
        PutBytes(bytes, 1101, HexDigits(grainsPerBucket, 16));
        PutBytes(bytes, 1118, HexDigits(bucketCount, 16));
        PutBytes(bytes, 1135, HexDigits(topBitmapBytes, 8));
        PutBytes(bytes, 1144, HexDigits(bucketBytes, 8));
        bytes += topBitmap;
        for (const std::string& bucket : buckets)
            bytes += bucket;
        return bytes;
    }
};

// Takes one extent off the front of `bytes`. A dump that ends too early throws, which fails the test.
inline SparseDumpText_t TakeSparseDump(std::string& bytes) {
    const auto number = [&bytes](size_t offset, size_t digits) {
        return std::stoull(bytes.substr(offset, digits), nullptr, 16);
    };
    const auto take = [&bytes](size_t count) {
        std::string taken = bytes.substr(0, count);
        if (taken.size() != count)
            throw std::out_of_range("the dump ends in a bitmap");
        bytes.erase(0, count);
        return taken;
    };
    SparseDumpText_t dump;
    dump.name = bytes.substr(0, 1024).c_str();
    dump.startLba = number(1024, 16);
    dump.endLba = number(1041, 16);
    dump.blockSize = number(1058, 16);
    dump.grainSize = number(1075, 16);
    dump.fileOffset = number(1092, 8);
    dump.grainsPerBucket = number(1101, 16);
    dump.bucketCount = number(1118, 16);
    dump.topBitmapBytes = number(1135, 8);
    dump.bucketBytes = number(1144, 8);
    take(SparseDumpText_t::RecordBytes);
    dump.topBitmap = take(dump.topBitmapBytes);
    for (uint64_t index = 0; dump.topBitmapBytes != 0 && index < dump.bucketCount; ++index) {
        const bool isThere = (static_cast<unsigned char>(dump.topBitmap.at(index / 8)) >> (7 - index % 8) & 1) != 0;
        dump.buckets.push_back(isThere ? take(dump.bucketBytes) : "");
    }
    return dump;
}
