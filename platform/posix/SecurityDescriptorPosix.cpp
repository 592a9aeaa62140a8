#include "platform/DescriptorParts.h"

int SplitSecurityDescriptor(const char* descriptor, uint32_t size, SecurityDescriptorParts_t& parts) {
    return FindDescriptorParts(descriptor, size, parts);
}
