#include <algorithm>
#include <cstring>
#include <limits>
#include <string>
#include <string_view>

#include "foundation/detail/UnicodeText.h"
#include "ntfs/DRVolume.h"
#include "ntfs/detail/IndexWalk.h"
#include "ntfs/detail/NtfsFormat.h"
#include "ntfs/detail/ReadPosition.h"
#include "ntfs/detail/VolumeSteps.h"
#include "ntfs/detail/WithinMemory.h"
#include "platform/CaseFolding.h"

namespace {

constexpr uint32_t FileAttributeReadOnly = 1;
constexpr wchar_t Separator = L'\\';

// 16-bit text; what a wide character of 32 bits has beyond them becomes a pair.
std::u16string ToUtf16(const wchar_t* text, size_t length) {
    std::u16string result;
    result.reserve(length);
    for (size_t index = 0; index < length; ++index)
        AppendUtf16(static_cast<char32_t>(text[index]), result);
    return result;
}

// Compares as far as `length`, or to the end that both have before. `stored` are its bytes on disk; zeros follow them.
bool IsSameName(CByteView stored, const char16_t* name, uint32_t length) {
    for (uint32_t index = 0; index < length; ++index) {
        Le16_t character{};
        if (!stored.Get(uint64_t{index} * sizeof(character), character))
            character = 0;
        if (FoldCase(static_cast<char16_t>(uint16_t{character})) != FoldCase(name[index]))
            return false;
        if (character == 0)
            break;
    }
    return true;
}

bool IsDirectory(const char* record) {
    NtfsFileRecord_t head{};
    std::memcpy(&head, record, sizeof(head));
    return (head.flags & RecordIsDirectory) != 0;
}

}  // namespace

int CDRVolume::CrackFileName(wchar_t* path, uint64_t* frn) {
    if (path == nullptr || frn == nullptr)
        return NtfsInvalidParameter;
    *frn = std::numeric_limits<uint64_t>::max();
    return NtfsWithinMemory([&]() -> int {
        // The first character is the separator, whatever it is.
        std::wstring_view rest(path);
        rest.remove_prefix(std::min<size_t>(1, rest.size()));
        uint64_t current = RootFrn;
        while (!rest.empty()) {
            const size_t length = std::min(rest.find(Separator), rest.size());
            const std::u16string name = ToUtf16(rest.data(), length);
            if (!name.empty())
                NTFS_RETURN_IF_FAILED(
                    FindInDirectory(current, name.data(), static_cast<uint32_t>(name.size()), current));
            rest.remove_prefix(std::min(length + 1, rest.size()));
        }
        *frn = current;
        return NtfsOk;
    });
}

int CDRVolume::FindInDirectory(uint64_t directory, const char16_t* name, uint32_t nameLength, uint64_t& frn) {
    CAutoMemory<char> record;
    READFILECONTEXT context;
    NTFS_RETURN_IF_FAILED(OpenFile(directory, &record, 0, &context));
    NTFS_RETURN_IF_FAILED(CDRFileRecord::IsValidFileRec(record.GetPtr()));
    if (!IsDirectory(record.GetPtr()))
        return NtfsIndexNotFound;
    ATTR_RECORD_HEADER_t* const root = CDRFileRecord::FindFirstAttr(record.GetPtr(), AttrIndexRoot);
    if (root == nullptr)
        return NtfsNotAnIndex;
    CAutoMemory<char> extents;
    NTFS_RETURN_IF_FAILED(DecodeRuns(root, extents, 0));
    Position_t position;
    CAutoMemory<char> block;
    NTFS_RETURN_IF_FAILED(ReadValue(root, extents, position, IndexRootHeadBytes, block));
    NtfsIndexRoot_t head{};
    if (!CByteView(block.GetPtr(), block.GetSize()).Get(0, head) || head.collation != CollationFileName)
        return NtfsWrongCollation;
    if (head.blockBytes == 0)
        return NtfsOutOfMemory;
    const int read = ReadValue(root, extents, position, head.blockBytes, block);
    if (read != NtfsOk && read != NtfsEndOfRun)
        return read;
    INDEX_ENTRY_I30* entry = nullptr;
    if (SearchNames(block.GetPtr(), block.GetSize(), name, nameLength, &entry) == NtfsIndexFound) {
        frn = entry->Reference & FrnMask;
        return NtfsOk;
    }
    return FindInAllocation(record, head.blockBytes, name, nameLength, frn);
}

// Callers rely on the first segment alone being read, and on no result of a block but a hit ending the search.
int CDRVolume::FindInAllocation(CAutoMemory<char>& record, uint32_t blockBytes, const char16_t* name,
                                uint32_t nameLength, uint64_t& frn) {
    ATTR_RECORD_HEADER_t* const allocation = CDRFileRecord::FindFirstAttr(record.GetPtr(), AttrIndexAllocation);
    if (allocation == nullptr)
        return NtfsIndexNotFound;
    CAutoMemory<char> extents;
    NTFS_RETURN_IF_FAILED(DecodeRuns(allocation, extents, 0));
    Position_t position;
    CAutoMemory<char> block;
    for (;;) {
        const int read = ReadIndexBlock(allocation, extents, position, blockBytes, block);
        if (read != NtfsOk)
            return read == NtfsEndOfRun ? NtfsIndexNotFound : read;
        const CByteView node = NodeOf(block);
        INDEX_ENTRY_I30* entry = nullptr;
        if (SearchNames(node.Data(), node.Size(), name, nameLength, &entry) != NtfsIndexFound)
            continue;
        frn = entry->Reference & FrnMask;
        return NtfsOk;
    }
}

CByteView CDRVolume::NodeOf(const CAutoMemory<char>& block) {
    return CByteView(block.GetPtr(), block.GetSize()).From(IndexHeaderOffset);
}

// Reads on to the next block that holds a node of the index, and mends it. A hole holds none, and a volume may say that
// it goes on for ever.
int CDRVolume::ReadIndexBlock(ATTR_RECORD_HEADER_t* allocation, CAutoMemory<char>& extents, Position_t& position,
                              uint32_t blockBytes, CAutoMemory<char>& block) {
    if (blockBytes < IndexHeaderOffset)
        return NtfsEndOfRun;
    for (;;) {
        PassHole(allocation, ExtentsOf(extents), blockBytes, position);
        NTFS_RETURN_IF_FAILED(ReadValue(allocation, extents, position, blockBytes, block));
        if (block.GetSize() < blockBytes)
            return NtfsEndOfRun;
        if (CDRFileRecord::IsValidIndexRec(block.GetPtr()) == NtfsOk)
            return CDRFileRecord::DoINDXSectorFixup(block.GetPtr(), block.GetSize(), m_VolumeData.BytesPerSector);
    }
}

int CDRVolume::SearchIndexBlock_I30(char* indexHeader, wchar_t* name, uint32_t nameLength, INDEX_ENTRY_I30** entry) {
    return NtfsWithinMemory([&] {
        const std::u16string converted = ToUtf16(name, nameLength);
        return SearchNames(indexHeader, UnknownNodeBytes, converted.data(), static_cast<uint32_t>(converted.size()),
                           entry);
    });
}

int CDRVolume::SearchNames(const char* indexHeader, uint64_t size, const char16_t* name, uint32_t nameLength,
                           INDEX_ENTRY_I30** entry) {
    const CByteView node(indexHeader, size);
    CIndexWalk walk(node);
    uint64_t at = 0;
    NtfsIndexEntryHead_t head{};
    for (;;) {
        NTFS_RETURN_IF_FAILED(walk.Next(at, head));
        INDEX_ENTRY_I30 fields{};
        const uint64_t nameAt = at + sizeof(fields);
        if (!node.Get(at, fields) || !node.Holds(nameAt, uint64_t{fields.NameLength} * 2))
            return NtfsIndexCorrupted;
        const CByteView stored(indexHeader + nameAt, uint64_t{fields.NameLength} * 2);
        bool isHit = fields.NameLength == nameLength && IsSameName(stored, name, nameLength);
        if (!isHit && (fields.FileAttributes & FileAttributeReadOnly) == 0)
            NTFS_RETURN_IF_FAILED(HasLongName(fields.Reference & FrnMask, name, nameLength, isHit));
        if (isHit) {
            *entry = reinterpret_cast<INDEX_ENTRY_I30*>(const_cast<char*>(indexHeader) + at);
            return NtfsIndexFound;
        }
    }
}

// Callers rely on the name's length in bytes being held against a length in characters.
int CDRVolume::HasLongName(uint64_t frn, const char16_t* name, uint32_t nameLength, bool& isHit) {
    CAutoMemory<char> record;
    READFILECONTEXT context;
    if (OpenFile(frn, &record, 0, &context) != NtfsOk || CDRFileRecord::IsValidFileRec(record.GetPtr()) != NtfsOk)
        return NtfsIndexCorrupted;
    CAutoMemory<char> longName;
    if (GetFileName(&record, &longName, NameKindLong) != NtfsOk || longName.GetSize() != nameLength)
        return NtfsOk;
    isHit = IsSameName(CByteView(longName.GetPtr(), longName.GetSize()), name, nameLength);
    return NtfsOk;
}

ATTR_RECORD_HEADER_t* CDRVolume::GetFileNameAttribute(CAutoMemory<char>* record, uint32_t kind) {
    return record != nullptr && record->GetPtr() != nullptr ? FindFileName(record->GetPtr(), kind) : nullptr;
}

int CDRVolume::GetFileName(CAutoMemory<char>* record, CAutoMemory<char>* name, uint32_t kind) {
    const ATTR_RECORD_HEADER_t* const attribute = GetFileNameAttribute(record, kind);
    return attribute != nullptr && name != nullptr ? CopyFileName(attribute, *name) : NtfsIndexNotFound;
}
