// Prints the size of a file or of a block device.
#include <cinttypes>
#include <cstdio>

#include "foundation/ZuFile.h"
#include "foundation/ZuString.h"

int main(int argc, char** argv) {
    CZuFile file;
    uint64_t sizeBytes = 0;
    if (argc != 2 || file.Open(argv[1], 0, 0).IsErrorSet() || file.Size(sizeBytes).IsErrorSet())
        return 1;
    std::printf("%" PRIu64 " bytes\n", sizeBytes);
    return 0;
}
