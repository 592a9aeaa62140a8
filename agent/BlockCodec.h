#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "foundation/AutoMemory.h"
#include "platform/Export.h"

// How a backup set keeps the bytes of a block.
enum class BlockEncoding_t : int {
    Zeros = 0,  // no bytes at all: the block is zeros
    Plain = 1,
    Zstd = 2,
};

// XXH3-128 of plain bytes, most significant byte first, as its published canonical form is.
using BlockDigest_t = std::array<uint8_t, 16>;

DISKSTREAM_EXPORT BlockDigest_t DigestOf(const void* bytes, size_t size);

// A digest over pieces that come one after the other.
class DISKSTREAM_EXPORT CRunningDigest {
public:
    CRunningDigest();
    CRunningDigest(const CRunningDigest&) = delete;
    CRunningDigest& operator=(const CRunningDigest&) = delete;
    ~CRunningDigest();

    void Add(const void* bytes, size_t size);
    void AddNumber(uint64_t number);        // eight bytes, little-endian
    void AddText(const std::string& text);  // its length as a number, then its bytes
    BlockDigest_t Result() const;

private:
    struct State_t;
    std::unique_ptr<State_t> m_State;
};

constexpr int NoCompression = 0;
constexpr int DefaultCompression = 1;

// One block as a set keeps it. `data` points into the plain bytes or into the encoder's output.
struct EncodedBlock_t {
    BlockEncoding_t encoding = BlockEncoding_t::Zeros;
    BlockDigest_t digest{};
    const char* data = nullptr;
    uint32_t sizeBytes = 0;
};

// Encodes blocks, one thread at a time.
class DISKSTREAM_EXPORT CBlockEncoder {
public:
    // `level` is a zstd level from 1 up, or `NoCompression`.
    explicit CBlockEncoder(int level);
    CBlockEncoder(const CBlockEncoder&) = delete;
    CBlockEncoder& operator=(const CBlockEncoder&) = delete;
    ~CBlockEncoder();

    // Takes `size` bytes; compressed ones go to `output`. A block that doesn't shrink stays plain.
    void Encode(const char* bytes, uint32_t size, CAutoMemory<char>& output, EncodedBlock_t& encoded);

private:
    struct Context_t;
    std::unique_ptr<Context_t> m_Context;  // null without compression
};

// Decodes blocks, one thread at a time.
class DISKSTREAM_EXPORT CBlockDecoder {
public:
    CBlockDecoder();
    CBlockDecoder(const CBlockDecoder&) = delete;
    CBlockDecoder& operator=(const CBlockDecoder&) = delete;
    ~CBlockDecoder();

    // Makes `plain` the `size` bytes that `encoded` stands for. False when they aren't `size`
    // bytes, or when their digest isn't the one that `encoded` tells: the set is damaged. Plain
    // data may lie in `plain` already, and isn't copied then.
    [[nodiscard]] bool Decode(const EncodedBlock_t& encoded, uint32_t size, CAutoMemory<char>& plain);

private:
    struct Context_t;
    std::unique_ptr<Context_t> m_Context;
};

// The highest level that the zstd library has.
DISKSTREAM_EXPORT int HighestCompression();
