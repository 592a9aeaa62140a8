#include "agent/detail/Utf16Text.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>

namespace {

std::string Swapped(std::string bytes) {
    for (size_t at = 0; at + 1 < bytes.size(); at += 2)
        std::swap(bytes[at], bytes[at + 1]);
    return bytes;
}

TEST(Utf16Text, BecomesUtf8InEitherByteOrder) {
    const struct {
        const char* name;
        std::string utf16;  // least significant byte first
        std::string utf8;
    } rows[] = {
        {"nothing", "", ""},
        {"a letter", std::string("A\0", 2), "A"},
        {"the last of one byte", std::string("\x7F\0", 2), "\x7F"},
        {"the first of two bytes", std::string("\x80\0", 2), "\xC2\x80"},
        {"the last of two bytes", "\xFF\x07", "\xDF\xBF"},
        {"the first of three bytes", std::string("\0\x08", 2), "\xE0\xA0\x80"},
        {"the last before the surrogates", "\xFF\xD7", "\xED\x9F\xBF"},
        {"the first behind them", std::string("\0\xE0", 2), "\xEE\x80\x80"},
        {"the last of three bytes", "\xFF\xFF", "\xEF\xBF\xBF"},
        {"the first pair", std::string("\0\xD8\0\xDC", 4), "\xF0\x90\x80\x80"},
        {"the last pair", "\xFF\xDB\xFF\xDF", "\xF4\x8F\xBF\xBF"},
        {"a text", std::string("d\0i\0s\0k\0", 8), "disk"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(row.utf8, Utf8FromUtf16(row.utf16, ByteOrder_t::LittleEndian));
        EXPECT_EQ(row.utf8, Utf8FromUtf16(Swapped(row.utf16), ByteOrder_t::BigEndian));
    }
}

TEST(Utf16Text, EndsAtItsFirstNul) {
    EXPECT_EQ("a", Utf8FromUtf16(std::string("a\0\0\0b\0", 6), ByteOrder_t::LittleEndian));
    EXPECT_EQ("", Utf8FromUtf16(std::string(512, '\0'), ByteOrder_t::BigEndian));
}

TEST(Utf16Text, HalfACharacterAtTheEndIsLeftOut) {
    EXPECT_EQ("", Utf8FromUtf16("a", ByteOrder_t::LittleEndian));
    EXPECT_EQ("a", Utf8FromUtf16(std::string("a\0b", 3), ByteOrder_t::LittleEndian));
}

TEST(Utf16Text, WhatIsNoCharacterOpensNothing) {
    const std::string none = "\xEF\xBF\xBD";
    const struct {
        const char* name;
        std::string utf16;
        std::string utf8;
    } rows[] = {
        {"a high surrogate alone", std::string("\0\xD8", 2), none},
        {"a low surrogate alone", std::string("\0\xDC", 2), none},
        {"a high one before a letter",
         std::string("\0\xD8"
                     "a\0",
                     4),
         none + "a"},
        {"two high ones and a low one", std::string("\0\xD8\0\xD8\0\xDC", 6), none + "\xF0\x90\x80\x80"},
        {"a high one before half a low one", std::string("\0\xD8\0", 3), none},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(row.utf8, Utf8FromUtf16(row.utf16, ByteOrder_t::LittleEndian));
    }
}

}  // namespace
