#include <windows.h>

#include <cerrno>
#include <system_error>

#include "platform/windows/ErrorNumber.h"

int LastErrorNumber() {
    const std::error_code error(static_cast<int>(GetLastError()), std::system_category());
    const std::error_condition condition = error.default_error_condition();
    return condition.category() == std::generic_category() && condition.value() != 0 ? condition.value() : EIO;
}
