#include <sys/random.h>

#include <cerrno>

#include "platform/NewGuid.h"

int MakeGuid(GUID& guid) {
    if (getrandom(&guid, sizeof(guid), 0) != static_cast<ssize_t>(sizeof(guid)))
        return errno;
    // Version 4, random, of the variant that RFC 4122 describes.
    guid.Data3 = static_cast<uint16_t>((guid.Data3 & 0x0FFFU) | 0x4000U);
    guid.Data4[0] = static_cast<uint8_t>((guid.Data4[0] & 0x3FU) | 0x80U);
    return 0;
}
