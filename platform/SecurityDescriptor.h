#pragma once

#include <cstdint>

#include "platform/Export.h"

// One part of a security descriptor, in the bytes of the descriptor itself; null and 0 when it is absent.
struct SecurityDescriptorPart_t {
    const char* bytes = nullptr;
    uint32_t size = 0;
};

struct SecurityDescriptorParts_t {
    uint8_t revision = 0;
    uint8_t reserved = 0;
    uint16_t control = 0;
    SecurityDescriptorPart_t owner;
    SecurityDescriptorPart_t group;
    SecurityDescriptorPart_t sacl;
    SecurityDescriptorPart_t dacl;
};

// Finds the parts of a self-relative descriptor of `size` bytes. Answers 0, or the system's number for a descriptor
// that isn't valid when a part leaves it; `parts` stays as it was then. Parts may overlap and stand in any order.
DISKSTREAM_EXPORT int SplitSecurityDescriptor(const char* descriptor, uint32_t size, SecurityDescriptorParts_t& parts);
