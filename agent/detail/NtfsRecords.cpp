#include "agent/detail/NtfsRecords.h"

#include <algorithm>
#include <cstdio>

#include "agent/detail/NtfsBackupStream.h"
#include "agent/detail/NtfsNames.h"
#include "agent/detail/NtfsRecordFacts.h"
#include "agent/detail/NtfsStream.h"
#include "agent/detail/OutOfMemory.h"
#include "agent/detail/Pieces.h"
#include "foundation/detail/ErrorHandling.h"
#include "ntfs/detail/NtfsFormat.h"

namespace {

CZuError DeliverStream(CNtfsStream& stream, const TakeBytes_t& take) {
    CAutoMemory<char> buffer;
    if (stream.Bytes() != 0 &&
        buffer.Alloc(static_cast<uint32_t>(std::min<uint64_t>(stream.Bytes(), PieceBytes))) == nullptr)
        return Refusal(OutOfMemory);
    for (uint64_t done = 0; done < stream.Bytes();) {
        const auto piece = static_cast<uint32_t>(std::min<uint64_t>(stream.Bytes() - done, PieceBytes));
        ZU_RETURN_IF_ERROR(stream.Read(done, buffer.GetPtr(), piece));
        if (!take(buffer.GetPtr(), piece))
            return CZuError();
        done += piece;
    }
    return CZuError();
}

// The contents of some files are kept elsewhere, on another machine or in another form, and a reparse point tells a
// driver of Windows where. What lies here in their place is holes.
CZuError CheckContentsAreHere(CAutoMemory<char>& record, const std::string& where) {
    NtfsFileInfo_t info;
    DescribeNtfsRecord(record, info);
    if (!IsKeptElsewhere(info.reparseTag))
        return CZuError();
    char tag[16];
    std::snprintf(tag, sizeof(tag), "0x%08X", info.reparseTag);
    return Refusal(where + ": its contents are kept elsewhere (reparse point " + tag + ") and can't be read");
}

}  // namespace

CZuError DescribeNtfsFile(INtfsRecords& volume, uint64_t frn, NtfsFileInfo_t& info) {
    return WithinMemory(OutOfMemory, [&]() -> CZuError {
        CAutoMemory<char> record;
        ZU_RETURN_IF_ERROR(volume.ReadRecord(frn, record));
        info = NtfsFileInfo_t();
        info.frn = frn;
        DescribeNtfsRecord(record, info);
        return CZuError();
    });
}

CZuError ReadNtfsStream(INtfsRecords& volume, uint64_t frn, const std::string& name, const TakeBytes_t& take) {
    return WithinMemory(OutOfMemory, [&]() -> CZuError {
        CAutoMemory<char> record;
        ZU_RETURN_IF_ERROR(volume.ReadRecord(frn, record));
        CNtfsStream stream;
        const std::string where = CZuString::Format("{1}: file record {2}", volume.Name(), frn).c_str();
        ZU_RETURN_IF_ERROR(volume.OpenStream(frn, record, AttrData, NtfsNameOfText(name), where, stream));
        if (stream.Attribute().isEncrypted)
            return Refusal(where + ": is encrypted; its bytes can't be read without the key");
        if (name.empty())
            ZU_RETURN_IF_ERROR(CheckContentsAreHere(record, where));
        return DeliverStream(stream, take);
    });
}

CZuError ReadNtfsBackupStream(INtfsRecords& volume, uint64_t frn, const TakeBytes_t& take) {
    return WithinMemory(OutOfMemory, [&] { return CNtfsBackupStream(volume, take).Write(frn); });
}

CZuError ReadNtfsSecurity(INtfsRecords& volume, uint64_t frn, std::string& descriptor) {
    return WithinMemory(OutOfMemory, [&]() -> CZuError {
        CAutoMemory<char> record;
        ZU_RETURN_IF_ERROR(volume.ReadRecord(frn, record));
        return ReadNtfsSecurity(volume, frn, record, descriptor);
    });
}
