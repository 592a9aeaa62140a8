#include "agent/BlockCodec.h"

#include <gtest/gtest.h>
#include <zstd.h>

#include <functional>
#include <string>

#include "tests/support/Bytes.h"
#include "tests/support/CharBuffer.h"
#include "tests/support/SameBytes.h"

namespace {

std::string Hex(const BlockDigest_t& digest) {
    std::string text;
    for (const uint8_t byte : digest) {
        text += "0123456789abcdef"[byte >> 4U];
        text += "0123456789abcdef"[byte & 15U];
    }
    return text;
}

// One block that went through the encoder, with its buffers.
struct Encoded_t {
    explicit Encoded_t(std::string bytes, int level = DefaultCompression) : plain(std::move(bytes)) {
        CBlockEncoder encoder(level);
        encoder.Encode(plain.data(), static_cast<uint32_t>(plain.size()), packed, block);
    }

    std::string Stored() const { return {block.data != nullptr ? block.data : "", block.sizeBytes}; }

    std::string plain;
    CAutoMemory<char> packed;
    EncodedBlock_t block;
};

std::string Repeating(size_t size) {
    std::string bytes;
    while (bytes.size() < size)
        bytes += "the same words again and again, ";
    return bytes.substr(0, size);
}

bool Decodes(const EncodedBlock_t& block, uint32_t size, std::string& plain) {
    CBlockDecoder decoder;
    CAutoMemory<char> buffer;
    const bool isSound = decoder.Decode(block, size, buffer);
    plain = BytesOf(buffer);
    return isSound;
}

TEST(BlockDigest, IsThePublishedHashWithItsMostSignificantByteFirst) {
    EXPECT_EQ("99aa06d3014798d86001c324468d497f", Hex(DigestOf("", 0)));
    EXPECT_EQ("a96faf705af16834e6c632b61e964e1f", Hex(DigestOf("a", 1)));
    EXPECT_EQ("06b05ab6733a618578af5f94892f3950", Hex(DigestOf("abc", 3)));
}

TEST(BlockDigest, OfPiecesIsThatOfTheWhole) {
    const std::string bytes = PatternedBytes(100000);
    for (const size_t pieceBytes : {1U, 7U, 512U, 4096U, 99999U, 100000U}) {
        SCOPED_TRACE(pieceBytes);
        CRunningDigest running;
        for (size_t at = 0; at < bytes.size(); at += pieceBytes)
            running.Add(bytes.data() + at, std::min(pieceBytes, bytes.size() - at));
        EXPECT_EQ(Hex(DigestOf(bytes.data(), bytes.size())), Hex(running.Result()));
    }
}

TEST(BlockDigest, OfNothingIsThatOfTheEmptyText) {
    CRunningDigest running;
    running.Add(nullptr, 0);
    EXPECT_EQ(Hex(DigestOf("", 0)), Hex(running.Result()));
}

TEST(BlockDigest, TakesNumbersAndTextsInTheirWrittenForm) {
    CRunningDigest running;
    running.AddNumber(0x0102030405060708);
    running.AddText("name");
    const std::string written = LittleEndianBytes(0x0102030405060708, 8) + LittleEndianBytes(4, 8) + "name";
    EXPECT_EQ(Hex(DigestOf(written.data(), written.size())), Hex(running.Result()));
}

TEST(BlockDigest, TellsTextsApartThatOnlyTogetherAreTheSame) {
    CRunningDigest left;
    left.AddText("ab");
    left.AddText("c");
    CRunningDigest right;
    right.AddText("a");
    right.AddText("bc");
    EXPECT_NE(Hex(left.Result()), Hex(right.Result()));
}

TEST(BlockCodec, KeepsNoBytesOfABlockOfZeros) {
    for (const size_t size : {1U, 512U, 65536U}) {
        SCOPED_TRACE(size);
        const Encoded_t encoded(std::string(size, '\0'));
        EXPECT_EQ(BlockEncoding_t::Zeros, encoded.block.encoding);
        EXPECT_EQ(0U, encoded.block.sizeBytes);
        EXPECT_EQ(Hex(DigestOf(encoded.plain.data(), size)), Hex(encoded.block.digest));
    }
}

TEST(BlockCodec, TakesOneByteThatIsNotZeroForData) {
    for (const size_t at : {0U, 1U, 511U, 65534U, 65535U}) {
        SCOPED_TRACE(at);
        std::string bytes(65536, '\0');
        bytes[at] = 1;
        EXPECT_NE(BlockEncoding_t::Zeros, Encoded_t(bytes).block.encoding);
        EXPECT_EQ(BlockEncoding_t::Plain, Encoded_t(bytes, NoCompression).block.encoding);
    }
}

TEST(BlockCodec, CompressesWhatShrinksAndKeepsTheRestPlain) {
    const struct {
        const char* name;
        std::string bytes;
        int level;
        BlockEncoding_t encoding;
    } rows[] = {
        {"repeating", Repeating(65536), DefaultCompression, BlockEncoding_t::Zstd},
        {"repeating, highest level", Repeating(4096), HighestCompression(), BlockEncoding_t::Zstd},
        {"repeating, uncompressed", Repeating(65536), NoCompression, BlockEncoding_t::Plain},
        {"noise", PatternedBytes(65536), DefaultCompression, BlockEncoding_t::Plain},
        {"one byte", "x", DefaultCompression, BlockEncoding_t::Plain},
        {"two bytes", "xx", DefaultCompression, BlockEncoding_t::Plain},
        {"ones", std::string(512, '\xFF'), DefaultCompression, BlockEncoding_t::Zstd},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        const Encoded_t encoded(row.bytes, row.level);
        EXPECT_EQ(row.encoding, encoded.block.encoding);
        if (row.encoding == BlockEncoding_t::Plain) {
            EXPECT_SAME_BYTES(row.bytes, encoded.Stored());
        } else {
            EXPECT_LT(encoded.block.sizeBytes, row.bytes.size());
        }
        std::string plain;
        EXPECT_TRUE(Decodes(encoded.block, static_cast<uint32_t>(row.bytes.size()), plain));
        EXPECT_SAME_BYTES(row.bytes, plain);
    }
}

TEST(BlockCodec, WritesWhatAnyZstdReads) {
    const Encoded_t encoded(Repeating(65536));
    std::string plain(65536, '?');
    ASSERT_EQ(plain.size(), ZSTD_decompress(plain.data(), plain.size(), encoded.block.data, encoded.block.sizeBytes));
    EXPECT_SAME_BYTES(encoded.plain, plain);
}

TEST(BlockCodec, OneEncoderAndDecoderServeManyBlocks) {
    CBlockEncoder encoder(DefaultCompression);
    CBlockDecoder decoder;
    CAutoMemory<char> packed;
    CAutoMemory<char> plain;
    for (uint32_t size = 1; size < 20000; size += 611) {
        SCOPED_TRACE(size);
        const std::string bytes = size % 2 == 0 ? Repeating(size) : PatternedBytes(size, size);
        EncodedBlock_t encoded;
        encoder.Encode(bytes.data(), size, packed, encoded);
        ASSERT_TRUE(decoder.Decode(encoded, size, plain));
        EXPECT_SAME_BYTES(bytes, BytesOf(plain));
    }
}

TEST(BlockCodec, PlainBytesMayLieInTheirPlaceAlready) {
    const std::string bytes = PatternedBytes(4096);
    CAutoMemory<char> plain = BufferOf(bytes);
    const EncodedBlock_t block{BlockEncoding_t::Plain, DigestOf(bytes.data(), bytes.size()), plain.GetPtr(), 4096};
    CBlockDecoder decoder;
    EXPECT_TRUE(decoder.Decode(block, 4096, plain));
    EXPECT_SAME_BYTES(bytes, BytesOf(plain));
}

TEST(BlockCodec, RefusesEachKindOfDamage) {
    const auto emptied = [](EncodedBlock_t& block) { block.data = nullptr, block.sizeBytes = 0; };
    const auto cut = [](EncodedBlock_t& block) { --block.sizeBytes; };
    const auto wrongDigest = [](EncodedBlock_t& block) { block.digest[15] ^= 1U; };
    const auto as = [](BlockEncoding_t encoding) {
        return [encoding](EncodedBlock_t& block) { block.encoding = encoding; };
    };
    const struct {
        const char* name;
        std::string bytes;
        std::function<void(EncodedBlock_t&)> damage;
        uint32_t size;
    } rows[] = {
        {"plain, digest", PatternedBytes(4096), wrongDigest, 4096},
        {"plain, cut", PatternedBytes(4096), cut, 4096},
        {"plain, nothing there", PatternedBytes(4096), emptied, 4096},
        {"plain, asked for less", PatternedBytes(4096), [](EncodedBlock_t&) {}, 3584},
        {"plain, asked for more", PatternedBytes(4096), [](EncodedBlock_t&) {}, 4608},
        {"plain, said to be packed", PatternedBytes(4096), as(BlockEncoding_t::Zstd), 4096},
        {"plain, said to be zeros", PatternedBytes(4096), as(BlockEncoding_t::Zeros), 4096},
        {"packed, digest", Repeating(4096), wrongDigest, 4096},
        {"packed, cut", Repeating(4096), cut, 4096},
        {"packed, nothing there", Repeating(4096), emptied, 4096},
        {"packed, asked for less", Repeating(4096), [](EncodedBlock_t&) {}, 3584},
        {"packed, asked for more", Repeating(4096), [](EncodedBlock_t&) {}, 4608},
        {"packed, said to be plain", Repeating(4096), as(BlockEncoding_t::Plain), 4096},
        {"packed, unknown encoding", Repeating(4096), as(BlockEncoding_t(3)), 4096},
        {"packed, negative encoding", Repeating(4096), as(BlockEncoding_t(-1)), 4096},
        {"zeros, digest", std::string(4096, '\0'), wrongDigest, 4096},
        {"zeros, asked for less", std::string(4096, '\0'), [](EncodedBlock_t&) {}, 3584},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        Encoded_t encoded(row.bytes);
        row.damage(encoded.block);
        std::string plain;
        EXPECT_FALSE(Decodes(encoded.block, row.size, plain));
    }
}

TEST(BlockCodec, RefusesEachFlippedBitOfAPackedBlock) {
    const Encoded_t encoded(Repeating(2048));
    ASSERT_EQ(BlockEncoding_t::Zstd, encoded.block.encoding);
    for (size_t bit = 0; bit < encoded.block.sizeBytes * 8; ++bit) {
        std::string stored = encoded.Stored();
        stored[bit / 8] = static_cast<char>(stored[bit / 8] ^ (1 << (bit % 8)));
        EncodedBlock_t block = encoded.block;
        block.data = stored.data();
        std::string plain;
        // Some bits of a frame's header don't matter to what it holds; wrong bytes are never taken.
        if (Decodes(block, 2048, plain)) {
            EXPECT_SAME_BYTES(encoded.plain, plain) << "bit " << bit;
        }
    }
}

TEST(BlockCodec, TakesNoMoreMemoryForABombThanTheBlockMayHave) {
    const std::string bomb = [] {
        std::string packed(1 << 20, '\0');
        const std::string plain(64 << 20, 'x');
        packed.resize(ZSTD_compress(packed.data(), packed.size(), plain.data(), plain.size(), 19));
        return packed;
    }();
    const EncodedBlock_t block{BlockEncoding_t::Zstd, {}, bomb.data(), static_cast<uint32_t>(bomb.size())};
    CBlockDecoder decoder;
    CAutoMemory<char> plain;
    EXPECT_FALSE(decoder.Decode(block, 65536, plain));
    EXPECT_EQ(65536U, plain.GetSize());
}

}  // namespace
