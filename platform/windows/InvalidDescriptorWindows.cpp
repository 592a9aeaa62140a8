#include <windows.h>

#include "platform/InvalidDescriptor.h"

int InvalidDescriptorError() {
    return ERROR_INVALID_SECURITY_DESCR;
}
