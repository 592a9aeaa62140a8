#include "agent/detail/NtfsIndex.h"

#include "agent/ErrorText.h"
#include "agent/detail/NtfsNames.h"
#include "foundation/detail/ErrorHandling.h"
#include "ntfs/detail/NtfsFormat.h"

namespace {

constexpr char16_t IndexOfNames[] = u"$I30";
constexpr uint32_t LargestBlockBytes = 1U << 20U;  // Windows makes blocks of 4 KiB, other tools up to a cluster
constexpr uint32_t SectorOfBlockNumbers = 512;     // what they count where a cluster is larger than a block
constexpr size_t KeptNodes = 16;  // of a path; sound trees are less deep, and what a damaged one asks for stays small

}  // namespace

CZuError CNtfsDirectory::Walk(CAutoMemory<char>& record, const TakeNtfsName_t& take) {
    ZU_RETURN_IF_ERROR(OpenIndex(record));
    while (!m_Path.empty() && Step(take)) {}
    return CZuError();
}

CZuError CNtfsDirectory::OpenIndex(CAutoMemory<char>& record) {
    CNtfsStream root;
    ZU_RETURN_IF_ERROR(root.Open(m_Volume, record, AttrIndexRoot, IndexOfNames, m_Where));
    NtfsIndexRoot_t head{};
    if (root.Bytes() < sizeof(head) || root.Bytes() > LargestBlockBytes)
        return Refusal(m_Where + ": its index is damaged");
    ZU_RETURN_IF_ERROR(root.Read(0, reinterpret_cast<char*>(&head), sizeof(head)));
    m_BlockBytes = head.blockBytes;
    Node_t node;
    node.bytes.resize(static_cast<size_t>(root.Bytes() - sizeof(head)));
    ZU_RETURN_IF_ERROR(root.Read(sizeof(head), node.bytes.data(), static_cast<uint32_t>(node.bytes.size())));
    NtfsIndexHeader_t header{};
    if (!ViewOf(node).Get(0, header))
        return Refusal(m_Where + ": its index is damaged");
    node.at = header.firstEntry;
    m_Path.clear();
    m_Visited.clear();
    m_Path.push_back(std::move(node));
    m_HasAllocation = !m_Allocation.Open(m_Volume, record, AttrIndexAllocation, IndexOfNames, m_Where).IsErrorSet();
    return CZuError();
}

// Takes one entry, or goes into the block in front of it, or leaves a node that is through. Each entry is taken once
// and each block entered once, so the walk ends.
bool CNtfsDirectory::Step(const TakeNtfsName_t& take) {
    Node_t& node = m_Path.back();
    NtfsIndexEntryHead_t head{};
    if ((node.bytes.empty() && !LoadBlock(node)) || !HeadOfEntry(node, head)) {
        Complain("an entry of its index is damaged");
        m_Path.pop_back();
        return true;
    }
    if ((head.flags & IndexEntryHasSubNode) != 0 && !node.isChildDone) {
        node.isChildDone = true;
        if (EnterChild(node, head.length))
            return true;
    }
    if ((head.flags & IndexEntryLast) != 0) {
        m_Path.pop_back();
        return true;
    }
    const uint64_t at = node.at;
    node.at += head.length;
    node.isChildDone = false;
    return TakeName(ViewOf(node), at, take);
}

CByteView CNtfsDirectory::ViewOf(const Node_t& node) {
    return {node.bytes.data(), node.bytes.size()};
}

bool CNtfsDirectory::HeadOfEntry(const Node_t& node, NtfsIndexEntryHead_t& head) {
    const CByteView view = ViewOf(node);
    return view.Get(node.at, head) && head.length >= sizeof(head) && view.Holds(node.at, head.length);
}

bool CNtfsDirectory::TakeName(CByteView node, uint64_t at, const TakeNtfsName_t& take) {
    INDEX_ENTRY_I30 entry{};
    const uint64_t nameAt = at + sizeof(entry);
    if (!node.Get(at, entry) || !node.Holds(nameAt, uint64_t{entry.NameLength} * 2)) {
        Complain("a name in its index is damaged");
        return true;
    }
    NtfsIndexName_t name;
    name.frn = entry.Reference & FrnMask;
    name.reuseCount = static_cast<uint16_t>(entry.Reference >> ReuseCountShift);
    name.name = NtfsNameAt(node.Data() + nameAt, entry.NameLength);
    name.kind = entry.NameKind;
    name.attributes = entry.FileAttributes;
    return take(std::move(name));
}

// The number of the block stands in the entry's last eight bytes.
bool CNtfsDirectory::EnterChild(Node_t& node, uint64_t entryBytes) {
    Le64_t vcn{};
    if (entryBytes < sizeof(NtfsIndexEntryHead_t) + sizeof(vcn) ||
        !ViewOf(node).Get(node.at + entryBytes - sizeof(vcn), vcn)) {
        Complain("an entry of its index is damaged");
        return false;
    }
    Node_t child;
    child.vcn = vcn;
    NtfsIndexHeader_t header{};
    if (!m_Visited.insert(vcn).second || !LoadBlock(child) || !ViewOf(child).Get(0, header)) {
        Complain(CZuString::Format("block {1} of its index is damaged", child.vcn).c_str());
        return false;
    }
    child.at = header.firstEntry;
    m_Path.push_back(std::move(child));
    if (m_Path.size() > KeptNodes + 1)
        m_Path[m_Path.size() - KeptNodes].bytes = std::string();  // read again on the way back
    return true;
}

// Blocks lie at multiples of their size.
bool CNtfsDirectory::LoadBlock(Node_t& node) {
    const bool countsClusters = m_Volume.ClusterBytes() <= m_BlockBytes;
    const uint64_t unitBytes = countsClusters ? m_Volume.ClusterBytes() : SectorOfBlockNumbers;
    if (!m_HasAllocation || m_BlockBytes <= IndexHeaderOffset || m_BlockBytes > LargestBlockBytes ||
        node.vcn > m_Allocation.Bytes() / unitBytes)
        return false;
    const uint64_t offset = node.vcn * unitBytes;
    if (offset % m_BlockBytes != 0 || offset > m_Allocation.Bytes() || m_BlockBytes > m_Allocation.Bytes() - offset)
        return false;
    std::string block(m_BlockBytes, '\0');
    if (m_Allocation.Read(offset, block.data(), m_BlockBytes).IsErrorSet() ||
        CDRFileRecord::IsValidIndexRec(block.data()) != NtfsOk ||
        CDRFileRecord::DoINDXSectorFixup(block.data(), m_BlockBytes, m_Volume.SectorBytes()) != NtfsOk)
        return false;
    node.bytes = block.substr(IndexHeaderOffset);
    return true;
}

void CNtfsDirectory::Complain(const std::string& what) {
    m_Problems.push_back(m_Where + ": " + what);
}
