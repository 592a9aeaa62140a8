#include "agent/ErrorText.h"

#include "foundation/ZuString.h"
#include "foundation/detail/ErrorHandling.h"
#include "platform/SystemError.h"

std::string DescribeError(const CZuError& error) {
    if (!error.IsErrorSet())
        return "no error";
    if (error.GetErrorText() != nullptr)
        return error.GetErrorText();
    if (error.GetErrorType() == ErrorType::System)
        return SystemErrorText(error.GetErrorCode());
    return CZuString::Format("unexpected condition {1} of reader {2}", error.GetErrorCode(), error.GetModuleId())
        .c_str();
}

CZuError ErrorAt(const std::string& where, const CZuError& error) {
    if (!error.IsErrorSet())
        return error;
    return Refusal(where + ": " + DescribeError(error));
}
