#include <gtest/gtest.h>

#include <cstdint>
#include <optional>

#include "agent/NtfsTime.h"

namespace {

constexpr uint64_t Second = 10'000'000;
constexpr uint64_t Day = 86'400 * Second;

TEST(NtfsTimeFromText, IsReadFromDatesAndTimesOfDay) {
    const struct {
        const char* text;
        uint64_t time;
    } rows[] = {
        {"1601-01-01", 0},
        {"1601-01-02", Day},
        {"1601-01-01T00:00:01", Second},
        {"1601-01-01T23:59:59Z", Day - Second},
        {"1970-01-01", 116444736000000000},
        {"1970-01-01Z", 116444736000000000},
        {"2000-02-29T12:34:56", 125963012960000000},
        {"9999-12-31", 2650466880000000000},
    };
    for (const auto& row : rows)
        EXPECT_EQ(std::optional<uint64_t>(row.time), NtfsTimeFromText(row.text)) << row.text;
}

TEST(NtfsTimeFromText, IsTheTimeThatItsTextTells) {
    for (const char* const text : {"1601-01-01T00:00:01", "1999-12-31T23:59:59", "2024-02-29T01:02:03"})
        EXPECT_EQ(std::string(text) + ".0000000Z", NtfsTimeText(NtfsTimeFromText(text).value_or(0)));
}

TEST(NtfsTimeFromText, IsNoneOfOtherTexts) {
    for (const char* const text : {"",
                                   "Z",
                                   "2026",
                                   "2026-01",
                                   "2026-1-31",
                                   "2026/01/31",
                                   "2026-13-01",
                                   "2026-00-01",
                                   "2026-02-29",
                                   "2026-04-31",
                                   "2026-01-00",
                                   "1600-12-31",
                                   "0000-01-01",
                                   "2026-01-3x",
                                   "202x-01-31",
                                   "2026-0x-31",
                                   "2026-01-31T12",
                                   "2026-01-31T12:0",
                                   "x026-01-31",
                                   "26-01-31",
                                   "+026-01-31",
                                   "2026-01-31 12:00:00",
                                   "2026-01-31T24:00:00",
                                   "2026-01-31T12:60:00",
                                   "2026-01-31T12:00:60",
                                   "2026-01-31T12.00:00",
                                   "2026-01-31T12:00.00",
                                   "2026-01-31T1x:00:00",
                                   "2026-01-31T12:x0:00",
                                   "2026-01-31T12:00:0x",
                                   "2026-01-31T12:00:00.5",
                                   "2026-01-31T12:00:00ZZ",
                                   "2026-01-31T12:00:00+01"})
        EXPECT_EQ(std::nullopt, NtfsTimeFromText(text)) << text;
}

}  // namespace
