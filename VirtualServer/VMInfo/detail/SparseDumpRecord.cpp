#include "VirtualServer/VMInfo/detail/SparseDumpRecord.h"

#include <algorithm>
#include <cstddef>
#include <cstring>

#include "VirtualServer/VMInfo/detail/MetadataRecord.h"
#include "foundation/ZuString.h"
#include "foundation/detail/ErrorHandling.h"

namespace {

constexpr size_t Number64 = 17;  // sixteen characters and the terminator
constexpr size_t Number32 = 9;

struct SparseDumpRecord_t {
    char extentName[1024];           //    0
    char startLba[Number64];         // 1024
    char endLba[Number64];           // 1041
    char blockSectors[Number64];     // 1058
    char grainSectors[Number64];     // 1075
    char fileOffset[Number32];       // 1092
    char grainsPerBucket[Number64];  // 1101
    char bucketCount[Number64];      // 1118
    char topBitmapBytes[Number32];   // 1135
    char bucketBytes[Number32];      // 1144
};
static_assert(sizeof(SparseDumpRecord_t) == 1153 && offsetof(SparseDumpRecord_t, bucketBytes) == 1144);

template <size_t FieldBytes> void PutNumber(char (&field)[FieldBytes], uint64_t value) {
    PutHexText(field, FieldBytes - 1, value);
}

void PutName(SparseDumpRecord_t& record, const char* name) {
    if (name != nullptr)
        std::memcpy(record.extentName, name, strnlen(name, sizeof(record.extentName) - 1));
}

}  // namespace

CZuError WriteSparseDumpRecord(CZuFile& out, const char* name, const SparseDumpFields_t& fields) {
    SparseDumpRecord_t record{};
    PutName(record, name);
    PutNumber(record.startLba, fields.startLba);
    PutNumber(record.endLba, fields.endLba);
    PutNumber(record.blockSectors, fields.blockSectors);
    PutNumber(record.grainSectors, fields.grainSectors);
    PutNumber(record.fileOffset, fields.fileOffset);
    PutNumber(record.grainsPerBucket, fields.grainsPerBucket);
    PutNumber(record.bucketCount, fields.bucketCount);
    PutNumber(record.topBitmapBytes, fields.topBitmapBytes);
    PutNumber(record.bucketBytes, fields.bucketBytes);
    ZU_RETURN_IF_ERROR(WriteWhole(out, &record, sizeof(record)));
    return CZuError();
}

CZuError WriteSparseDumpCount(CZuFile& out, uint32_t count) {
    char text[Number32 - 1];
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
