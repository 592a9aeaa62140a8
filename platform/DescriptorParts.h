#pragma once

#include "platform/SecurityDescriptor.h"

// Finds the parts of a self-relative descriptor by its four offsets, each with the size that its own head tells.
// Answers and leaves `parts` as `SplitSecurityDescriptor` does, which is this where the system has no such operation.
int FindDescriptorParts(const char* descriptor, uint32_t size, SecurityDescriptorParts_t& parts);
