#include "agent/detail/NtfsListing.h"

#include <algorithm>
#include <numeric>

#include "agent/ErrorText.h"
#include "agent/detail/NtfsNames.h"
#include "agent/detail/NtfsRecordFacts.h"
#include "foundation/detail/ErrorHandling.h"
#include "ntfs/detail/NtfsFormat.h"

namespace {

constexpr size_t BatchEntries = size_t{1} << 14U;
constexpr size_t BatchBytes = size_t{1} << 24U;   // of paths; those of a damaged tree may be as long as the volume
constexpr size_t HeldStreams = size_t{1} << 17U;  // of all files of a batch; many names may stand for one large record
constexpr uint64_t SmallestNameBytes = 96;        // on disk, in a file's record; each entry of an index has one there
constexpr uint32_t AttributeIsDirectory = 0x10000000;  // in a name's copy of the attributes alone
constexpr uint16_t AnyReuseCount = 0;

}  // namespace

CZuError CNtfsListing::Run(uint64_t directory) {
    ZU_RETURN_IF_ERROR(Enter(directory, AnyReuseCount, ""));
    while (!m_Folders.empty()) {
        TakeNext();
        if ((m_Batch.size() == BatchEntries || m_BatchBytes >= BatchBytes) && !GiveBatch())
            return CZuError();
    }
    GiveBatch();
    return CZuError();
}

// Directories that name the same blocks may hold more names together than the volume has room for; a sound one never
// does.
CZuError CNtfsListing::Enter(uint64_t frn, uint16_t reuseCount, const std::string& path) {
    ZU_RETURN_IF_ERROR(m_Volume.ReadRecord(frn, m_Record));
    if (reuseCount != AnyReuseCount && reuseCount != NtfsHeadOf(m_Record).reuseCount)
        return CZuError();  // its name tells that the record belongs to another file
    m_Entered.insert(frn);
    if ((NtfsHeadOf(m_Record).flags & RecordIsDirectory) == 0)
        return Refusal(CZuString::Format("{1}: file record {2} is no directory", m_Volume.Name(), frn));
    Folder_t folder;
    folder.pathBytes = path.size();
    const uint64_t mostNames = m_Volume.Bytes() / SmallestNameBytes;
    CNtfsDirectory names(m_Volume, m_Volume.Name() + ": /" + path);
    ZU_RETURN_IF_ERROR(names.Walk(m_Record, [&](NtfsIndexName_t&& name) {
        if (!IsHidden(name))
            folder.names.push_back(std::move(name));
        return m_HeldNames + folder.names.size() <= mostNames;
    }));
    if (m_HeldNames + folder.names.size() > mostNames)
        return Refusal(m_Volume.Name() + ": /" + path + ": holds more names than the volume has room for");
    m_Listing.problems.insert(m_Listing.problems.end(), names.Problems().begin(), names.Problems().end());
    m_HeldNames += folder.names.size();
    m_Path = path;
    m_Folders.push_back(std::move(folder));
    return CZuError();
}

// A short name is a second one, and the root is a name in itself.
bool CNtfsListing::IsHidden(const NtfsIndexName_t& name) const {
    return name.kind == NameKindShort || name.frn == RootFrn || (name.frn < FirstUserFrn && !m_Listing.withMetadata);
}

void CNtfsListing::TakeNext() {
    Folder_t& folder = m_Folders.back();
    m_Path.resize(folder.pathBytes);
    if (folder.next == folder.names.size()) {
        m_HeldNames -= folder.names.size();
        m_Folders.pop_back();
        return;
    }
    const NtfsIndexName_t& name = folder.names[folder.next++];
    const std::string text = TextOfNtfsName(name.name);
    const std::string path = m_Path + text;
    m_BatchBytes += path.size();
    m_Batch.push_back({path, text, name.frn, name.reuseCount, false, {}});
    const bool isFolder = (name.attributes & AttributeIsDirectory) != 0;
    if (!m_Listing.isRecursive || !isFolder || m_Entered.count(name.frn) != 0)
        return;
    const CZuError error = Enter(name.frn, name.reuseCount, path + "/");  // `folder` and `name` may have moved
    if (error.IsErrorSet())
        m_Listing.problems.push_back(DescribeError(error));
}

bool CNtfsListing::GiveBatch() {
    DescribeBatch();
    NtfsEntry_t entry;
    for (Waiting_t& each : m_Batch) {
        if (!each.isDescribed)
            DescribeFile(each);
        entry.path = std::move(each.path);
        entry.name = std::move(each.name);
        entry.file = std::move(each.file);
        if (!m_Take(entry))
            return false;
    }
    m_Batch.clear();
    m_BatchBytes = 0;
    m_BatchStreams = 0;
    return true;
}

void CNtfsListing::DescribeBatch() {
    std::vector<size_t> order(m_Batch.size());
    std::iota(order.begin(), order.end(), size_t{0});
    std::stable_sort(order.begin(), order.end(),
                     [&](size_t left, size_t right) { return m_Batch[left].frn < m_Batch[right].frn; });
    const Waiting_t* previous = nullptr;
    for (const size_t index : order) {
        if (m_BatchStreams >= HeldStreams)
            return;  // the others are described when they are given
        Waiting_t& entry = m_Batch[index];
        if (previous != nullptr && previous->frn == entry.frn && previous->reuseCount == entry.reuseCount)
            entry.file = previous->file;  // another name of the same file
        else
            DescribeFile(entry);
        entry.isDescribed = true;
        m_BatchStreams += entry.file.streams.size();
        previous = &entry;
    }
}

void CNtfsListing::DescribeFile(Waiting_t& entry) {
    entry.file.frn = entry.frn;
    const CZuError error = m_Volume.ReadRecord(entry.frn, m_Record);
    if (error.IsErrorSet()) {
        entry.file.problem = DescribeError(error);
        return;
    }
    if (entry.reuseCount != AnyReuseCount && entry.reuseCount != NtfsHeadOf(m_Record).reuseCount) {
        entry.file.problem =
            CZuString::Format("{1}: file record {2} belongs to another file by now", m_Volume.Name(), entry.frn)
                .c_str();
        return;
    }
    DescribeNtfsRecord(m_Record, entry.file);
}
