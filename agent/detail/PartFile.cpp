#include "agent/detail/PartFile.h"

#include <algorithm>

#include "VirtualServer/VMInfo/UtilityFunctions.h"
#include "agent/ErrorText.h"
#include "agent/detail/OutOfMemory.h"
#include "agent/detail/Pieces.h"
#include "foundation/AutoMemory.h"
#include "foundation/ZuFile.h"
#include "foundation/detail/ErrorHandling.h"

namespace {

constexpr int OwnerReadsAndWrites = 0600;

}  // namespace

CZuError CopyPartToFile(CBackupSetReader& set, const SetPart_t& part, const std::string& path) {
    CZuFile file;
    ZU_RETURN_IF_ERROR(ErrorAt(
        path, file.Open(path.c_str(), OpenForWriting | OpenCreating | OpenOnlyNew | OpenAsBinary | OpenNotInherited,
                        OwnerReadsAndWrites)));
    CAutoMemory<char> buffer;
    if (buffer.Alloc(static_cast<uint32_t>(std::clamp<uint64_t>(part.bytes, 1, PieceBytes))) == nullptr)
        return Refusal(OutOfMemory);
    for (uint64_t done = 0; done < part.bytes;) {
        const auto piece = static_cast<uint32_t>(std::min<uint64_t>(part.bytes - done, PieceBytes));
        ZU_RETURN_IF_ERROR(set.ReadPart(part, done, buffer.GetPtr(), piece));
        ZU_RETURN_IF_ERROR(ErrorAt(path, WriteFileAt(file, done, 0, buffer.GetPtr(), piece, nullptr)));
        done += piece;
    }
    return ErrorAt(path, file.Close());
}

CZuError AddFileAsPart(CBackupSetWriter& set, const std::string& name, int compressionLevel, const std::string& path) {
    CZuFile file;
    uint64_t left = 0;
    ZU_RETURN_IF_ERROR(ErrorAt(path, file.Open(path.c_str(), OpenAsBinary | OpenNotInherited, 0)));
    ZU_RETURN_IF_ERROR(ErrorAt(path, file.Size(left)));
    return set.AddPart(name, compressionLevel, [&](char* buffer, uint32_t room, uint32_t& got) {
        got = static_cast<uint32_t>(std::min<uint64_t>(left, room));
        left -= got;
        constexpr int fromPosition = 1;
        return got != 0 ? ErrorAt(path, ReadFileAt(file, 0, fromPosition, buffer, got, nullptr)) : CZuError();
    });
}
