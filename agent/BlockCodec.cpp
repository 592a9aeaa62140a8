#include "agent/BlockCodec.h"

#include <xxhash.h>
#include <zstd.h>

#include <cstring>
#include <new>

#include "foundation/ByteOrder.h"

namespace {

BlockDigest_t Canonical(XXH128_hash_t hash) {
    XXH128_canonical_t canonical;
    XXH128_canonicalFromHash(&canonical, hash);
    BlockDigest_t digest;
    static_assert(sizeof(canonical.digest) == sizeof(digest));
    std::memcpy(digest.data(), canonical.digest, digest.size());
    return digest;
}

bool IsZeros(const char* bytes, size_t size) {
    return size == 0 || (bytes[0] == 0 && std::memcmp(bytes, bytes + 1, size - 1) == 0);
}

}  // namespace

BlockDigest_t DigestOf(const void* bytes, size_t size) {
    return Canonical(XXH3_128bits(bytes, size));
}

struct CRunningDigest::State_t {
    State_t() : state(XXH3_createState()) {
        if (state == nullptr)
            throw std::bad_alloc();
        XXH3_128bits_reset(state);
    }
    State_t(const State_t&) = delete;
    State_t& operator=(const State_t&) = delete;
    ~State_t() { XXH3_freeState(state); }

    XXH3_state_t* state;
};

CRunningDigest::CRunningDigest() : m_State(std::make_unique<State_t>()) {}
CRunningDigest::~CRunningDigest() = default;

void CRunningDigest::Add(const void* bytes, size_t size) {
    if (size != 0)
        XXH3_128bits_update(m_State->state, bytes, size);
}

void CRunningDigest::AddNumber(uint64_t number) {
    Le64_t bytes;
    bytes = number;
    Add(&bytes, sizeof(bytes));
}

void CRunningDigest::AddText(const std::string& text) {
    AddNumber(text.size());
    Add(text.data(), text.size());
}

BlockDigest_t CRunningDigest::Result() const {
    return Canonical(XXH3_128bits_digest(m_State->state));
}

struct CBlockEncoder::Context_t {
    explicit Context_t(int compressionLevel) : zstd(ZSTD_createCCtx()), level(compressionLevel) {
        if (zstd == nullptr)
            throw std::bad_alloc();
    }
    Context_t(const Context_t&) = delete;
    Context_t& operator=(const Context_t&) = delete;
    ~Context_t() { ZSTD_freeCCtx(zstd); }

    ZSTD_CCtx* zstd;
    int level;
};

CBlockEncoder::CBlockEncoder(int level)
    : m_Context(level != NoCompression ? std::make_unique<Context_t>(level) : nullptr) {}
CBlockEncoder::~CBlockEncoder() = default;

void CBlockEncoder::Encode(const char* bytes, uint32_t size, CAutoMemory<char>& output, EncodedBlock_t& encoded) {
    encoded = {BlockEncoding_t::Plain, DigestOf(bytes, size), bytes, size};
    if (IsZeros(bytes, size)) {
        encoded = {BlockEncoding_t::Zeros, encoded.digest, nullptr, 0};
        return;
    }
    // Room for one byte less than the plain form: what doesn't fit doesn't shrink.
    if (m_Context == nullptr || size < 2 || output.Alloc(size - 1) == nullptr)
        return;
    const size_t packed = ZSTD_compressCCtx(m_Context->zstd, output.GetPtr(), size - 1, bytes, size, m_Context->level);
    if (ZSTD_isError(packed) == 0)
        encoded = {BlockEncoding_t::Zstd, encoded.digest, output.GetPtr(), static_cast<uint32_t>(packed)};
}

struct CBlockDecoder::Context_t {
    Context_t() : zstd(ZSTD_createDCtx()) {
        if (zstd == nullptr)
            throw std::bad_alloc();
    }
    Context_t(const Context_t&) = delete;
    Context_t& operator=(const Context_t&) = delete;
    ~Context_t() { ZSTD_freeDCtx(zstd); }

    // True when `encoded` unpacks to exactly `size` bytes.
    bool Unpack(const EncodedBlock_t& encoded, char* target, uint32_t size) const {
        return ZSTD_decompressDCtx(zstd, target, size, encoded.data, encoded.sizeBytes) == size;
    }

    ZSTD_DCtx* zstd;
};

CBlockDecoder::CBlockDecoder() : m_Context(std::make_unique<Context_t>()) {}
CBlockDecoder::~CBlockDecoder() = default;

bool CBlockDecoder::Decode(const EncodedBlock_t& encoded, uint32_t size, CAutoMemory<char>& plain) {
    if (plain.Alloc(size) == nullptr)
        throw std::bad_alloc();
    switch (encoded.encoding) {
    case BlockEncoding_t::Zeros: std::memset(plain.GetPtr(), 0, size); break;
    case BlockEncoding_t::Plain:
        if (encoded.sizeBytes != size)
            return false;
        if (encoded.data != plain.GetPtr())
            std::memcpy(plain.GetPtr(), encoded.data, size);
        break;
    case BlockEncoding_t::Zstd:
        if (!m_Context->Unpack(encoded, plain.GetPtr(), size))
            return false;
        break;
    default: return false;
    }
    return DigestOf(plain.GetPtr(), size) == encoded.digest;
}

int HighestCompression() {
    return ZSTD_maxCLevel();
}
