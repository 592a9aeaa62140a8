#include "agent/NtfsTime.h"

#include <chrono>

namespace {

// Puts the digits of `number` in front of `end`, over the zeros that stand there. Listings print times by the hundred
// thousand, where formatting them took longer than reading them.
void PutDigits(std::string& text, size_t end, unsigned number) {
    for (; number != 0; number /= 10)
        text[--end] = static_cast<char>('0' + number % 10);
}

constexpr uint64_t TicksPerSecond = 10'000'000;
constexpr uint64_t SecondsPerDay = 86'400;
constexpr std::chrono::sys_days Start = std::chrono::year{1601} / std::chrono::January / 1;

// The number that the digits from `start` on make; nothing where one isn't a digit.
std::optional<unsigned> DigitsAt(const std::string& text, size_t start, size_t count) {
    unsigned number = 0;
    for (size_t at = start; at < start + count; ++at) {
        if (text[at] < '0' || text[at] > '9')
            return std::nullopt;
        number = number * 10 + static_cast<unsigned>(text[at] - '0');
    }
    return number;
}

// Days since the start of 1601 of "2026-01-31".
std::optional<uint64_t> DaysOf(const std::string& text) {
    const auto yearNumber = DigitsAt(text, 0, 4);
    const auto monthNumber = DigitsAt(text, 5, 2);
    const auto dayNumber = DigitsAt(text, 8, 2);
    if (!yearNumber || !monthNumber || !dayNumber || text[4] != '-' || text[7] != '-')
        return std::nullopt;
    const std::chrono::year_month_day date(std::chrono::year(static_cast<int>(*yearNumber)),
                                           std::chrono::month(*monthNumber), std::chrono::day(*dayNumber));
    if (!date.ok() || std::chrono::sys_days(date) < Start)
        return std::nullopt;
    return static_cast<uint64_t>((std::chrono::sys_days(date) - Start).count());
}

// Seconds of "T12:00:00", from its place in the text on.
std::optional<uint64_t> SecondsOf(const std::string& text, size_t start) {
    const auto hour = DigitsAt(text, start + 1, 2);
    const auto minute = DigitsAt(text, start + 4, 2);
    const auto second = DigitsAt(text, start + 7, 2);
    const bool isTime = hour && minute && second && text[start] == 'T' && text[start + 3] == ':' &&
                        text[start + 6] == ':' && *hour < 24 && *minute < 60 && *second < 60;
    return isTime ? std::optional<uint64_t>(*hour * 3600 + *minute * 60 + *second) : std::nullopt;
}

}  // namespace

std::optional<uint64_t> NtfsTimeFromText(const std::string& text) {
    constexpr size_t dateLength = 10;
    constexpr size_t timeLength = 19;
    const bool hasZone = !text.empty() && text.back() == 'Z';
    const std::string bare = hasZone ? text.substr(0, text.size() - 1) : text;
    if (bare.size() != dateLength && bare.size() != timeLength)
        return std::nullopt;
    const auto days = DaysOf(bare);
    const auto seconds = bare.size() == timeLength ? SecondsOf(bare, dateLength) : std::optional<uint64_t>(0);
    if (!days || !seconds)
        return std::nullopt;
    return (*days * SecondsPerDay + *seconds) * TicksPerSecond;
}

std::string NtfsTimeText(uint64_t time) {
    using namespace std::chrono;
    constexpr auto daysShown = static_cast<uint64_t>((sys_days{year{10000} / January / 1} - Start).count());
    const uint64_t seconds = time / TicksPerSecond;
    const uint64_t dayCount = seconds / SecondsPerDay;
    if (time == 0 || dayCount >= daysShown)
        return "";
    const year_month_day date(Start + days(static_cast<int>(dayCount)));
    const auto inDay = static_cast<unsigned>(seconds % SecondsPerDay);
    std::string text = "0000-00-00T00:00:00.0000000Z";
    PutDigits(text, 4, static_cast<unsigned>(static_cast<int>(date.year())));
    PutDigits(text, 7, static_cast<unsigned>(date.month()));
    PutDigits(text, 10, static_cast<unsigned>(date.day()));
    PutDigits(text, 13, inDay / 3600);
    PutDigits(text, 16, inDay / 60 % 60);
    PutDigits(text, 19, inDay % 60);
    PutDigits(text, 27, static_cast<unsigned>(time % TicksPerSecond));
    return text;
}
