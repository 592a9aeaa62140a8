#include "tool/Output.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "agent/ErrorText.h"
#include "foundation/detail/CheckedMath.h"

namespace {

// U+0080 to U+009F are control characters too; in UTF-8 they are 0xC2 and a byte of that range.
bool IsControl(unsigned char before, unsigned char byte) {
    return byte < 0x20 || byte == 0x7F || (before == 0xC2 && byte >= 0x80 && byte < 0xA0);
}

// In UTF-8 all bytes of a character but its first are 10xxxxxx.
size_t CountCharacters(const std::string& text) {
    return static_cast<size_t>(std::count_if(text.begin(), text.end(),
                                             [](char each) { return (static_cast<uint8_t>(each) & 0xC0U) != 0x80; }));
}

std::string LaidOut(const std::vector<std::string>& cells, const std::vector<size_t>& widths) {
    std::string line;
    for (size_t column = 0; column < cells.size(); ++column) {
        line += cells[column];
        line.append(widths[column] - CountCharacters(cells[column]) + 2, ' ');
    }
    line.erase(line.find_last_not_of(' ') + 1);
    return line;
}

}  // namespace

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

std::string SectorsText(uint64_t sectors) {
    uint64_t bytes = 0;
    return SectorsToBytes(sectors, bytes) ? SizeText(bytes) : "over 16 EiB";
}

Json_t SectorsJson(uint64_t sectors) {
    uint64_t bytes = 0;
    return SectorsToBytes(sectors, bytes) ? Json_t(bytes) : Json_t();
}

std::string Printable(const std::string& text) {
    constexpr char digits[] = "0123456789ABCDEF";
    std::string printable;
    printable.reserve(text.size());
    unsigned char before = 0;
    for (const char each : text) {
        const auto byte = static_cast<unsigned char>(each);
        if (IsControl(before, byte))
            printable.append("\\x").append(1, digits[byte >> 4U]).append(1, digits[byte & 0xFU]);
        else
            printable += each;
        before = byte;
    }
    return printable;
}

void PrintJson(const Json_t& object) {
    std::puts(object.dump(2, ' ', false, Json_t::error_handler_t::replace).c_str());
}

void PrintFacts(const std::vector<std::pair<std::string, std::string>>& facts) {
    size_t width = 0;
    for (const auto& [name, value] : facts)
        width = std::max(width, name.size());
    for (const auto& [name, value] : facts)
        std::printf("%-*s  %s\n", static_cast<int>(width), name.c_str(), Printable(value).c_str());
}

void PrintTable(const std::vector<std::string>& head, const std::vector<std::vector<std::string>>& rows) {
    std::vector<std::vector<std::string>> lines{head};
    for (const std::vector<std::string>& row : rows) {
        lines.emplace_back();
        for (const std::string& cell : row)
            lines.back().push_back(Printable(cell));
    }
    std::vector<size_t> widths(head.size());
    for (const std::vector<std::string>& line : lines) {
        for (size_t column = 0; column < line.size(); ++column)
            widths[column] = std::max(widths[column], CountCharacters(line[column]));
    }
    for (const std::vector<std::string>& line : lines)
        std::puts(LaidOut(line, widths).c_str());
}

void PrintComplaint(const std::string& text) {
    std::fprintf(stderr, "diskstream: %s\n", Printable(text).c_str());
}

int Fail(const OutputOptions_t& output, const CZuError& error) {
    const std::string text = DescribeError(error);
    if (output.json)
        PrintJson({{"error", text}});
    PrintComplaint(text);
    return ExitFailure;
}

void PrintWarnings(const std::vector<std::string>& warnings) {
    for (const std::string& warning : warnings)
        PrintComplaint("warning: " + warning);
}

int AfterOutput(int exitCode) {
    if (std::fflush(stdout) == 0 && std::ferror(stdout) == 0)
        return exitCode;
    PrintComplaint(std::string("the standard output: ") + std::strerror(errno));
    return ExitFailure;
}
