#include "foundation/ZuPath.h"

#include <string>

namespace {
constexpr const char* Separators = "/\\";
}

CZuString CZuPath::GetParent(const char* path) {
    const std::string whole = path != nullptr ? path : "";
    const size_t nameEnd = whole.find_last_not_of(Separators);
    if (nameEnd == std::string::npos)
        return whole.empty() ? "." : whole.substr(0, 1);

    const size_t separator = whole.find_last_of(Separators, nameEnd);
    if (separator == std::string::npos)
        return ".";
    const size_t parentEnd = whole.find_last_not_of(Separators, separator);
    return parentEnd == std::string::npos ? whole.substr(0, 1) : whole.substr(0, parentEnd + 1);
}
