#include "foundation/AutoMemory.h"

#include <gtest/gtest.h>

#include <cstring>
#include <numeric>
#include <string>
#include <type_traits>

namespace {

// The three fields in the order in which they lie in the object.
template <typename T> struct Fields_t {
    uint32_t capacity;
    T* data;
    uint32_t size;
};

template <typename T> Fields_t<T> Fields(const CAutoMemory<T>& memory) {
    static_assert(sizeof(memory) == sizeof(Fields_t<T>));
    Fields_t<T> fields;
    std::memcpy(&fields, static_cast<const void*>(&memory), sizeof(fields));
    return fields;
}

template <typename T> void ExpectNothing(const CAutoMemory<T>& memory) {
    EXPECT_EQ(Fields(memory).capacity, 0U);
    EXPECT_EQ(Fields(memory).data, nullptr);
    EXPECT_EQ(Fields(memory).size, 0U);
    EXPECT_EQ(memory.GetPtr(), nullptr);
    EXPECT_EQ(memory.GetSize(), 0U);
}

void Fill(CAutoMemory<char>& memory, const std::string& text) {
    char* const data = memory.Alloc(static_cast<uint32_t>(text.size()));
    ASSERT_NE(data, nullptr);
    std::memcpy(data, text.data(), text.size());
}

std::string Text(const CAutoMemory<char>& memory) {
    return memory.GetPtr() != nullptr ? std::string(memory.GetPtr(), memory.GetSize()) : std::string();
}

// So large that the machine has no room for many of it.
struct Mebibyte_t {
    char bytes[1U << 20U];
};
constexpr uint32_t MoreThanThereIs = sizeof(size_t) > 4 ? 0xFFFFFFFFU : 0xFFFU;

}  // namespace

TEST(AutoMemory, HoldsNothingAtFirst) {
    ExpectNothing(CAutoMemory<char>());
    ExpectNothing(CAutoMemory<uint32_t>());
}

TEST(AutoMemory, AllocTakesABlockOfExactlyTheCount) {
    CAutoMemory<uint32_t> memory;
    uint32_t* const data = memory.Alloc(7);
    ASSERT_NE(data, nullptr);
    EXPECT_EQ(memory.GetPtr(), data);
    EXPECT_EQ(memory.GetSize(), 7U);
    EXPECT_EQ(Fields(memory).capacity, 7U);
    EXPECT_EQ(Fields(memory).data, data);
    std::iota(data, data + 7, 1U);  // all of it is ours to write
    EXPECT_EQ(data[6], 7U);
}

TEST(AutoMemory, EveryBlockBeginsWhereTransfersAreFast) {
    CAutoMemory<char> memory;
    for (const uint32_t count : {1U, 63U, 4097U, 1U << 20U}) {
        memory.Free();
        const char* const taken = memory.Alloc(count);
        EXPECT_EQ(reinterpret_cast<uintptr_t>(taken) % 64, 0U) << count;
        const char* const grown = memory.ReAlloc(count + 1);
        EXPECT_EQ(reinterpret_cast<uintptr_t>(grown) % 64, 0U) << count;
    }
}

TEST(AutoMemory, AllocOfNothingWithoutABlockTakesNone) {
    CAutoMemory<char> memory;
    EXPECT_EQ(memory.Alloc(0), nullptr);
    ExpectNothing(memory);
}

TEST(AutoMemory, AllocOfNothingKeepsTheBlockButHidesIt) {
    CAutoMemory<char> memory;
    Fill(memory, "abcdef");
    char* const block = memory.GetPtr();
    EXPECT_EQ(memory.Alloc(0), nullptr);
    EXPECT_EQ(memory.GetPtr(), nullptr);
    EXPECT_EQ(static_cast<const CAutoMemory<char>&>(memory).GetPtr(), nullptr);
    EXPECT_EQ(memory.GetSize(), 0U);
    EXPECT_EQ(Fields(memory).capacity, 6U);
    EXPECT_EQ(Fields(memory).data, block);
    EXPECT_EQ(memory.Alloc(6), block);
    EXPECT_EQ(Text(memory), "abcdef");
}

TEST(AutoMemory, AllocWithinTheCapacityChangesTheSizeAlone) {
    CAutoMemory<char> memory;
    Fill(memory, "abcdef");
    char* const block = memory.GetPtr();
    for (const uint32_t count : {2U, 5U, 6U, 1U, 6U}) {
        SCOPED_TRACE(count);
        EXPECT_EQ(memory.Alloc(count), block);
        EXPECT_EQ(Fields(memory).capacity, 6U);
        EXPECT_EQ(Text(memory), std::string("abcdef").substr(0, count));
    }
}

TEST(AutoMemory, AllocBeyondTheCapacityTakesExactlyTheNewCount) {
    CAutoMemory<char> memory;
    Fill(memory, "abcdef");
    ASSERT_NE(memory.Alloc(2), nullptr);
    ASSERT_NE(memory.Alloc(7), nullptr);
    EXPECT_EQ(memory.GetSize(), 7U);
    EXPECT_EQ(Fields(memory).capacity, 7U);
    std::memset(memory.GetPtr(), 'x', 7);
}

TEST(AutoMemory, AllocThatFailsLeavesNothing) {
    CAutoMemory<Mebibyte_t> memory;
    EXPECT_EQ(memory.Alloc(MoreThanThereIs), nullptr);
    ExpectNothing(memory);
    ASSERT_NE(memory.Alloc(1), nullptr);
    EXPECT_EQ(memory.Alloc(MoreThanThereIs), nullptr);
    ExpectNothing(memory);
    EXPECT_NE(memory.Alloc(1), nullptr);
}

TEST(AutoMemory, ReAllocTakesTheFirstBlockAsAllocDoes) {
    CAutoMemory<char> memory;
    EXPECT_EQ(memory.ReAlloc(0), nullptr);
    ExpectNothing(memory);
    char* const data = memory.ReAlloc(3);
    ASSERT_NE(data, nullptr);
    EXPECT_EQ(memory.GetPtr(), data);
    EXPECT_EQ(Fields(memory).capacity, 3U);
    EXPECT_EQ(memory.GetSize(), 3U);
}

TEST(AutoMemory, ReAllocKeepsTheElementsInUseWhenItGrows) {
    CAutoMemory<char> memory;
    Fill(memory, "abcdef");
    ASSERT_NE(memory.ReAlloc(4000), nullptr);
    EXPECT_EQ(memory.GetSize(), 4000U);
    EXPECT_EQ(Fields(memory).capacity, 4000U);
    EXPECT_EQ(Text(memory).substr(0, 6), "abcdef");
}

TEST(AutoMemory, ReAllocKeepsEveryByteOfWideElements) {
    CAutoMemory<uint32_t> memory;
    ASSERT_NE(memory.Alloc(3), nullptr);
    std::iota(memory.GetPtr(), memory.GetPtr() + 3, 0xFFFFFFF0U);
    ASSERT_NE(memory.ReAlloc(100), nullptr);
    for (uint32_t index = 0; index < 3; ++index)
        EXPECT_EQ(memory.GetPtr()[index], 0xFFFFFFF0U + index);
}

TEST(AutoMemory, ReAllocWithinTheCapacityChangesTheSizeAlone) {
    CAutoMemory<char> memory;
    Fill(memory, "abcdef");
    char* const block = memory.GetPtr();
    EXPECT_EQ(memory.ReAlloc(3), block);
    EXPECT_EQ(Text(memory), "abc");
    EXPECT_EQ(memory.ReAlloc(0), nullptr);
    EXPECT_EQ(Fields(memory).data, block);
    EXPECT_EQ(Fields(memory).capacity, 6U);
    EXPECT_EQ(memory.ReAlloc(6), block);
    EXPECT_EQ(Text(memory), "abcdef");
}

TEST(AutoMemory, ReAllocCopiesNothingOfABlockOutOfUse) {
    CAutoMemory<char> memory;
    Fill(memory, "abcdef");
    ASSERT_EQ(memory.Alloc(0), nullptr);
    ASSERT_NE(memory.ReAlloc(7), nullptr);
    EXPECT_EQ(memory.GetSize(), 7U);
    EXPECT_EQ(Fields(memory).capacity, 7U);
}

TEST(AutoMemory, ReAllocThatFailsFreesTheBufferAltogether) {
    CAutoMemory<Mebibyte_t> memory;
    ASSERT_NE(memory.Alloc(2), nullptr);
    EXPECT_EQ(memory.ReAlloc(MoreThanThereIs), nullptr);
    ExpectNothing(memory);
}

TEST(AutoMemory, FreeLeavesNothingHoweverOften) {
    CAutoMemory<char> memory;
    memory.Free();
    ExpectNothing(memory);
    Fill(memory, "abcdef");
    memory.Free();
    ExpectNothing(memory);
    memory.Free();
    ExpectNothing(memory);
    Fill(memory, "ab");
    ASSERT_EQ(memory.Alloc(0), nullptr);
    memory.Free();
    ExpectNothing(memory);
}

TEST(AutoMemory, ShrinkTakesElementsOffTheEndAndKeepsTheBlock) {
    const struct {
        const char* name;
        uint32_t count;
        const char* left;
    } rows[] = {
        {"none", 0, "abcdef"},          {"one", 1, "abcde"},
        {"all but one", 5, "a"},        {"all", 6, ""},
        {"more than there are", 7, ""}, {"the most there is", ~0U, ""},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        CAutoMemory<char> memory;
        Fill(memory, "abcdef");
        char* const block = memory.GetPtr();
        memory.Shrink(row.count);
        EXPECT_EQ(Text(memory), row.left);
        EXPECT_EQ(memory.GetSize(), std::strlen(row.left));
        EXPECT_EQ(Fields(memory).data, block);
        EXPECT_EQ(Fields(memory).capacity, 6U);
    }
}

TEST(AutoMemory, ShrinkOfNothingIsNothing) {
    CAutoMemory<char> memory;
    memory.Shrink(0);
    memory.Shrink(5);
    ExpectNothing(memory);
}

TEST(AutoMemory, ACopyHasElementsOfItsOwn) {
    CAutoMemory<char> original;
    Fill(original, "abcdef");
    CAutoMemory<char> copy(original);
    EXPECT_EQ(Text(copy), "abcdef");
    EXPECT_NE(copy.GetPtr(), original.GetPtr());
    copy.GetPtr()[0] = 'X';
    EXPECT_EQ(Text(original), "abcdef");
    original.Free();
    EXPECT_EQ(Text(copy), "Xbcdef");
}

TEST(AutoMemory, AssignmentTakesTheSizeAndTheElementsOfTheOther) {
    CAutoMemory<char> source;
    Fill(source, "abc");
    CAutoMemory<char> smaller;
    Fill(smaller, "z");
    CAutoMemory<char> larger;
    Fill(larger, "123456789");
    CAutoMemory<char> none;
    smaller = source;
    larger = source;
    none = source;
    for (const CAutoMemory<char>* const target : {&smaller, &larger, &none}) {
        EXPECT_EQ(Text(*target), "abc");
        EXPECT_NE(target->GetPtr(), source.GetPtr());
    }
    EXPECT_EQ(Text(source), "abc");
}

TEST(AutoMemory, ACopyOfNothingInUseHasNothingInUse) {
    CAutoMemory<char> hidden;
    Fill(hidden, "abc");
    ASSERT_EQ(hidden.Alloc(0), nullptr);
    const CAutoMemory<char> copy(hidden);
    EXPECT_EQ(copy.GetPtr(), nullptr);
    EXPECT_EQ(copy.GetSize(), 0U);
    CAutoMemory<char> target;
    Fill(target, "xyz");
    target = CAutoMemory<char>(hidden);
    EXPECT_EQ(target.GetSize(), 0U);
    Fill(target, "xyz");
    target = hidden;
    EXPECT_EQ(target.GetPtr(), nullptr);
    EXPECT_EQ(target.GetSize(), 0U);
}

TEST(AutoMemory, AMoveTakesTheBlockAndLeavesNothing) {
    CAutoMemory<char> source;
    Fill(source, "abcdef");
    char* const block = source.GetPtr();
    CAutoMemory<char> moved(std::move(source));
    EXPECT_EQ(moved.GetPtr(), block);
    ExpectNothing(source);
    CAutoMemory<char> target;
    Fill(target, "xyz");
    target = std::move(moved);
    EXPECT_EQ(target.GetPtr(), block);
    EXPECT_EQ(Text(target), "abcdef");
    ExpectNothing(moved);
    static_assert(std::is_nothrow_move_constructible_v<CAutoMemory<char>>);
    static_assert(std::is_nothrow_move_assignable_v<CAutoMemory<char>>);
}

TEST(AutoMemory, AssigningItToItselfChangesNothing) {
    CAutoMemory<char> memory;
    Fill(memory, "abcdef");
    CAutoMemory<char>& same = memory;
    memory = same;
    EXPECT_EQ(Text(memory), "abcdef");
    memory = std::move(same);
    EXPECT_EQ(Text(memory), "abcdef");
}
