#pragma once

#include <cstdint>
#include <new>
#include <stdexcept>
#include <system_error>

#include "foundation/ZuError.h"
#include "foundation/ZuString.h"

// How errors are made and passed on inside the system.

namespace ErrorType {
constexpr int System = 1;
constexpr int Condition = 3;
constexpr int Text = 4;
constexpr int LayerCondition = 7;
}  // namespace ErrorType

// Passes an error on to our caller, with our own place added to it.
#define ZU_RETURN_IF_ERROR(expression)                       \
    do {                                                     \
        CZuError zuError = (expression);                     \
        if (zuError.IsErrorSet()) {                          \
            zuError.PushStack(__func__, __FILE__, __LINE__); \
            return zuError;                                  \
        }                                                    \
    } while (false)

// A failure worded for people.
inline CZuError Refusal(const CZuString& text, const char* file = __builtin_FILE(), int line = __builtin_LINE()) {
    CZuError error;
    error.SetError(ErrorType::Text, 1, 0, text.c_str(), file, line);
    return error;
}

// A failure of the system: `number` is its own error number, 0 for none.
inline CZuError SystemFailure(int number, const char* file = __builtin_FILE(), int line = __builtin_LINE()) {
    CZuError error;
    if (number != 0)
        error.SetError(ErrorType::System, 1, static_cast<unsigned long>(number), nullptr, file, line);
    return error;
}

// A condition that callers ask for by a predicate, declared once beside the class that sets it.
struct Condition_t {
    int type;
    uint32_t moduleId;
    uint32_t code;
    const char* text;  // null for none

    CZuError Error(const char* file = __builtin_FILE(), int line = __builtin_LINE()) const {
        CZuError error;
        error.SetError(type, moduleId, code, text, file, line);
        return error;
    }

    bool Holds(const CZuError& error) const {
        return error.GetErrorType() == static_cast<unsigned int>(type) && error.GetModuleId() == moduleId &&
               error.GetErrorCode() == code;
    }
};

// Runs a step that may need more memory than there is; `text` is what its callers are told then.
template <typename Step> CZuError WithinMemory(const char* text, Step step) {
    try {
        return step();
    } catch (const std::bad_alloc&) {
        return Refusal(text);
    } catch (const std::length_error&) {
        return Refusal(text);
    } catch (const std::system_error& error) {  // no more threads, or the system's other refusals
        return SystemFailure(error.code().value());
    }
}

// Ignores an error on purpose; the caller's comment says why that is right.
inline void Dropped(const CZuError& /*error*/) {}
