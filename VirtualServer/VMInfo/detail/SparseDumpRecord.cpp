#include "VirtualServer/VMInfo/detail/SparseDumpRecord.h"

#include <cstring>

#include "VirtualServer/VMInfo/detail/VolumeDumpFormat.h"
#include "foundation/ZuString.h"
#include "foundation/detail/ErrorHandling.h"

namespace {

void PutName(DumpExtentRecord_t& record, const char* name) {
    if (name != nullptr)
        std::memcpy(record.extentName, name, strnlen(name, sizeof(record.extentName) - 1));
}

}  // namespace

CZuError WriteSparseDumpRecord(CZuFile& out, const char* name, const SparseDumpFields_t& fields) {
    DumpExtentRecord_t record{};
    PutName(record, name);
    PutDumpNumber(record.startLba, fields.startLba);
    PutDumpNumber(record.endLba, fields.endLba);
    PutDumpNumber(record.blockSectors, fields.blockSectors);
    PutDumpNumber(record.grainSectors, fields.grainSectors);
    PutDumpNumber(record.fileOffset, fields.fileOffset);
    PutDumpNumber(record.grainsPerBucket, fields.grainsPerBucket);
    PutDumpNumber(record.bucketCount, fields.bucketCount);
    PutDumpNumber(record.topBitmapBytes, fields.topBitmapBytes);
    PutDumpNumber(record.bucketBytes, fields.bucketBytes);
    ZU_RETURN_IF_ERROR(WriteWhole(out, &record, sizeof(record)));
    return CZuError();
}

CZuError WriteSparseDumpCount(CZuFile& out, uint32_t count) {
    char text[DumpCountBytes];
    PutHexText(text, sizeof(text), count);
    ZU_RETURN_IF_ERROR(WriteWhole(out, text, sizeof(text)));
    return CZuError();
}

CZuError WriteWhole(CZuFile& out, const void* bytes, uint32_t size) {
    unsigned int put = 0;
    ZU_RETURN_IF_ERROR(out.Write(bytes, size, &put));
    if (put != size)
        return Refusal(CZuString::Format("Write failed. Tried {1} bytes wrote {2} bytes", size, put));
    return CZuError();
}
