// Counts the blocks that a flat disk file holds, in blocks of 64 KiB. Usage: consumer FILE
#include <cstdio>

#include "VirtualServer/VMInfo/ArchiveVirtualDiskFile.h"

int main(int argc, char** argv) {
    CArchiveVirtualDiskFile disk(VirtualProdType_VMware);
    CAutoMemory<char> buffer;
    Context_t context{};
    if (argc != 2 || disk.Open(argv[1], DiskType_MonolithicFlat).IsErrorSet() ||
        disk.GetFirstBlock(buffer, 128, context).IsErrorSet())
        return 1;
    unsigned int blocks = 0;
    uint64_t number = 0;
    CZuError error = disk.GetNextBlock(buffer, number, context);
    for (; !error.IsErrorSet(); error = disk.GetNextBlock(buffer, number, context))
        ++blocks;
    std::printf("%u blocks\n", blocks);
    return disk.IsErrorEOF(error) ? 0 : 1;
}
