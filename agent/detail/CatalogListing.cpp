#include "agent/detail/CatalogListing.h"

#include <algorithm>

#include "agent/ErrorText.h"
#include "agent/detail/NtfsNames.h"
#include "foundation/detail/ErrorHandling.h"
#include "platform/CaseFolding.h"

namespace {

bool IsAscii(char character) {
    return static_cast<unsigned char>(character) < 0x80;
}

char16_t FoldedAscii(char character) {
    const auto unit = static_cast<char16_t>(character);
    return unit >= u'a' && unit <= u'z' ? static_cast<char16_t>(unit - u'a' + u'A') : unit;
}

// In upper case. Most names are ASCII, which needs no table.
std::u16string FoldedName(const std::string& name) {
    std::u16string folded(name.size(), u'\0');
    if (std::all_of(name.begin(), name.end(), IsAscii)) {
        std::transform(name.begin(), name.end(), folded.begin(), FoldedAscii);
        return folded;
    }
    folded = NtfsNameOfText(name);
    std::transform(folded.begin(), folded.end(), folded.begin(), FoldCase);
    return folded;
}

}  // namespace

CZuError CCatalogListing::Run(uint64_t directory) {
    if (m_Listing.withMetadata)
        m_Listing.problems.push_back(m_Volume.name + ": a catalogue leaves the files out that make the volume itself");
    ZU_RETURN_IF_ERROR(Enter(directory, 0));
    bool isWanted = true;
    while (!m_Folders.empty() && isWanted)
        ZU_RETURN_IF_ERROR(GiveNext(isWanted));
    return CZuError();
}

CZuError CCatalogListing::Enter(uint64_t frn, size_t pathBytes) {
    m_Entered.insert(frn);
    Folder_t folder;
    folder.pathBytes = pathBytes;
    ZU_RETURN_IF_ERROR(m_Set.ForEachEntry(m_Volume.id, frn, [&](SetEntry_t& entry) {
        folder.names.push_back({FoldedName(entry.name), folder.entries.size()});
        folder.entries.push_back(std::move(entry));
        return true;
    }));
    const auto isInFront = [](const Name_t& left, const Name_t& right) { return left.folded < right.folded; };
    if (!std::is_sorted(folder.names.begin(), folder.names.end(), isInFront))
        std::stable_sort(folder.names.begin(), folder.names.end(), isInFront);
    m_Folders.push_back(std::move(folder));
    return CZuError();
}

CZuError CCatalogListing::GiveNext(bool& isWanted) {
    Folder_t& folder = m_Folders.back();
    m_Path.resize(folder.pathBytes);
    if (folder.next == folder.names.size()) {
        m_Folders.pop_back();
        return CZuError();
    }
    SetEntry_t set = std::move(folder.entries[folder.names[folder.next++].entry]);
    m_Path += set.name;
    NtfsEntry_t entry;
    entry.path = m_Path;
    entry.name = std::move(set.name);
    Describe(set, entry.file);
    isWanted = m_Take(entry);
    if (!isWanted || !m_Listing.isRecursive || !set.isDirectory || m_Entered.count(set.frn) != 0)
        return CZuError();
    m_Path += '/';
    return Enter(set.frn, m_Path.size());
}

void CCatalogListing::Describe(const SetEntry_t& entry, NtfsFileInfo_t& info) {
    if (m_Records != nullptr) {
        const CZuError error = DescribeNtfsFile(*m_Records, entry.frn, info);
        info.frn = entry.frn;
        if (error.IsErrorSet())
            info.problem = DescribeError(error);
        return;
    }
    DescribeCatalogEntry(entry, info);
}

void DescribeCatalogEntry(const SetEntry_t& entry, NtfsFileInfo_t& info) {
    info.frn = entry.frn;
    info.isDirectory = entry.isDirectory;
    info.bytes = entry.bytes;
    info.creation = entry.created;
    info.modification = entry.modified;
    info.recordChange = entry.recordChanged;
    info.access = entry.accessed;
    info.attributes = entry.attributes;
    info.links = entry.links;
    info.reparseTag = entry.reparseTag;
}
