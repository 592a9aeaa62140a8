#include "platform/SystemError.h"

#include <system_error>

std::string SystemErrorText(uint32_t number) {
    return std::generic_category().message(static_cast<int>(number));
}
