#include "tool/Output.h"

#include <algorithm>
#include <cstdio>

#include "agent/ErrorText.h"

std::string SizeText(uint64_t bytes) {
    static constexpr const char* units[] = {"B", "KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
    size_t unit = 0;
    auto value = static_cast<double>(bytes);
    for (; value >= 1024 && unit + 1 < std::size(units); ++unit)
        value /= 1024;
    char text[32];
    std::snprintf(text, sizeof(text), unit == 0 ? "%.0f %s" : "%.1f %s", value, units[unit]);
    return text;
}

void PrintJson(const Json_t& object) {
    std::puts(object.dump(2, ' ', false, Json_t::error_handler_t::replace).c_str());
}

void PrintFacts(const std::vector<std::pair<std::string, std::string>>& facts) {
    size_t width = 0;
    for (const auto& [name, value] : facts)
        width = std::max(width, name.size());
    for (const auto& [name, value] : facts)
        std::printf("%-*s  %s\n", static_cast<int>(width), name.c_str(), value.c_str());
}

int Fail(const OutputOptions_t& output, const CZuError& error) {
    const std::string text = DescribeError(error);
    if (output.json)
        PrintJson({{"error", text}});
    std::fprintf(stderr, "diskstream: %s\n", text.c_str());
    return ExitFailure;
}

void PrintWarnings(const std::vector<std::string>& warnings) {
    for (const std::string& warning : warnings)
        std::fprintf(stderr, "diskstream: warning: %s\n", warning.c_str());
}
