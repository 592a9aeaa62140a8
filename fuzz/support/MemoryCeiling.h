#pragma once

#include <cstddef>
#include <cstdint>

#include "fuzz/support/Demand.h"

// Holds what the code under test takes of memory against a ceiling, for as long as the object lives. Only a build with
// sanitizers can tell: in others this does nothing.

extern "C" __attribute__((weak)) int __sanitizer_install_malloc_and_free_hooks(  // NOLINT(bugprone-reserved-identifier)
    void (*onMalloc)(const volatile void*, size_t), void (*onFree)(const volatile void*));
extern "C" __attribute__((weak)) size_t __sanitizer_get_allocated_size(  // NOLINT(bugprone-reserved-identifier)
    const volatile void* block);

class CMemoryCeiling {
public:
    explicit CMemoryCeiling(uint64_t bytes) {
        static const bool isInstalled = Install();
        State().ceiling = isInstalled ? bytes : 0;
        State().inUse = 0;
    }
    CMemoryCeiling(const CMemoryCeiling&) = delete;
    CMemoryCeiling& operator=(const CMemoryCeiling&) = delete;
    ~CMemoryCeiling() { State().ceiling = 0; }

private:
    struct State_t {
        uint64_t ceiling = 0;  // 0 for none
        int64_t inUse = 0;     // taken since the object was made, less what was given back
    };

    static State_t& State() {
        static thread_local State_t state;
        return state;
    }

    static bool Install() {
        return __sanitizer_install_malloc_and_free_hooks != nullptr && __sanitizer_get_allocated_size != nullptr &&
               __sanitizer_install_malloc_and_free_hooks(OnMalloc, OnFree) > 0;
    }

    static void OnMalloc(const volatile void* /*block*/, size_t size) {
        State_t& state = State();
        if (state.ceiling == 0)
            return;
        state.inUse += static_cast<int64_t>(size);
        const bool isBelow = state.inUse <= static_cast<int64_t>(state.ceiling);
        if (!isBelow)
            state.ceiling = 0;  // the report takes memory too
        Demand(isBelow, "memory follows the bytes that are there");
    }

    static void OnFree(const volatile void* block) {
        if (State().ceiling != 0 && block != nullptr)
            State().inUse -= static_cast<int64_t>(__sanitizer_get_allocated_size(block));
    }
};
