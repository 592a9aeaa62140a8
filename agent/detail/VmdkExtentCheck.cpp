#include "agent/detail/VmdkExtentCheck.h"

#include <algorithm>
#include <cstdio>

#include "VirtualServer/VMInfo/UtilityFunctions.h"
#include "VirtualServer/VMInfo/VmdkSparseFormat.h"
#include "VirtualServer/VMInfo/detail/VmdkDescriptorText.h"
#include "agent/ErrorText.h"
#include "foundation/detail/CheckedMath.h"
#include "foundation/detail/ErrorHandling.h"

namespace {

constexpr uint32_t KnownFlags = VmdkSparseNewLinesAreValid | VmdkSparseRedundantIsActive;

std::string HexText(uint32_t value) {
    char text[11];
    std::snprintf(text, sizeof(text), "0x%x", static_cast<unsigned int>(value));
    return text;
}

bool IsCompressed(const VmdkSparseHeader_t& header) {
    return (header.flags & VmdkSparseCompressed) != 0 || header.compressAlgorithm != 0;
}

CZuError RefuseMisreadHeader(const VmdkSparseHeader_t& header) {
    if (IsCompressed(header))
        return Refusal("its grains are compressed (a stream-optimized extent), which can't be read; convert it to an "
                       "uncompressed image first, with: qemu-img convert -O vmdk IN OUT");
    if (header.version != 1)
        return Refusal(CZuString::Format("its sparse header is of version {1}, and only version 1 can be read; "
                                         "convert it first, with: qemu-img convert -O vmdk IN OUT",
                                         static_cast<uint32_t>(header.version)));
    if ((header.flags & VmdkSparseZeroGrains) != 0)
        return Refusal("its tables mark grains of zeros (flag 0x4), which would be read as other data; convert it "
                       "first, with: qemu-img convert -O vmdk IN OUT");
    if ((header.flags & ~KnownFlags) != 0)
        return Refusal("its header has flags that are not known (" + HexText(header.flags & ~KnownFlags) +
                       "); what they change can't be read rightly");
    return CZuError();
}

CZuError RefuseLargeGrain(uint64_t grainSectors) {
    if (grainSectors <= LargestGrainSectors)
        return CZuError();
    return Refusal(CZuString::Format("its grains are of {1} sectors; at most {2} can be handled", grainSectors,
                                     LargestGrainSectors));
}

CZuError ReadEmbeddedDescriptor(CZuFile& file, const VmdkSparseHeader_t& header, std::string& text) {
    uint64_t offset = 0;
    uint64_t sizeBytes = 0;
    if (header.descriptorOffset == 0 || !SectorsToBytes(header.descriptorOffset, offset) ||
        !SectorsToBytes(header.descriptorSize, sizeBytes))
        return CZuError();
    text.resize(static_cast<size_t>(std::min(sizeBytes, LargestDescriptorBytes)));
    ZU_RETURN_IF_ERROR(ReadFileAt(file, offset, 0, text.data(), static_cast<unsigned int>(text.size()), nullptr));
    text.resize(std::min(text.size(), text.find('\0')));
    return CZuError();
}

CZuError CheckHosted(CZuFile& file, SparseExtentFacts_t& facts) {
    VmdkSparseHeader_t header{};
    ZU_RETURN_IF_ERROR(ReadFileAt(file, 0, 0, &header, sizeof(header), nullptr));
    ZU_RETURN_IF_ERROR(RefuseMisreadHeader(header));
    ZU_RETURN_IF_ERROR(RefuseLargeGrain(header.grainSize));
    facts.capacitySectors = header.capacity;
    return ReadEmbeddedDescriptor(file, header, facts.descriptor);
}

CZuError CheckCowd(CZuFile& file, SparseExtentFacts_t& facts) {
    CowdHeader_t header{};
    ZU_RETURN_IF_ERROR(ReadFileAt(file, 0, 0, &header, sizeof(header), nullptr));
    ZU_RETURN_IF_ERROR(RefuseLargeGrain(header.grainSize));
    facts.capacitySectors = header.numSectors;
    facts.isCowd = true;
    return CZuError();
}

CZuError CheckOpened(CZuFile& file, SparseExtentFacts_t& facts) {
    Le32_t magic{};
    ZU_RETURN_IF_ERROR(ReadFileAt(file, 0, 0, &magic, sizeof(magic), nullptr));
    if (magic == VmdkSparseMagic)
        return CheckHosted(file, facts);
    if (magic == CowdMagic)
        return CheckCowd(file, facts);
    return Refusal("is no sparse extent: it begins with neither KDMV nor COWD");
}

}  // namespace

CZuError CheckSparseExtent(const std::string& path, SparseExtentFacts_t& facts) {
    CZuFile file;
    ZU_RETURN_IF_ERROR(ErrorAt(path, file.Open(path.c_str(), OpenAsBinary | OpenNotInherited, 0)));
    ZU_RETURN_IF_ERROR(ErrorAt(path, CheckOpened(file, facts)));
    return CZuError();
}
