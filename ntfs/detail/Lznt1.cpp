#include "ntfs/detail/Lznt1.h"

#include <cstring>

#include "foundation/ByteOrder.h"
#include "ntfs/NtfsResults.h"

namespace {

constexpr uint16_t ChunkLengthMask = 0x0FFF;
constexpr uint16_t ChunkIsCompressed = 0x8000;
constexpr uint32_t ShortestMatch = 3;

// How a token's 16 bits are shared between a match's distance and its length: the more output there is, the farther a
// match may lie back, and the shorter it is.
class CTokenForm {
public:
    void GrowTo(uint32_t outputBytes) {
        while (outputBytes > m_Threshold && m_Shift > 0) {
            --m_Shift;
            m_LengthMask >>= 1U;
            m_Threshold = (0xFFFFU >> m_Shift) + 1;
        }
    }

    uint32_t Displacement(uint16_t token) const { return (uint32_t{token} >> m_Shift) + 1; }
    uint32_t Length(uint16_t token) const { return (token & m_LengthMask) + ShortestMatch; }

private:
    uint32_t m_Shift = 12;
    uint32_t m_LengthMask = 0x0FFF;
    uint32_t m_Threshold = 16;
};

// Writes `length` bytes at `target`, each the one that lies `displacement` bytes before it: a match may repeat what it
// has just written. There is room for `room` bytes.
void Repeat(char* target, uint32_t displacement, uint32_t length, uint32_t room) {
    constexpr uint32_t word = 8;
    const char* const from = target - displacement;
    if (displacement >= word && room >= length + word) {
        for (uint32_t at = 0; at < length; at += word)  // what is written behind the match is written again
            std::memcpy(target + at, from + at, word);
    } else if (displacement == 1) {
        std::memset(target, *from, length);
    } else {
        for (uint32_t index = 0; index < length; ++index)
            target[index] = from[index];
    }
}

class CChunkDecoder {
public:
    // The chunk is the first `chunkBytes` bytes of `source`.
    CChunkDecoder(CByteView source, uint32_t chunkBytes, char* target)
        : m_Source(source), m_End(chunkBytes), m_Target(target) {}

    int Decode(uint32_t& size) {
        while (m_At < m_End)
            if (!TakeGroup())
                return NtfsBadCompression;
        size = m_Size;
        return NtfsOk;
    }

private:
    // A flag byte, and for each of its bits a token or a literal.
    bool TakeGroup() {
        const auto flags = static_cast<uint8_t>(m_Source.Data()[m_At++]);
        if (flags == 0 && TakeLiterals())
            return true;
        for (unsigned bit = 0; bit < 8 && m_At < m_End; ++bit) {
            m_Form.GrowTo(m_Size);
            const bool isToken = ((flags >> bit) & 1U) != 0;
            if (isToken ? !TakeMatch() : !TakeLiteral())
                return false;
        }
        return true;
    }

    // All eight of a group at once; false where there is no room for them.
    bool TakeLiterals() {
        constexpr uint32_t group = 8;
        if (m_End - m_At < group || Lznt1ChunkBytes - m_Size < group)
            return false;
        std::memcpy(m_Target + m_Size, m_Source.Data() + m_At, group);
        m_Size += group;
        m_At += group;
        return true;
    }

    bool TakeLiteral() {
        if (m_Size == Lznt1ChunkBytes)
            return false;
        m_Target[m_Size++] = m_Source.Data()[m_At++];
        return true;
    }

    bool TakeMatch() {
        Le16_t token{};
        if (!m_Source.Get(m_At, token))  // a token that begins in the chunk counts, also when its end lies behind it
            return false;
        m_At += sizeof(token);
        const uint32_t displacement = m_Form.Displacement(token);
        const uint32_t length = m_Form.Length(token);
        if (displacement > m_Size || length > Lznt1ChunkBytes - m_Size)
            return false;
        Repeat(m_Target + m_Size, displacement, length, Lznt1ChunkBytes - m_Size);
        m_Size += length;
        return true;
    }

    CByteView m_Source;
    uint64_t m_End;
    char* m_Target;
    uint64_t m_At = Lznt1HeadBytes;
    uint32_t m_Size = 0;
    CTokenForm m_Form;
};

}  // namespace

Lznt1Chunk_t DescribeLznt1Chunk(CByteView source) {
    Le16_t head{};
    if (!source.Get(0, head) || head == 0)
        return {};
    return {(head & ChunkLengthMask) + 3U, (head & ChunkIsCompressed) != 0};
}

int DecodeLznt1Chunk(CByteView source, char* target, uint32_t& size) {
    size = 0;
    const Lznt1Chunk_t description = DescribeLznt1Chunk(source);
    if (!source.Holds(0, description.bytes))
        return NtfsBadCompression;
    return CChunkDecoder(source, description.bytes, target).Decode(size);
}
