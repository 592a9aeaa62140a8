#include "ntfs/detail/Lznt1.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "ntfs/NtfsResults.h"
#include "tests/support/Bytes.h"
#include "tests/support/CharBuffer.h"

namespace {

constexpr size_t ChunkContent = 4096;

// How many of a token's 16 bits tell the distance when `output` bytes are there: as few as reach back to the first of
// them, at least four.
unsigned DistanceBits(size_t output) {
    unsigned bits = 4;
    while (size_t{1} << bits < output)
        ++bits;
    return bits;
}

uint16_t Token(size_t output, size_t distance, size_t length) {
    const unsigned lengthBits = 16 - DistanceBits(output);
    return static_cast<uint16_t>((distance - 1) << lengthBits | (length - 3));
}

size_t LongestLength(size_t output) {
    return (size_t{1} << (16 - DistanceBits(output))) + 2;
}

struct Match_t {
    size_t distance;
    size_t length;
};

size_t LengthOfMatch(std::string_view content, size_t at, size_t distance) {
    size_t length = 0;
    while (at + length < content.size() && content[at + length] == content[at + length - distance])
        ++length;
    return std::min(length, LongestLength(at));
}

// The longest earlier match of what stands at `at`, where one of three bytes or more is.
std::optional<Match_t> FindMatch(std::string_view content, size_t at) {
    Match_t best{0, 2};
    for (size_t distance = 1; distance <= at; ++distance)
        if (const size_t length = LengthOfMatch(content, at, distance); length > best.length)
            best = {distance, length};
    return best.distance != 0 ? std::optional<Match_t>(best) : std::nullopt;
}

// Collects items in groups of eight, each behind a byte with a bit for each of them.
class CGroups {
public:
    void AddLiteral(char byte) { Add(std::string(1, byte), false); }
    void AddToken(uint16_t token) { Add(LittleEndianBytes(token, 2), true); }
    std::string Bytes() const { return m_Bytes; }

private:
    void Add(const std::string& item, bool isToken) {
        if (m_Items % 8 == 0) {
            m_FlagsAt = m_Bytes.size();
            m_Bytes += '\0';
        }
        if (isToken)
            m_Bytes[m_FlagsAt] = static_cast<char>(m_Bytes[m_FlagsAt] | 1 << m_Items % 8);
        m_Bytes += item;
        ++m_Items;
    }

    std::string m_Bytes;
    size_t m_Items = 0;
    size_t m_FlagsAt = 0;
};

// A chunk of the bytes behind its head.
std::string Chunk(const std::string& groups) {
    return LittleEndianBytes(0xB000U | (groups.size() - 1), 2) + groups;
}

// A small compressor of at most 4096 bytes.
std::string Compress(std::string_view content) {
    CGroups groups;
    for (size_t at = 0; at < content.size();) {
        const std::optional<Match_t> match = FindMatch(content, at);
        if (match.has_value())
            groups.AddToken(Token(at, match->distance, match->length));
        else
            groups.AddLiteral(content[at]);
        at += match.has_value() ? match->length : 1;
    }
    return Chunk(groups.Bytes());
}

struct Decoded_t {
    int result;
    std::string bytes;
};

// Between buffers of exactly their sizes, so that a sanitizer sees each byte outside.
Decoded_t Decode(const std::string& source) {
    const CAutoMemory<char> from = BufferOf(source);
    CAutoMemory<char> target = BufferOf(std::string(ChunkContent, '\x55'));
    uint32_t size = 0x55AA;
    const int result = DecodeLznt1Chunk(CByteView(from.GetPtr(), from.GetSize()), target.GetPtr(), size);
    return {result, BytesOf(target).substr(0, size)};
}

std::string Repeated(const std::string& piece, size_t size) {
    std::string text;
    while (text.size() < size)
        text += piece;
    return text.substr(0, size);
}

// Random bytes of which every other stretch is a copy of an earlier one.
std::string HalfRandom(size_t size, uint64_t seed) {
    std::string text = PatternedBytes(32, seed);
    for (uint64_t turn = 0; text.size() < size; ++turn) {
        const auto length = static_cast<uint8_t>(text[text.size() - 7]) % 60U + 1;
        const auto from = static_cast<uint8_t>(text[text.size() - 3]) * 16U % text.size();
        text += turn % 2 == 0 ? PatternedBytes(length, seed * 1000 + turn) : text.substr(from, length);
    }
    return text.substr(0, size);
}

}  // namespace

TEST(Lznt1, GivesBackWhatACompressorTook) {
    const struct {
        const char* name;
        std::string content;
    } rows[] = {
        {"one byte", "a"},
        {"eight literals, one whole group", "abcdefgh"},
        {"nine literals", "abcdefghi"},
        {"zeros", std::string(ChunkContent, '\0')},
        {"a repeated word", Repeated("diskstream ", ChunkContent)},
        {"a period of three", Repeated("abc", 1000)},
        {"a long period", Repeated(PatternedBytes(1500, 3), ChunkContent)},
        {"the longest period", PatternedBytes(2048, 4) + PatternedBytes(2048, 4)},
        {"half random", HalfRandom(ChunkContent, 1)},
        {"half random and short", HalfRandom(777, 2)},
        {"random", PatternedBytes(3600, 5)},  // which its flags make as long as a chunk can be
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        const Decoded_t decoded = Decode(Compress(row.content));
        EXPECT_EQ(decoded.result, NtfsOk);
        EXPECT_TRUE(decoded.bytes == row.content);
    }
}

TEST(Lznt1, DecodesAChunkByteByByte) {
    const struct {
        const char* name;
        std::string chunk;
        std::string content;
    } rows[] = {
        {"three literals", std::string("\x03\xB0\0abc", 6), "abc"},
        {"a byte five times more",
         std::string("\x03\xB0\x02"
                     "a\x02\x00",
                     6),
         "aaaaaa"},
        {"two bytes over and over",
         std::string("\x04\xB0\x04"
                     "ab\x03\x10",
                     7),
         "abababab"},
        {"flags alone", std::string("\0\x80\xFF", 3), ""},
        {"a group that ends early", std::string("\x01\xB0\0x", 4), "x"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        const Decoded_t decoded = Decode(row.chunk);
        EXPECT_EQ(decoded.result, NtfsOk);
        EXPECT_EQ(decoded.bytes, row.content);
    }
}

TEST(Lznt1, SharesATokensBitsByTheOutputSoFar) {
    // On both sides of each step: the farthest match back, in the form that then holds.
    for (const size_t step : {16, 32, 64, 128, 256, 512, 1024, 2048})
        for (const size_t output : {step - 1, step, step + 1}) {
            SCOPED_TRACE(output);
            const std::string content = PatternedBytes(output, output);
            CGroups groups;
            for (const char byte : content)
                groups.AddLiteral(byte);
            groups.AddToken(Token(output, output, 5));
            const Decoded_t decoded = Decode(Chunk(groups.Bytes()));
            EXPECT_EQ(decoded.result, NtfsOk);
            EXPECT_TRUE(decoded.bytes == content + (content + content).substr(0, 5));
        }
}

TEST(Lznt1, TakesTheLongestMatch) {
    CGroups groups;
    groups.AddLiteral('x');
    groups.AddToken(0x0FFC);  // 4092 + 3 bytes, one less than the longest
    const Decoded_t decoded = Decode(Chunk(groups.Bytes()));
    EXPECT_EQ(decoded.result, NtfsOk);
    EXPECT_TRUE(decoded.bytes == std::string(ChunkContent, 'x'));
}

TEST(Lznt1, LooksAtNothingBehindTheChunk) {
    const Decoded_t decoded = Decode(Compress("abc") + std::string(100, '\xFF'));
    EXPECT_EQ(decoded.result, NtfsOk);
    EXPECT_EQ(decoded.bytes, "abc");
}

TEST(Lznt1, TakesATokenThatBeginsInTheChunk) {
    // The second byte of the token is the first one behind the chunk.
    const Decoded_t decoded = Decode(std::string("\x02\xB0\x02"
                                                 "a\x01\x00",
                                                 6));
    EXPECT_EQ(decoded.result, NtfsOk);
    EXPECT_EQ(decoded.bytes, "aaaaa");
}

TEST(Lznt1, RefusesAChunkThatIsNotSound) {
    CGroups tooFar;
    for (const char byte : std::string("abcd"))
        tooFar.AddLiteral(byte);
    tooFar.AddToken(Token(4, 5, 3));
    CGroups tooLong;
    tooLong.AddLiteral('x');
    tooLong.AddToken(0x0FFD);
    CGroups fullAndMore;
    fullAndMore.AddLiteral('x');
    fullAndMore.AddToken(0x0FFC);
    fullAndMore.AddLiteral('y');
    CGroups fullAndAMatch;
    fullAndAMatch.AddLiteral('x');
    fullAndAMatch.AddToken(0x0FFC);
    fullAndAMatch.AddToken(0);
    const std::string whole = Compress("abcabcabcabcdef");
    const struct {
        const char* name;
        std::string source;
    } rows[] = {
        {"a match before any output", std::string("\x02\xB0\x01\x00\x00", 5)},
        {"a match one byte too far back", Chunk(tooFar.Bytes())},
        {"a match that gives one byte too many", Chunk(tooLong.Bytes())},
        {"a literal behind the last byte", Chunk(fullAndMore.Bytes())},
        {"a match behind the last byte", Chunk(fullAndAMatch.Bytes())},
        {"a source that ends in the chunk", whole.substr(0, whole.size() - 1)},
        {"a head alone", whole.substr(0, 2)},
        {"the longest chunk in a short source", std::string("\xFF\xBF\0a", 4)},
        {"a token that the source cuts in two", std::string("\x02\xB0\x02"
                                                            "a\x01",
                                                            5)},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        const Decoded_t decoded = Decode(row.source);
        EXPECT_EQ(decoded.result, NtfsBadCompression);
        EXPECT_EQ(decoded.bytes, "");
    }
}

TEST(Lznt1, TakesWhateverBytesWithoutLeavingItsBuffers) {
    for (uint64_t seed = 0; seed < 3000; ++seed) {
        std::string source = PatternedBytes(2 + seed % 300, seed);
        PutLe16(source, 0, static_cast<uint16_t>(0xB000U | (source.size() - 3)));
        const Decoded_t decoded = Decode(source);
        EXPECT_TRUE(decoded.result == NtfsOk || decoded.result == NtfsBadCompression) << seed;
        EXPECT_EQ(decoded.result == NtfsOk || decoded.bytes.empty(), true) << seed;
    }
}

TEST(Lznt1, DescribesAChunkByItsHead) {
    const struct {
        const char* name;
        std::string source;
        uint32_t bytes;
        bool isCompressed;
    } rows[] = {
        {"the shortest", std::string("\x00\x80", 2), 3, true},
        {"the longest", std::string("\xFF\xBF", 2), 4098, true},
        {"a usual one", std::string("\x34\xB2", 2), 0x237, true},
        {"a stored one", std::string("\xFF\x3F", 2), 4098, false},
        {"the end of the chunks", std::string("\x00\x00", 2), 0, false},
        {"half a head", "\x01", 0, false},
        {"nothing", "", 0, false},
    };
    for (const auto& row : rows) {
        const Lznt1Chunk_t chunk = DescribeLznt1Chunk(CByteView(row.source.data(), row.source.size()));
        EXPECT_EQ(chunk.bytes, row.bytes) << row.name;
        EXPECT_EQ(chunk.isCompressed, row.isCompressed) << row.name;
    }
}
