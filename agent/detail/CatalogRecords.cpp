#include "agent/detail/CatalogRecords.h"

#include <cerrno>
#include <cstring>

#include "agent/ErrorText.h"
#include "agent/detail/CatalogParts.h"
#include "agent/detail/NtfsNames.h"
#include "agent/detail/NtfsStream.h"
#include "agent/detail/OutOfMemory.h"
#include "agent/detail/PartFile.h"
#include "foundation/detail/ByteView.h"
#include "foundation/detail/CheckedMath.h"
#include "foundation/detail/ErrorHandling.h"
#include "ntfs/detail/BackupStreamFormat.h"
#include "ntfs/detail/NtfsFormat.h"
#include "ntfs/detail/WithinMemory.h"

namespace {

constexpr int WithSecurity = 1;
constexpr int WithoutSecurity = 0;
constexpr uint32_t StreamRoomBytes = 4096;  // beside the record: heads and names
constexpr uint32_t DescriptorRoomBytes = 1U << 16U;

// The name of a stream within the head's: ":" and ":$DATA" left out.
std::u16string StreamNameOf(CByteView name) {
    constexpr uint64_t around = sizeof(StreamNameFront) + sizeof(StreamNameEnd);
    if (name.Size() < around)
        return {};
    return NtfsNameAt(name.Data() + sizeof(StreamNameFront), static_cast<uint32_t>((name.Size() - around) / 2));
}

// Takes the next stream off a backup stream of whole ones.
bool TakeStream(CByteView& rest, BackupStreamHead_t& head, CByteView& name, CByteView& data) {
    if (!rest.Get(0, head) || !rest.Holds(sizeof(head), head.nameBytes) ||
        !rest.Holds(sizeof(head) + uint64_t{head.nameBytes}, head.bytes))
        return false;
    name = CByteView(rest.Data() + sizeof(head), head.nameBytes);
    data = CByteView(name.Data() + name.Size(), head.bytes);
    rest = rest.From(sizeof(head) + uint64_t{head.nameBytes} + head.bytes);
    return true;
}

}  // namespace

CZuError CCatalogCollection::Open(CBackupSetReader& set, int64_t volume) {
    const CatalogParts_t parts(volume);
    m_Set = &set;
    m_Mft = set.FindPart(parts.Mft());
    if (m_Mft == nullptr)
        return set.Damaged("its part " + parts.Mft() + " is missing");
    m_Directory = std::make_unique<CPrivateDirectory>();
    if (!m_Directory->IsMade())
        return Refusal(
            "No temporary directory can be made for the catalogue; set TMPDIR to one that can be written to");
    ZU_RETURN_IF_ERROR(CopyPart(parts.Information(), "information"));
    ZU_RETURN_IF_ERROR(CopyPart(parts.Associates(), "associates"));
    ZU_RETURN_IF_ERROR(CopyPart(parts.Security(), "security"));
    // The records themselves are read from the set, so the file of them only has to be there.
    ZU_RETURN_IF_ERROR(CopyPartToFile(set, SetPart_t(), m_Directory->File("mft")));
    const int result = OpenVolume(m_Directory->File("information").c_str(), m_Directory->File("mft").c_str(),
                                  m_Directory->File("associates").c_str(), m_Directory->File("security").c_str());
    if (result != NtfsOk)
        return set.Damaged(std::string("its catalogue can't be opened: ") + GetLastErrorStr());
    return ClusterBytes() != 0 ? CZuError() : set.Damaged("its catalogue has clusters of no bytes");
}

CZuError CCatalogCollection::CopyPart(const std::string& name, const std::string& fileName) {
    const SetPart_t* const part = m_Set->FindPart(name);
    if (part == nullptr)
        return m_Set->Damaged("its part " + name + " is missing");
    return CopyPartToFile(*m_Set, *part, m_Directory->File(fileName));
}

int CCatalogCollection::ReadMFTRecord(uint64_t frn, char* buffer) {
    uint64_t offset = 0;
    if (!CheckedMul(frn, RecordBytes(), offset) || offset > m_Mft->bytes || RecordBytes() > m_Mft->bytes - offset) {
        SetLastErrorStr("%s", "FRN out of range");
        return NtfsOutOfRange;
    }
    m_SetError = m_Set->ReadPart(*m_Mft, offset, buffer, RecordBytes());
    if (!m_SetError.IsErrorSet())
        return NtfsOk;
    SetLastErrorStr("%s", "Failed to read MFT file");
    return EIO;
}

CZuError CCatalogCollection::ErrorOf(const std::string& where, int result) {
    if (result == EIO && m_SetError.IsErrorSet())
        return std::exchange(m_SetError, CZuError());
    return Refusal(where + ": " + GetLastErrorStr());
}

CZuError CCatalogRecords::Open(CBackupSetReader& set, const SetVolume_t& volume) {
    m_Name = volume.name;
    ZU_RETURN_IF_ERROR(m_Collection.Open(set, volume.id));
    m_Clusters = std::make_unique<CCatalogClusters>(set);
    return m_Clusters->Open(volume);
}

CZuError CCatalogRecords::ReadClusters(uint64_t lcn, uint64_t skip, char* buffer, uint32_t size) {
    uint64_t start = 0;
    uint64_t offset = 0;
    if (!CheckedMul(lcn, ClusterBytes(), start) || !CheckedAdd(start, skip, offset))
        return Refusal(CZuString::Format("{1}: has no cluster {2}", m_Name, lcn));
    return m_Clusters->Read(offset, buffer, size);
}

CZuError CCatalogRecords::ReadRecord(uint64_t frn, CAutoMemory<char>& record) {
    MA_BACKUPREAD_CONTEXT context;
    const int result = m_Collection.OpenFile(frn, &record, WithoutSecurity, &context);
    return result == NtfsOk
               ? CZuError()
               : m_Collection.ErrorOf(CZuString::Format("{1}: file record {2}", m_Name, frn).c_str(), result);
}

CZuError CCatalogRecords::OpenStream(uint64_t /*frn*/, CAutoMemory<char>& record, uint32_t type,
                                     const std::u16string& name, const std::string& where, CNtfsStream& stream) {
    std::string value;
    CAutoMemory<char> extents;
    if (type == AttrData && FindResident(record, name, value) &&
        !stream.OpenValue(record, type, name, std::move(value), where).IsErrorSet())
        return CZuError();
    if (FindExtents(record, type, name, extents) &&
        !stream.OpenExtents(*this, record, type, name, *reinterpret_cast<DATARUN_EXTENTS*>(extents.GetPtr()), where)
             .IsErrorSet())
        return CZuError();
    return stream.Open(*this, record, type, name, where);
}

// Resident data lies in the record, so that a buffer somewhat larger takes all of its streams at once.
bool CCatalogRecords::FindResident(CAutoMemory<char>& record, const std::u16string& name, std::string& value) {
    MA_BACKUPREAD_CONTEXT context;
    context.tableIndex = 1;  // without the descriptor
    uint32_t read = 0;
    const uint64_t room = 2 * uint64_t{record.GetSize()} + StreamRoomBytes;
    if (room > NtfsCeilingBytes || m_Streams.Alloc(static_cast<uint32_t>(room)) == nullptr ||
        m_Collection.BackupReadRA(&record, m_Streams.GetPtr(), m_Streams.GetSize(), &read, &context) != NtfsOk)
        return false;
    CByteView rest(m_Streams.GetPtr(), read);
    BackupStreamHead_t head{};
    CByteView streamName;
    CByteView data;
    while (TakeStream(rest, head, streamName, data)) {
        const bool isData = head.id == StreamIdData || head.id == StreamIdAlternateData;
        if (!isData || StreamNameOf(streamName) != name)
            continue;
        value.assign(data.Data(), static_cast<size_t>(data.Size()));
        return true;
    }
    return false;
}

bool CCatalogRecords::FindExtents(CAutoMemory<char>& record, uint32_t type, const std::u16string& name,
                                  CAutoMemory<char>& extents) {
    MA_BACKUPREAD_CONTEXT context;
    CAutoMemory<char> foundName;
    for (;;) {
        uint64_t size = 0;
        uint64_t sizeOnDisk = 0;
        uint32_t foundType = 0;
        uint16_t unit = 0;
        if (m_Collection.BackupReadNRA(&record, &foundName, &size, &sizeOnDisk, &foundType, &unit, &extents,
                                       &context) != NtfsOk)
            return false;
        if (foundType == type && NtfsNameAt(foundName.GetPtr(), foundName.GetSize() / 2) == name)
            return true;
    }
}

// A stream that doesn't fit its buffer isn't delivered: the buffer grows until the descriptor does.
CZuError CCatalogRecords::ReadSharedDescriptor(uint64_t frn, CAutoMemory<char>& record, CAutoMemory<char>& descriptor) {
    const std::string where = CZuString::Format("{1}: security of file record {2}", m_Name, frn).c_str();
    descriptor.Alloc(0);
    CAutoMemory<char> buffer;
    for (uint64_t room = record.GetSize() + uint64_t{DescriptorRoomBytes}; room <= NtfsCeilingBytes; room *= 2) {
        MA_BACKUPREAD_CONTEXT context;  // from the descriptor on
        uint32_t read = 0;
        if (buffer.Alloc(static_cast<uint32_t>(room)) == nullptr)
            return Refusal(OutOfMemory);
        const int result = m_Collection.BackupReadRA(&record, buffer.GetPtr(), buffer.GetSize(), &read, &context);
        if (result == NtfsIndexNotFound)
            return CZuError();  // the volume has none for this id
        if (result != NtfsOk)
            return m_Collection.ErrorOf(where, result);
        const bool isWaiting = context.tableIndex == 0 && context.needLoad == 0;
        if (isWaiting)
            continue;
        CByteView rest(buffer.GetPtr(), read);
        BackupStreamHead_t head{};
        CByteView name;
        CByteView data;
        if (!TakeStream(rest, head, name, data) || head.id != StreamIdSecurity || data.Size() == 0)
            return CZuError();
        if (descriptor.Alloc(static_cast<uint32_t>(data.Size())) == nullptr)
            return Refusal(OutOfMemory);
        std::memcpy(descriptor.GetPtr(), data.Data(), static_cast<size_t>(data.Size()));
        return CZuError();
    }
    return Refusal(where + ": is larger than any that can be");
}
