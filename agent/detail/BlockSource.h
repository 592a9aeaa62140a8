#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <utility>

#include "agent/ExtentStream.h"
#include "foundation/AutoMemory.h"
#include "foundation/ZuError.h"

// The blocks of one extent, made whole: what the core streams, and what its rules leave out of it.
class IBlockSource {
public:
    IBlockSource() = default;
    IBlockSource(const IBlockSource&) = delete;
    IBlockSource& operator=(const IBlockSource&) = delete;
    virtual ~IBlockSource() = default;

    virtual CZuError Open(const DiskExtent_t& extent) = 0;

    // Makes `bytes` the next block; `place` stays empty behind the last one.
    virtual CZuError Next(CAutoMemory<char>& bytes, std::optional<BlockPlace_t>& place) = 0;

    // Makes `bytes` a block that came as unchanged, and so without them. Others than those have no such blocks.
    virtual CZuError ReadUnchanged(uint64_t /*number*/, CAutoMemory<char>& /*bytes*/) { return CZuError(); }

    // Of an open source.
    uint32_t BlockSectors() const { return m_BlockSectors; }
    uint64_t ExpectedBytes() const { return m_ExpectedBytes; }
    CAutoMemory<char> TakeRecord() { return std::exchange(m_Record, CAutoMemory<char>()); }

protected:
    uint32_t m_BlockSectors = 0;
    uint64_t m_ExpectedBytes = 0;  // that the blocks will have together, or somewhat more
    CAutoMemory<char> m_Record;
};

std::unique_ptr<IBlockSource> MakeFlatSource();    // VMDK flat extents and raw disks
std::unique_ptr<IBlockSource> MakeSparseSource();  // VMDK sparse extents
std::unique_ptr<IBlockSource> MakeFixedVhdSource();
std::unique_ptr<IBlockSource> MakeDynamicVhdSource();
std::unique_ptr<IBlockSource> MakeNtfsVolumeSource();
std::unique_ptr<IBlockSource> MakeManagedSource();  // disks that a server exports
std::unique_ptr<IBlockSource> MakeChainSource();    // a disk as it reads through its chain

std::unique_ptr<IBlockSource> MakeBlockSource(const DiskExtent_t& extent);

// The name by which the core opens the extent's file as a disk: a raw disk is a drive to it, of known size.
std::string CoreNameOf(const DiskExtent_t& extent);
