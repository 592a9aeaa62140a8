#include "agent/detail/CatalogScan.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <filesystem>

#include "agent/ErrorText.h"
#include "agent/detail/NtfsNames.h"
#include "agent/detail/NtfsRecordFacts.h"
#include "agent/detail/SmallFileWrite.h"
#include "foundation/detail/ErrorHandling.h"
#include "foundation/detail/UnicodeText.h"
#include "ntfs/detail/MetadataFormat.h"
#include "ntfs/detail/NtfsFormat.h"
#include "ntfs/detail/VolumeSteps.h"

namespace {

constexpr size_t MostProblems = 100;

uint64_t KnownTime(uint64_t time) {
    return time <= uint64_t{INT64_MAX} ? time : 0;
}

// Seconds since 1970, cut to 32 bits.
uint32_t UnixTime(uint64_t time) {
    constexpr int64_t start = 0x19DB1DED53E8000;
    constexpr int64_t ticksPerSecond = 10'000'000;
    return static_cast<uint32_t>((static_cast<int64_t>(time) - start) / ticksPerSecond);
}

bool HasHalfPair(const std::u16string& name) {
    for (size_t at = 0; at < name.size(); ++at) {
        const bool isPair = IsHighSurrogate(name[at]) && at + 1 < name.size() && IsLowSurrogate(name[at + 1]);
        if (isPair)
            ++at;
        else if (IsHighSurrogate(name[at]) || IsLowSurrogate(name[at]))
            return true;
    }
    return false;
}

// The name that a tree of one name for each file has: the first long one, else a short one, else one of POSIX.
const ATTR_RECORD_HEADER_t* FirstNameOf(CAutoMemory<char>& record) {
    for (const uint32_t kind : {uint32_t{NameKindLong}, uint32_t{NameKindShort}, uint32_t{NameKindPosix}}) {
        const ATTR_RECORD_HEADER_t* const name = FindFileName(record.GetPtr(), kind);
        if (name != nullptr)
            return name;
    }
    return nullptr;
}

}  // namespace

SetEntry_t CatalogFile_t::EntryWith(uint64_t parent, std::string name, bool isFurtherName) const {
    SetEntry_t entry;
    entry.parent = parent;
    entry.frn = frn;
    entry.bytes = bytes;
    entry.modified = modified;
    entry.accessed = accessed;
    entry.created = created;
    entry.recordChanged = recordChanged;
    entry.attributes = attributes;
    entry.reparseTag = reparseTag;
    entry.links = links;
    entry.isDirectory = isDirectory;
    entry.isFurtherName = isFurtherName;
    entry.name = std::move(name);
    return entry;
}

CZuError CCatalogScan::Read(char* buffer, uint32_t room, uint32_t& got) {
    if (m_Frn == 0) {
        m_Pending.assign(MetadataSignature, sizeof(MetadataSignature));
        m_Frn = RootFrn;
    }
    while (m_Pending.size() - m_PendingAt < room && m_Frn < m_Volume.RecordCount()) {
        TakeRecord(m_Frn);
        m_Frn = m_Frn + 1 == FirstSystemFrn ? FirstUserFrn : m_Frn + 1;
    }
    got = static_cast<uint32_t>(std::min<size_t>(m_Pending.size() - m_PendingAt, room));
    std::memcpy(buffer, m_Pending.data() + m_PendingAt, got);
    m_PendingAt += got;
    if (m_PendingAt == m_Pending.size()) {
        m_Pending.clear();
        m_PendingAt = 0;
    }
    return CZuError();
}

void CCatalogScan::TakeRecord(uint64_t frn) {
    const int result = m_Volume.TryRecord(frn, m_Record);
    if (result == NtfsOk)
        TakeFile(frn);
    else if (result == NtfsNotBaseRecord)
        TakeExtension(frn);
    else if (result != NtfsNotInUse && m_Problems.size() < MostProblems)
        m_Problems.push_back(DescribeError(
            m_Volume.ErrorOf(CZuString::Format("{1}: file record {2}", m_Volume.Name(), frn).c_str(), result)));
}

void CCatalogScan::TakeExtension(uint64_t frn) {
    if (!m_KeepsAllNames)
        return;
    char line[48];
    const uint64_t base = NtfsHeadOf(m_Record).baseReference & FrnMask;
    const int bytes = std::snprintf(line, sizeof(line), "%" PRIx64 " %" PRIx64 "\n", base, frn);
    m_Associates.append(line, static_cast<size_t>(bytes));
}

const CatalogFile_t* CCatalogScan::Find(uint64_t frn) const {
    const auto found = std::lower_bound(m_Files.begin(), m_Files.end(), frn,
                                        [](const CatalogFile_t& file, uint64_t wanted) { return file.frn < wanted; });
    return found != m_Files.end() && found->frn == frn ? &*found : nullptr;
}

uint64_t CCatalogScan::CountLostNames() const {
    uint64_t lost = m_StrayNames;
    for (const auto& [parent, names] : m_NamesBelow) {
        const CatalogFile_t* const directory = Find(parent);
        if (parent >= FirstUserFrn && (directory == nullptr || !directory->isDirectory))
            lost += names;
    }
    return lost;
}

CZuError CCatalogScan::WriteAssociates(const std::string& path) const {
    std::error_code ignored;  // the core may have begun one
    std::filesystem::remove(path, ignored);
    return ErrorAt(path,
                   WriteSmallFile(path, std::string(MetadataSignature, sizeof(MetadataSignature)) + m_Associates));
}

void CCatalogScan::TakeFile(uint64_t frn) {
    const ATTR_RECORD_HEADER_t* const first = FirstNameOf(m_Record);
    if (first == nullptr)
        return;
    NtfsFileInfo_t info;
    DescribeNtfsRecord(m_Record, info);
    CatalogFile_t file;
    file.frn = frn;
    file.bytes = std::min<uint64_t>(info.bytes, INT64_MAX);
    file.modified = KnownTime(info.modification);
    file.accessed = KnownTime(info.access);
    file.created = KnownTime(info.creation);
    file.recordChanged = KnownTime(info.recordChange);
    file.attributes = info.attributes;
    file.reparseTag = info.reparseTag;
    file.links = info.links;
    file.isDirectory = info.isDirectory;
    if (frn == RootFrn) {
        PutRecord(file, 0, "", false);
    } else {
        TakeName(file, first, true);
        for (const ATTR_RECORD_HEADER_t* each = CDRFileRecord::FindFirstAttr(m_Record.GetPtr(), AttrFileName);
             each != nullptr;
             each = CDRFileRecord::FindNextAttr(AttrFileName, const_cast<ATTR_RECORD_HEADER_t*>(each))) {
            if (each != first)
                TakeName(file, each, false);
        }
    }
    m_Files.push_back(file);
}

// Short names stand beside a long one of the same place.
void CCatalogScan::TakeName(CatalogFile_t& file, const ATTR_RECORD_HEADER_t* attribute, bool isFirst) {
    NtfsFileName_t fields{};
    const CByteView value = ResidentValueOf(attribute);
    if (!value.Get(0, fields) || !value.Holds(sizeof(fields), uint64_t{fields.nameLength} * 2) ||
        fields.nameLength == 0 || (!isFirst && fields.nameKind == NameKindShort))
        return;
    const std::u16string name = NtfsNameAt(value.Data() + sizeof(fields), fields.nameLength);
    const uint64_t parent = fields.parent & FrnMask;
    if (!IsOfItsDirectory(fields.parent)) {
        ++m_StrayNames;
        return;
    }
    ++m_NamesBelow[parent];
    const std::string text = TextOfNtfsName(name);
    PutRecord(file, parent, text, !isFirst);
    // The tree has other characters for halves of pairs, and ends a name at a zero.
    file.isAsInTree = file.isAsInTree || (isFirst && !HasHalfPair(name) && name.find(u'\0') == std::u16string::npos);
    if (!isFirst || !file.isAsInTree || m_KeepsAllNames)
        m_Names.push_back(file.EntryWith(parent, text, !isFirst));
}

void CCatalogScan::PutRecord(const CatalogFile_t& file, uint64_t parent, const std::string& name, bool isFurther) {
    char kind = file.isDirectory ? 'd' : 'f';
    if (isFurther)
        kind = file.isDirectory ? 'D' : 'F';
    char numbers[96];
    const int bytes = std::snprintf(numbers, sizeof(numbers), "%c%" PRIx64 " %" PRIx64 " %" PRIx64 " %" PRIx32 " %zx|",
                                    kind, parent, file.frn, file.bytes, UnixTime(file.modified), name.size());
    m_Pending.append(numbers, static_cast<size_t>(bytes)).append(name);
}

bool CCatalogScan::IsOfItsDirectory(uint64_t parentReference) const {
    const uint64_t parent = parentReference & FrnMask;
    const auto expected = static_cast<uint16_t>(parentReference >> ReuseCountShift);
    return expected == 0 || parent >= m_ReuseCounts.size() || m_ReuseCounts[static_cast<size_t>(parent)] == expected;
}
