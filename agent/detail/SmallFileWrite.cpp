#include "agent/detail/SmallFileWrite.h"

#include "VirtualServer/VMInfo/UtilityFunctions.h"
#include "foundation/detail/ErrorHandling.h"

CZuError WriteSmallFile(const std::string& name, const std::string& bytes) {
    constexpr int ownerReadsAndWrites = 384;
    CZuFile file;
    ZU_RETURN_IF_ERROR(
        file.Open(name.c_str(), OpenAsBinary | OpenNotInherited | OpenCreating | OpenForWriting, ownerReadsAndWrites));
    ZU_RETURN_IF_ERROR(WriteFileAt(file, 0, 0, bytes.data(), static_cast<unsigned int>(bytes.size()), nullptr));
    return file.Close();
}
