#include "agent/NtfsTime.h"

#include <chrono>

namespace {

// Puts the digits of `number` in front of `end`, over the zeros that stand there. Listings print times by the hundred
// thousand, where formatting them took longer than reading them.
void PutDigits(std::string& text, size_t end, unsigned number) {
    for (; number != 0; number /= 10)
        text[--end] = static_cast<char>('0' + number % 10);
}

}  // namespace

std::string NtfsTimeText(uint64_t time) {
    using namespace std::chrono;
    constexpr uint64_t ticksPerSecond = 10'000'000;
    constexpr uint64_t secondsPerDay = 86'400;
    constexpr sys_days start = year{1601} / January / 1;
    constexpr auto daysShown = static_cast<uint64_t>((sys_days{year{10000} / January / 1} - start).count());
    const uint64_t seconds = time / ticksPerSecond;
    const uint64_t dayCount = seconds / secondsPerDay;
    if (time == 0 || dayCount >= daysShown)
        return "";
    const year_month_day date(start + days(static_cast<int>(dayCount)));
    const auto inDay = static_cast<unsigned>(seconds % secondsPerDay);
    std::string text = "0000-00-00T00:00:00.0000000Z";
    PutDigits(text, 4, static_cast<unsigned>(static_cast<int>(date.year())));
    PutDigits(text, 7, static_cast<unsigned>(date.month()));
    PutDigits(text, 10, static_cast<unsigned>(date.day()));
    PutDigits(text, 13, inDay / 3600);
    PutDigits(text, 16, inDay / 60 % 60);
    PutDigits(text, 19, inDay % 60);
    PutDigits(text, 27, static_cast<unsigned>(time % ticksPerSecond));
    return text;
}
