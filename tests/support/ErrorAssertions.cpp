#include "tests/support/ErrorAssertions.h"

#include <cstring>
#include <string>

namespace {

bool SameText(const char* left, const char* right) {
    return left == nullptr || right == nullptr ? left == right : std::strcmp(left, right) == 0;
}

std::string Quoted(const char* text) {
    return text != nullptr ? "\"" + std::string(text) + "\"" : "no text";
}

}  // namespace

testing::AssertionResult ErrorIsNotSet(const char* expression, const CZuError& error) {
    if (!error.IsErrorSet())
        return testing::AssertionSuccess();
    return testing::AssertionFailure() << expression << "\n  should succeed, got " << error.ConvertToString();
}

testing::AssertionResult ErrorIs(const char* expression, const CZuError& error, uint32_t type, uint32_t moduleId,
                                 uint32_t code, const char* text) {
    if (error.IsErrorSet() && error.GetErrorType() == type && error.GetModuleId() == moduleId &&
        error.GetErrorCode() == code && SameText(error.GetErrorText(), text))
        return testing::AssertionSuccess();
    return testing::AssertionFailure() << expression << "\n  should fail with " << type << "/" << moduleId << "/"
                                       << code << " and " << Quoted(text) << ",\n  got " << error.ConvertToString();
}
