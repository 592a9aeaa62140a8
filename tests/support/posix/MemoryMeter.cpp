#include "tests/support/posix/MemoryMeter.h"

#include <malloc.h>

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <limits>
#include <new>

namespace {

// Threads of other tests allocate too, while no meter is there.
struct Meter_t {
    std::atomic<bool> isOn{false};
    std::atomic<int64_t> inUse{0};
    std::atomic<int64_t> peak{0};
    std::atomic<size_t> allocations{0};
    std::atomic<size_t> refusedAbove{std::numeric_limits<size_t>::max()};
};
Meter_t g_meter;

constexpr std::align_val_t OrdinaryAlignment{alignof(std::max_align_t)};

// Null when out of memory.
void* FromTheMachine(size_t sizeBytes, std::align_val_t alignment) noexcept {
    if (alignment <= OrdinaryAlignment)
        return std::malloc(sizeBytes);
    void* block = nullptr;
    return posix_memalign(&block, static_cast<size_t>(alignment), sizeBytes) == 0 ? block : nullptr;
}

void* TakeNothrow(size_t sizeBytes, std::align_val_t alignment = OrdinaryAlignment) noexcept {
    if (sizeBytes > g_meter.refusedAbove)
        return nullptr;
    void* const block = FromTheMachine(std::max<size_t>(sizeBytes, 1), alignment);
    if (block != nullptr && g_meter.isOn) {
        ++g_meter.allocations;
        g_meter.inUse += static_cast<int64_t>(malloc_usable_size(block));
        g_meter.peak = std::max(g_meter.peak.load(), g_meter.inUse.load());
    }
    return block;
}

void* Take(size_t sizeBytes, std::align_val_t alignment = OrdinaryAlignment) {
    void* const block = TakeNothrow(sizeBytes, alignment);
    if (block == nullptr)
        throw std::bad_alloc();
    return block;
}

void GiveBack(void* block) noexcept {
    if (block != nullptr && g_meter.isOn)
        g_meter.inUse -= static_cast<int64_t>(malloc_usable_size(block));
    std::free(block);
}

}  // namespace

// All forms at once: a sanitizer's own ones would not go together with a part of ours.
void* operator new(size_t sizeBytes) {
    return Take(sizeBytes);
}
void* operator new[](size_t sizeBytes) {
    return Take(sizeBytes);
}
void* operator new(size_t sizeBytes, const std::nothrow_t& /*tag*/) noexcept {
    return TakeNothrow(sizeBytes);
}
void* operator new[](size_t sizeBytes, const std::nothrow_t& /*tag*/) noexcept {
    return TakeNothrow(sizeBytes);
}
void operator delete(void* block) noexcept {
    GiveBack(block);
}
void operator delete[](void* block) noexcept {
    GiveBack(block);
}
void operator delete(void* block, size_t /*sizeBytes*/) noexcept {
    GiveBack(block);
}
void operator delete[](void* block, size_t /*sizeBytes*/) noexcept {
    GiveBack(block);
}
void operator delete(void* block, const std::nothrow_t& /*tag*/) noexcept {
    GiveBack(block);
}
void operator delete[](void* block, const std::nothrow_t& /*tag*/) noexcept {
    GiveBack(block);
}

void* operator new(size_t sizeBytes, std::align_val_t alignment) {
    return Take(sizeBytes, alignment);
}
void* operator new[](size_t sizeBytes, std::align_val_t alignment) {
    return Take(sizeBytes, alignment);
}
void* operator new(size_t sizeBytes, std::align_val_t alignment, const std::nothrow_t& /*tag*/) noexcept {
    return TakeNothrow(sizeBytes, alignment);
}
void* operator new[](size_t sizeBytes, std::align_val_t alignment, const std::nothrow_t& /*tag*/) noexcept {
    return TakeNothrow(sizeBytes, alignment);
}
void operator delete(void* block, std::align_val_t /*alignment*/) noexcept {
    GiveBack(block);
}
void operator delete[](void* block, std::align_val_t /*alignment*/) noexcept {
    GiveBack(block);
}
void operator delete(void* block, size_t /*sizeBytes*/, std::align_val_t /*alignment*/) noexcept {
    GiveBack(block);
}
void operator delete[](void* block, size_t /*sizeBytes*/, std::align_val_t /*alignment*/) noexcept {
    GiveBack(block);
}
void operator delete(void* block, std::align_val_t /*alignment*/, const std::nothrow_t& /*tag*/) noexcept {
    GiveBack(block);
}
void operator delete[](void* block, std::align_val_t /*alignment*/, const std::nothrow_t& /*tag*/) noexcept {
    GiveBack(block);
}

CMemoryMeter::CMemoryMeter() {
    g_meter.inUse = 0;
    g_meter.peak = 0;
    g_meter.allocations = 0;
    g_meter.isOn = true;
}

CMemoryMeter::~CMemoryMeter() {
    g_meter.isOn = false;
    g_meter.refusedAbove = std::numeric_limits<size_t>::max();
}

void CMemoryMeter::RefuseAbove(size_t sizeBytes) {
    g_meter.refusedAbove = sizeBytes;
}

size_t CMemoryMeter::PeakBytes() const {
    return static_cast<size_t>(g_meter.peak.load());
}

size_t CMemoryMeter::BytesInUse() const {
    return static_cast<size_t>(std::max<int64_t>(g_meter.inUse.load(), 0));
}

size_t CMemoryMeter::Allocations() const {
    return g_meter.allocations;
}
