#pragma once

#include <cstdint>

#include "foundation/ByteOrder.h"
#include "ntfs/detail/NtfsFormat.h"

// The backup stream of a file: streams one behind the other, each a head, its name in 16-bit characters, and its data.
// See docs/formats/ntfs.md.

constexpr uint32_t StreamIdData = 1;
constexpr uint32_t StreamIdEaData = 2;
constexpr uint32_t StreamIdSecurity = 3;
constexpr uint32_t StreamIdAlternateData = 4;
constexpr uint32_t StreamIdLink = 5;
constexpr uint32_t StreamIdPropertyData = 6;
constexpr uint32_t StreamIdObjectId = 7;
constexpr uint32_t StreamIdSparseBlock = 9;

constexpr uint32_t StreamContainsSecurity = 2;
constexpr uint32_t StreamContainsProperties = 4;
constexpr uint32_t StreamIsSparse = 8;

constexpr uint32_t ObjectIdStreamBytes = 64;

struct BackupStreamHead_t {
    Le32_t id;          //  0
    Le32_t attributes;  //  4
    Le64_t bytes;       //  8  of the data; 0 for a sparse stream
    Le32_t nameBytes;   // 16
};
static_assert(sizeof(BackupStreamHead_t) == 20);

// A stretch of a sparse stream: its data follows. The last one has none, and tells where the stream ends.
struct SparseBlockHead_t {
    BackupStreamHead_t stream;
    Le64_t offset;  // 20  of the stretch in the stream
};
static_assert(sizeof(SparseBlockHead_t) == 28);

// Around a stream's name: ":" and ":$DATA".
constexpr char StreamNameFront[] = {':', 0};
constexpr char StreamNameEnd[] = {':', 0, '$', 0, 'D', 0, 'A', 0, 'T', 0, 'A', 0};

// The order of the streams of a file, by their attributes; 0 ends it.
constexpr uint32_t BackupStreamOrder[] = {AttrSecurityDescriptor, AttrData, AttrObjectId, AttrReparsePoint, AttrEa,
                                          AttrPropertySet,        0};

// Fills id and attributes of the head; false for an attribute that has no stream. Callers rely on a reparse point's
// going out as a link, which is its id from a live volume only.
inline bool DescribeBackupStream(uint32_t attributeType, bool hasName, BackupStreamHead_t& head) {
    switch (attributeType) {
    case AttrStandardInformation:
    case AttrSecurityDescriptor:
        head.id = StreamIdSecurity;
        head.attributes = StreamContainsSecurity;
        return true;
    case AttrData: head.id = hasName ? StreamIdAlternateData : StreamIdData; return true;
    case AttrObjectId: head.id = StreamIdObjectId; return true;
    case AttrReparsePoint: head.id = StreamIdLink; return true;
    case AttrEa: head.id = StreamIdEaData; return true;
    case AttrPropertySet:
        head.id = StreamIdPropertyData;
        head.attributes = StreamContainsProperties;
        return true;
    default: return false;
    }
}
