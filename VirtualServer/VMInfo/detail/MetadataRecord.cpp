#include "VirtualServer/VMInfo/detail/MetadataRecord.h"

#include <cstdlib>
#include <cstring>
#include <string>

#include "foundation/detail/ErrorHandling.h"

namespace {

using Head_t = VirtualDisk_MetaData_Stream_t;

bool HeadMatches(const CAutoMemory<char>& record, const char* signature) {
    Head_t head{};
    if (!CByteView(record.GetPtr(), record.GetSize()).Get(0, head))
        return false;
    char sizeText[sizeof(head.recordSize)];
    PutHexText(sizeText, sizeof(sizeText), record.GetSize());
    return std::memcmp(head.signature, signature, sizeof(head.signature)) == 0 &&
           std::memcmp(head.recordSize, sizeText, sizeof(sizeText)) == 0;
}

}  // namespace

void PutHexText(char* target, size_t width, uint64_t value) {
    for (size_t at = width; at-- > 0; value >>= 4U)
        target[at] = "0123456789abcdef"[value & 0xFU];
}

void WriteMetadataHead(CAutoMemory<char>& record, const char* signature, uint64_t totalSectors) {
    Head_t head{};
    std::memcpy(head.signature, signature, sizeof(head.signature));
    PutHexText(head.recordSize, sizeof(head.recordSize), record.GetSize());
    PutHexText(head.totalSectors, sizeof(head.totalSectors), totalSectors);
    std::memcpy(record.GetPtr(), &head, sizeof(head));
}

CZuError CheckMetadataHead(const CAutoMemory<char>& record, const char* signature) {
    return HeadMatches(record, signature) ? CZuError() : Refusal(MetadataIsCorrupted);
}

uint64_t MetadataTotalSectors(const CAutoMemory<char>& record) {
    Head_t head{};
    if (!CByteView(record.GetPtr(), record.GetSize()).Get(0, head))
        return 0;
    const std::string text(head.totalSectors, sizeof(head.totalSectors));
    return std::strtoull(text.c_str(), nullptr, 16);
}

CByteView MetadataBody(const CAutoMemory<char>& record) {
    return CByteView(record.GetPtr(), record.GetSize()).From(MetadataHeadBytes);
}
