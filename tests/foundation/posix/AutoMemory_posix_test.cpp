#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "foundation/AutoMemory.h"
#include "tests/support/posix/MemoryMeter.h"

namespace {
constexpr uint32_t Large = 64U << 20U;
}

TEST(AutoMemoryOnThisMachine, AllocFreesTheOldBlockBeforeItTakesTheNew) {
    const CMemoryMeter meter;
    CAutoMemory<char> memory;
    ASSERT_NE(memory.Alloc(Large), nullptr);
    ASSERT_NE(memory.Alloc(Large + 1), nullptr);
    EXPECT_LT(meter.PeakBytes(), Large + Large / 2);
}

TEST(AutoMemoryOnThisMachine, ReAllocTakesTheNewBlockBeforeItFreesTheOld) {
    const CMemoryMeter meter;
    CAutoMemory<char> memory;
    ASSERT_NE(memory.Alloc(Large), nullptr);
    ASSERT_NE(memory.ReAlloc(Large + 1), nullptr);
    EXPECT_GE(meter.PeakBytes(), 2U * Large);
    EXPECT_LT(meter.BytesInUse(), Large + Large / 2);
}

TEST(AutoMemoryOnThisMachine, NothingIsTakenWithinTheCapacity) {
    CMemoryMeter meter;
    CAutoMemory<char> memory;
    ASSERT_NE(memory.Alloc(1000), nullptr);
    const size_t before = meter.Allocations();
    meter.RefuseAbove(0);
    EXPECT_NE(memory.Alloc(999), nullptr);
    EXPECT_NE(memory.ReAlloc(1000), nullptr);
    memory.Shrink(500);
    EXPECT_EQ(memory.Alloc(0), nullptr);
    EXPECT_NE(memory.Alloc(1), nullptr);
    EXPECT_EQ(meter.Allocations(), before);
}

TEST(AutoMemoryOnThisMachine, EveryWayToGrowSurvivesAMachineWithoutMemory) {
    using Grow_t = char* (*)(CAutoMemory<char>&);
    const struct {
        const char* name;
        Grow_t grow;
    } rows[] = {
        {"Alloc", [](CAutoMemory<char>& memory) { return memory.Alloc(1000); }},
        {"ReAlloc", [](CAutoMemory<char>& memory) { return memory.ReAlloc(1000); }},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        CAutoMemory<char> memory;
        ASSERT_NE(memory.Alloc(10), nullptr);
        CMemoryMeter meter;
        meter.RefuseAbove(100);
        EXPECT_EQ(row.grow(memory), nullptr);
        EXPECT_EQ(memory.GetPtr(), nullptr);
        EXPECT_EQ(memory.GetSize(), 0U);
        EXPECT_EQ(memory.Alloc(0), nullptr);
        EXPECT_NE(memory.Alloc(10), nullptr);
    }
}

TEST(AutoMemoryOnThisMachine, ACopyForWhichThereIsNoMemoryIsEmpty) {
    CAutoMemory<char> original;
    ASSERT_NE(original.Alloc(1000), nullptr);
    CMemoryMeter meter;
    meter.RefuseAbove(100);
    const CAutoMemory<char> copy(original);
    EXPECT_EQ(copy.GetPtr(), nullptr);
    EXPECT_EQ(copy.GetSize(), 0U);
    EXPECT_EQ(original.GetSize(), 1000U);
}

TEST(AutoMemoryOnThisMachine, EveryBlockIsGivenBack) {
    const CMemoryMeter meter;
    {
        CAutoMemory<uint32_t> memory;
        ASSERT_NE(memory.Alloc(1000), nullptr);
        ASSERT_NE(memory.ReAlloc(2000), nullptr);
        CAutoMemory<uint32_t> copy(memory);
        copy = memory;
        CAutoMemory<uint32_t> moved(std::move(copy));
        moved = CAutoMemory<uint32_t>(memory);
        ASSERT_EQ(memory.Alloc(0), nullptr);
    }
    EXPECT_EQ(meter.BytesInUse(), 0U);
}

// A count whose bytes don't fit the machine's sizes can only come up where those are 32 bits wide.
TEST(AutoMemoryOnThisMachine, ACountThatNoSizeCanHoldIsOutOfMemoryToo) {
    CAutoMemory<uint32_t> memory;
    CMemoryMeter meter;
    meter.RefuseAbove(size_t{1} << 30U);
    EXPECT_EQ(memory.Alloc(0xFFFFFFFFU), nullptr);
    EXPECT_EQ(memory.GetSize(), 0U);
    ASSERT_NE(memory.Alloc(1), nullptr);
    EXPECT_EQ(memory.ReAlloc(0xFFFFFFFFU), nullptr);
    EXPECT_EQ(memory.GetSize(), 0U);
}
