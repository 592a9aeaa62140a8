#include "agent/NtfsTime.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>

TEST(NtfsTime, IsTheTimeOfDayInUtc) {
    constexpr uint64_t day = 864'000'000'000;
    const struct {
        uint64_t time;
        const char* text;
    } rows[] = {
        {0, ""},
        {1, "1601-01-01T00:00:00.0000001Z"},
        {day - 1, "1601-01-01T23:59:59.9999999Z"},
        {day, "1601-01-02T00:00:00.0000000Z"},
        {365 * day, "1602-01-01T00:00:00.0000000Z"},
        {116'444'736'000'000'000, "1970-01-01T00:00:00.0000000Z"},
        {125'962'992'000'000'000, "2000-02-29T12:00:00.0000000Z"},
        {132'223'104'000'000'000, "2020-01-01T00:00:00.0000000Z"},
        {132'567'987'061'234'567, "2021-02-03T04:05:06.1234567Z"},
        {2'650'467'743'999'999'999, "9999-12-31T23:59:59.9999999Z"},
        {2'650'467'744'000'000'000, ""},
        {std::numeric_limits<uint64_t>::max(), ""},
    };
    for (const auto& row : rows)
        EXPECT_EQ(row.text, NtfsTimeText(row.time)) << row.time;
}
