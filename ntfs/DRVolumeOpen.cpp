#include <algorithm>
#include <cstring>
#include <iterator>

#include "foundation/LgDebug.h"
#include "ntfs/DRVolume.h"
#include "ntfs/detail/NtfsFormat.h"
#include "ntfs/detail/ReadPosition.h"
#include "ntfs/detail/VolumeSteps.h"
#include "ntfs/detail/WithinMemory.h"

CDRVolume::QuitFlagCallback_t CDRVolume::CheckQuitFlag = nullptr;
int CDRVolume::checkQuitFlagCallbackFirstArg = 0;
void* CDRVolume::checkQuitFlagCallbackSecondArg = nullptr;

namespace {

constexpr uint32_t SmallestClusterBuffer = 4096;  // what a chunk of LZNT1 can give
constexpr uint32_t SupportedCluster = 1024;

// The first $INDEX_ALLOCATION segment named $SII that begins at `vcn`.
ATTR_RECORD_HEADER_t* FindSiiSegment(char* record, uint64_t vcn) {
    ATTR_RECORD_HEADER_t* segment = CDRFileRecord::FindFirstAttr(record, AttrIndexAllocation);
    while (segment != nullptr) {
        if (segment->IsNonResident != 0 && HasName(segment, u"$SII") && NonResidentFormOf(segment).lowestVcn == vcn)
            return segment;
        segment = CDRFileRecord::FindNextAttr(AttrIndexAllocation, segment);
    }
    return nullptr;
}

ATTR_RECORD_HEADER_t* FindSiiRoot(char* record) {
    ATTR_RECORD_HEADER_t* root = CDRFileRecord::FindFirstAttr(record, AttrIndexRoot);
    while (root != nullptr && !HasName(root, u"$SII"))
        root = CDRFileRecord::FindNextAttr(AttrIndexRoot, root);
    return root;
}

void SetHighestVcn(ATTR_RECORD_HEADER_t* attribute, uint64_t vcn) {
    NtfsNonResidentForm_t form = NonResidentFormOf(attribute);
    form.highestVcn = vcn;
    std::memcpy(reinterpret_cast<char*>(attribute) + NonResidentFormOffset, &form, sizeof(form));
}

}  // namespace

void CDRVolume::SetQuitFlagCallback(QuitFlagCallback_t callback, int firstArg, void* secondArg) {
    CheckQuitFlag = callback;
    checkQuitFlagCallbackFirstArg = firstArg;
    checkQuitFlagCallbackSecondArg = secondArg;
}

int CDRVolume::OpenVolume(CLVM* lvm, LVM_Volume_t& volume) {
    CloseVolume();
    return NtfsWithinMemory([&] {
        m_Lvm = lvm;
        m_Volume = volume;
        return OpenSteps();
    });
}

int CDRVolume::CloseVolume() {
    for (CAutoMemory<char>* const buffer : {&m_MftExtents, &m_ClusterBuffer, &m_CompressedBuffer, &m_SecureRecord,
                                            &m_SiiExtents, &m_SiiRoot, &m_SdsExtents, &m_RecordWindow})
        buffer->Free();
    m_SiiAllocAttr = nullptr;
    m_SdsAttr = nullptr;
    m_SiiBlockSize = 0;
    m_MftSize = 0;
    return NtfsOk;
}

int CDRVolume::OpenSteps() {
    NTFS_RETURN_IF_FAILED(ReadVolumeInformation(&m_VolumeData));
    if (m_VolumeData.BytesPerCluster < SmallestCluster())
        return NtfsUnsupportedCluster;
    // Behind a chunk there is room for what a read that resumes in its middle copies too far.
    const uint64_t roomBytes =
        uint64_t{std::max<uint32_t>(m_VolumeData.BytesPerCluster, SmallestClusterBuffer)} + SmallestClusterBuffer;
    if (roomBytes > NtfsCeilingBytes || m_ClusterBuffer.Alloc(static_cast<uint32_t>(roomBytes)) == nullptr) {
        CloseVolume();
        return NtfsOutOfMemory;
    }
    const int located = GetMFTExtent();
    if (located != NtfsOk) {
        CloseVolume();
        return located;
    }
    const int objectId = ReadParentObjectId();
    if (objectId == NtfsNotInUse)
        return NtfsOk;  // without $Volume there is no security either
    return objectId != NtfsOk ? objectId : OpenSecure();
}

// NtfsNotInUse when there is no $Volume.
int CDRVolume::ReadParentObjectId() {
    std::fill(std::begin(m_ParentObjId), std::end(m_ParentObjId), uint8_t{0});
    CAutoMemory<char> record;
    READFILECONTEXT context;
    NTFS_RETURN_IF_FAILED(OpenFile(VolumeFrn, &record, 0, &context));
    ATTR_RECORD_HEADER_t* const objectId = CDRFileRecord::FindFirstAttr(record.GetPtr(), AttrObjectId);
    if (objectId == nullptr)
        return NtfsOk;
    CAutoMemory<char> extents;
    NTFS_RETURN_IF_FAILED(DecodeRuns(objectId, extents, 0));
    Position_t position;
    uint32_t read = 0;
    const int result = ReadAttribute(objectId, ExtentsOf(extents), &position.vcn, &position.offset,
                                     reinterpret_cast<char*>(m_ParentObjId), sizeof(m_ParentObjId), &read);
    return result == NtfsEndOfRun ? NtfsOk : result;
}

int CDRVolume::OpenSecure() {
    uint64_t frn = 0;
    wchar_t path[] = L"\\$Secure";
    const int found = CrackFileName(path, &frn);
    if (found == NtfsIndexNotFound)
        return NtfsOk;
    NTFS_RETURN_IF_FAILED(found);
    READFILECONTEXT context;
    const int opened = OpenFile(frn, &m_SecureRecord, 0, &context);
    if (opened != NtfsOk) {
        m_SecureRecord.Free();
        return opened;
    }
    NTFS_RETURN_IF_FAILED(ReadSiiRoot());
    return CollectSiiSegments();
}

int CDRVolume::ReadSiiRoot() {
    ATTR_RECORD_HEADER_t* const root = FindSiiRoot(m_SecureRecord.GetPtr());
    if (root == nullptr)
        return NtfsInvalidMftRecord;
    CAutoMemory<char> extents;
    NTFS_RETURN_IF_FAILED(DecodeRuns(root, extents, 0));
    Position_t position;
    CAutoMemory<char> head;
    const int result = ReadValue(root, extents, position, IndexRootHeadBytes, head);
    if (result != NtfsOk && result != NtfsEndOfRun)
        return result;
    NtfsIndexRoot_t fields{};
    if (head.GetSize() < sizeof(fields))
        return NtfsIndexCorrupted;
    std::memcpy(&fields, head.GetPtr(), sizeof(fields));
    m_SiiBlockSize = fields.blockBytes;
    const int rest = ReadValue(root, extents, position, m_SiiBlockSize, m_SiiRoot);
    return rest == NtfsEndOfRun ? NtfsOk : rest;
}

// The first segment is made to read as the whole index: `ReadAttribute` goes by the highest VCN of the attribute that
// it is given, and takes the runs of all segments with it.
int CDRVolume::CollectSiiSegments() {
    uint64_t expectedVcn = 0;
    for (;;) {
        ATTR_RECORD_HEADER_t* const segment = FindSiiSegment(m_SecureRecord.GetPtr(), expectedVcn);
        if (segment == nullptr)
            break;
        if (expectedVcn == 0)
            m_SiiAllocAttr = segment;
        NTFS_RETURN_IF_FAILED(AppendRuns(segment, m_SiiExtents, expectedVcn));
        const uint64_t nextVcn = NonResidentFormOf(segment).highestVcn + 1;
        if (nextVcn <= expectedVcn)
            break;  // a segment that leads back would be found for ever
        expectedVcn = nextVcn;
    }
    if (m_SiiAllocAttr != nullptr)
        SetHighestVcn(m_SiiAllocAttr, expectedVcn - 1);
    return NtfsOk;
}

int CDRVolume::ReadVolumeInformation(NTFS_VOLUME_DATA_BUFFER* info) {
    const CZuError error = m_Lvm->GetNTFSVolInfo(m_Volume, info);
    if (!error.IsErrorSet())
        return NtfsOk;
    LgDebug().Error("CDRVolume::OpenVolume", "Failed to read volume information. Error %s", error.ConvertToString());
    return NtfsSeeLog;
}

uint32_t CDRVolume::SmallestCluster() const {
    return SupportedCluster;
}
