#include "agent/detail/SetDigest.h"

#include <algorithm>
#include <cstring>
#include <string>

#include "agent/detail/SetSchema.h"
#include "foundation/ByteOrder.h"

namespace {

void AddDigest(CRunningDigest& digest, const BlockDigest_t& part) {
    digest.Add(part.data(), part.size());
}

void AddDisk(CRunningDigest& digest, const SetDisk_t& disk) {
    digest.AddText(disk.imageName);
    digest.AddNumber(static_cast<uint64_t>(disk.product));
    digest.AddNumber(static_cast<uint64_t>(disk.diskType));
    digest.AddNumber(disk.diskSectors);
    digest.AddNumber(disk.hasParent ? 1 : 0);
    digest.AddText(disk.parentName);
}

void AddInfo(CRunningDigest& digest, const SetInfo_t& info) {
    digest.AddText(info.createdUtc);
    digest.AddText(info.writer);
}

void AddStream(CRunningDigest& digest, const SetStream_t& stream) {
    digest.AddNumber(static_cast<uint64_t>(stream.id));
    digest.AddText(stream.fileName);
    digest.AddNumber(static_cast<uint64_t>(stream.diskType));
    digest.AddNumber(stream.blockSectors);
    digest.AddNumber(stream.diskSectors);
    digest.AddNumber(stream.fileBytes);
    digest.AddNumber(stream.recordBytes);
    AddDigest(digest, stream.recordDigest);
    digest.AddNumber(stream.blockCount);
    digest.AddNumber(stream.storedBytes);
    AddDigest(digest, stream.digest);
}

void AddFile(CRunningDigest& digest, const SetFile_t& file) {
    digest.AddText(file.name);
    digest.AddText(file.bytes);
}

void AddVolume(CRunningDigest& digest, const SetVolume_t& volume) {
    digest.AddNumber(static_cast<uint64_t>(volume.id));
    digest.AddText(volume.name);
    digest.AddText(volume.facts);
    digest.AddNumber(volume.entryCount);
    AddDigest(digest, volume.entriesDigest);
}

void AddPart(CRunningDigest& digest, const SetPart_t& part) {
    digest.AddNumber(static_cast<uint64_t>(part.id));
    digest.AddText(part.name);
    digest.AddNumber(part.bytes);
    AddDigest(digest, part.digest);
}

void AddBase(CRunningDigest& digest, const SetBase_t& base) {
    digest.AddText(base.name);
    AddDigest(digest, base.identity);
    digest.AddText(base.changedSince);
}

BlockDigest_t DigestOfVersion1(const SetLists_t& lists) {
    CRunningDigest digest;
    for (const SetDisk_t& disk : lists.disks)
        AddDisk(digest, disk);
    AddInfo(digest, lists.info);
    for (const SetStream_t& stream : lists.streams)
        AddStream(digest, stream);
    for (const SetFile_t& file : lists.files)
        AddFile(digest, file);
    return digest.Result();
}

// The count in front keeps the end of one list from passing for the beginning of the next.
template <typename List, typename AddEach> void AddList(CRunningDigest& digest, const List& list, AddEach addEach) {
    digest.AddNumber(list.size());
    for (const auto& each : list)
        addEach(each);
}

struct EntryNumbers_t {
    Le64_t parent;
    Le64_t frn;
    Le64_t bytes;
    Le64_t modified;
    Le64_t accessed;
    Le64_t created;
    Le64_t recordChanged;
    Le32_t attributes;
    Le32_t reparseTag;
    Le32_t links;
    uint8_t kind;
};
static_assert(sizeof(EntryNumbers_t) == 69);

uint64_t BigEndian64(const uint8_t* bytes) {
    Be64_t number;
    std::memcpy(&number, bytes, sizeof(number));
    return number;
}

}  // namespace

BlockDigest_t DigestOfSet(const SetLists_t& lists) {
    if (lists.version == 1)
        return DigestOfVersion1(lists);
    CRunningDigest digest;
    AddInfo(digest, lists.info);
    AddList(digest, lists.disks, [&](const SetDisk_t& disk) {
        digest.AddNumber(static_cast<uint64_t>(disk.id));
        AddDisk(digest, disk);
    });
    AddList(digest, lists.streams, [&](const SetStream_t& stream) {
        AddStream(digest, stream);
        digest.AddNumber(static_cast<uint64_t>(stream.disk));
    });
    AddList(digest, lists.files, [&](const SetFile_t& file) {
        digest.AddNumber(static_cast<uint64_t>(file.disk));
        AddFile(digest, file);
    });
    AddList(digest, lists.volumes, [&](const SetVolume_t& volume) { AddVolume(digest, volume); });
    AddList(digest, lists.parts, [&](const SetPart_t& part) { AddPart(digest, part); });
    if (lists.info.base.has_value())
        AddBase(digest, *lists.info.base);
    return digest.Result();
}

void CDigestSum::Add(const BlockDigest_t& digest) {
    const uint64_t low = BigEndian64(digest.data() + 8);
    m_Low += low;
    m_High += BigEndian64(digest.data()) + (m_Low < low ? 1 : 0);
}

BlockDigest_t CDigestSum::Result() const {
    BlockDigest_t digest;
    Be64_t high;
    Be64_t low;
    high = m_High;
    low = m_Low;
    std::memcpy(digest.data(), &high, sizeof(high));
    std::memcpy(digest.data() + 8, &low, sizeof(low));
    return digest;
}

uint8_t EntryKindOf(const SetEntry_t& entry) {
    return static_cast<uint8_t>((entry.isDirectory ? EntryIsDirectory : 0) +
                                (entry.isFurtherName ? EntryIsFurtherName : 0));
}

BlockDigest_t DigestOfEntry(const SetEntry_t& entry) {
    char bytes[sizeof(EntryNumbers_t) + LargestEntryNameBytes];
    EntryNumbers_t numbers{};
    numbers.parent = entry.parent;
    numbers.frn = entry.frn;
    numbers.bytes = entry.bytes;
    numbers.modified = entry.modified;
    numbers.accessed = entry.accessed;
    numbers.created = entry.created;
    numbers.recordChanged = entry.recordChanged;
    numbers.attributes = entry.attributes;
    numbers.reparseTag = entry.reparseTag;
    numbers.links = entry.links;
    numbers.kind = EntryKindOf(entry);
    std::memcpy(bytes, &numbers, sizeof(numbers));
    std::copy(entry.name.begin(), entry.name.end(), bytes + sizeof(numbers));
    return DigestOf(bytes, sizeof(numbers) + entry.name.size());
}
