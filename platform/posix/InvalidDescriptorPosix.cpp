#include <cerrno>

#include "platform/InvalidDescriptor.h"

int InvalidDescriptorError() {
    return EINVAL;
}
