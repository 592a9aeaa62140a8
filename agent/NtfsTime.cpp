#include "agent/NtfsTime.h"

#include <chrono>
#include <cstdio>

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
    char text[64];
    std::snprintf(text, sizeof(text), "%04d-%02u-%02uT%02u:%02u:%02u.%07uZ", static_cast<int>(date.year()),
                  static_cast<unsigned>(date.month()), static_cast<unsigned>(date.day()), inDay / 3600, inDay / 60 % 60,
                  inDay % 60, static_cast<unsigned>(time % ticksPerSecond));
    return text;
}
