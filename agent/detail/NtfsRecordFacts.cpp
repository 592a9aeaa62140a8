#include "agent/detail/NtfsRecordFacts.h"

#include <algorithm>
#include <cstring>
#include <iterator>

#include "agent/detail/NtfsNames.h"
#include "ntfs/detail/VolumeSteps.h"

namespace {

constexpr uint64_t CompressedBytesOffset = 64;  // in an attribute
constexpr uint32_t TagIsOfWindows = 0x80000000;
constexpr uint32_t TagIsLink = 0x20000000;
// Files of other systems that have no contents: a file of NFS, a socket, a pipe, devices.
constexpr uint32_t PlainTags[] = {0x80000014, 0x80000023, 0x80000024, 0x80000025, 0x80000026};

void DescribeStandardInformation(ATTR_RECORD_HEADER_t* attribute, NtfsFileInfo_t& info) {
    const CByteView value = ResidentValueOf(attribute);
    NtfsStandardInformation_t fields{};
    // Before version 3 of NTFS the value ended in front of the ids.
    if (!value.CopyOut(0, &fields, std::min<uint64_t>(value.Size(), sizeof(fields))))
        return;
    info.creation = fields.creation;
    info.modification = fields.modification;
    info.recordChange = fields.mftChange;
    info.access = fields.access;
    info.attributes = fields.attributes;
    info.securityId = fields.securityId;
}

// Where clusters are left out, the attribute has a field more, which counts those that aren't.
uint64_t BytesOnDisk(const ATTR_RECORD_HEADER_t* attribute) {
    if (attribute->IsNonResident == 0)
        return 0;
    const NtfsNonResidentForm_t form = NonResidentFormOf(attribute);
    const CByteView bytes(reinterpret_cast<const char*>(attribute), attribute->Length);
    Le64_t stored{};
    const bool leavesOut = (attribute->Flags & (AttrCompressed | AttrSparse)) != 0;
    const bool hasField = form.runListOffset >= CompressedBytesOffset + sizeof(stored);
    return leavesOut && hasField && bytes.Get(CompressedBytesOffset, stored) ? stored : form.allocatedBytes;
}

void DescribeData(const ATTR_RECORD_HEADER_t* attribute, NtfsFileInfo_t& info) {
    if (attribute->IsNonResident != 0 && NonResidentFormOf(attribute).lowestVcn != 0)
        return;  // a later segment
    NtfsStreamInfo_t stream;
    const char* const start = reinterpret_cast<const char*>(attribute);
    stream.name = TextOfNtfsName(NtfsNameAt(start + attribute->NameOffset, attribute->NameLength));
    stream.bytes = CDRFileRecord::GetAttributeDataSize(attribute);
    stream.isResident = attribute->IsNonResident == 0;
    stream.storedBytes = BytesOnDisk(attribute);
    stream.isEncrypted = (attribute->Flags & AttrEncrypted) != 0;
    stream.isCompressed = (attribute->Flags & AttrCompressed) != 0;
    stream.isSparse = (attribute->Flags & AttrSparse) != 0;
    if (stream.name.empty())
        info.bytes = stream.bytes;
    info.streams.push_back(std::move(stream));
}

void CountName(ATTR_RECORD_HEADER_t* attribute, NtfsFileInfo_t& info) {
    NtfsFileName_t fields{};
    if (ResidentValueOf(attribute).Get(0, fields) && fields.nameKind != NameKindShort)
        ++info.links;
}

void DescribeReparsePoint(ATTR_RECORD_HEADER_t* attribute, NtfsFileInfo_t& info) {
    Le32_t tag{};
    if (ResidentValueOf(attribute).Get(0, tag))
        info.reparseTag = tag;
}

}  // namespace

bool IsNtfsLink(uint32_t reparseTag) {
    return (reparseTag & TagIsLink) != 0;
}

bool IsKeptElsewhere(uint32_t reparseTag) {
    const bool isPlain = std::find(std::begin(PlainTags), std::end(PlainTags), reparseTag) != std::end(PlainTags);
    return (reparseTag & TagIsOfWindows) != 0 && !IsNtfsLink(reparseTag) && !isPlain;
}

NtfsFileRecord_t NtfsHeadOf(const CAutoMemory<char>& record) {
    NtfsFileRecord_t head{};
    std::memcpy(&head, record.GetPtr(), sizeof(head));
    return head;
}

void DescribeNtfsRecord(CAutoMemory<char>& record, NtfsFileInfo_t& info) {
    const NtfsFileRecord_t head = NtfsHeadOf(record);
    info.reuseCount = head.reuseCount;
    info.isDirectory = (head.flags & RecordIsDirectory) != 0;
    for (ATTR_RECORD_HEADER_t* attribute = CDRFileRecord::GetFirstAttr(record.GetPtr()); attribute != nullptr;
         attribute = CDRFileRecord::GetNextAttr(attribute)) {
        switch (attribute->Type) {
        case AttrStandardInformation: DescribeStandardInformation(attribute, info); break;
        case AttrFileName: CountName(attribute, info); break;
        case AttrData: DescribeData(attribute, info); break;
        case AttrReparsePoint: DescribeReparsePoint(attribute, info); break;
        default: break;
        }
    }
}
