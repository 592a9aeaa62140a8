#include "platform/DescriptorParts.h"

#include "platform/InvalidDescriptor.h"

namespace {

constexpr uint32_t HeaderBytes = 20;
constexpr uint32_t OwnerField = 4;
constexpr uint32_t GroupField = 8;
constexpr uint32_t SaclField = 12;
constexpr uint32_t DaclField = 16;

constexpr uint16_t DaclPresent = 0x4;
constexpr uint16_t SaclPresent = 0x10;

constexpr uint32_t SidHeadBytes = 8;
constexpr uint32_t AclHeadBytes = 8;

uint8_t ByteAt(const char* bytes, uint32_t offset) {
    return static_cast<uint8_t>(bytes[offset]);
}

uint16_t Number16At(const char* bytes, uint32_t offset) {
    return static_cast<uint16_t>(ByteAt(bytes, offset) | ByteAt(bytes, offset + 1) << 8U);
}

uint32_t Number32At(const char* bytes, uint32_t offset) {
    return Number16At(bytes, offset) | static_cast<uint32_t>(Number16At(bytes, offset + 2)) << 16U;
}

uint32_t SidBytes(const char* sid) {
    const uint32_t subauthorities = ByteAt(sid, 1);
    return SidHeadBytes + 4 * subauthorities;
}

uint32_t AclBytes(const char* acl) {
    return Number16At(acl, 2);
}

// Finds the part whose offset stands at `field`. `sizeOf` may look at the part's first `headBytes` bytes.
bool FindPart(const char* descriptor, uint32_t size, uint32_t field, uint32_t headBytes,
              uint32_t (*sizeOf)(const char*), SecurityDescriptorPart_t& part) {
    const uint32_t offset = Number32At(descriptor, field);
    if (offset == 0)
        return true;
    if (offset > size || size - offset < headBytes)
        return false;
    part.bytes = descriptor + offset;
    part.size = sizeOf(part.bytes);
    return part.size <= size - offset;
}

bool FindSid(const char* descriptor, uint32_t size, uint32_t field, SecurityDescriptorPart_t& sid) {
    return FindPart(descriptor, size, field, SidHeadBytes, SidBytes, sid);
}

// What stands at the field of a list that isn't present means nothing.
bool FindAcl(const char* descriptor, uint32_t size, uint32_t field, bool isPresent, SecurityDescriptorPart_t& acl) {
    return !isPresent || FindPart(descriptor, size, field, AclHeadBytes, AclBytes, acl);
}

}  // namespace

int FindDescriptorParts(const char* descriptor, uint32_t size, SecurityDescriptorParts_t& parts) {
    if (descriptor == nullptr || size < HeaderBytes)
        return InvalidDescriptorError();

    SecurityDescriptorParts_t found;
    found.revision = ByteAt(descriptor, 0);
    found.reserved = ByteAt(descriptor, 1);
    found.control = Number16At(descriptor, 2);
    if (!FindSid(descriptor, size, OwnerField, found.owner) || !FindSid(descriptor, size, GroupField, found.group) ||
        !FindAcl(descriptor, size, SaclField, (found.control & SaclPresent) != 0, found.sacl) ||
        !FindAcl(descriptor, size, DaclField, (found.control & DaclPresent) != 0, found.dacl))
        return InvalidDescriptorError();
    parts = found;
    return 0;
}
