#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <random>
#include <string>
#include <vector>

// A small NTFS volume as an input: pieces of it, again and again the offset, the length and the bytes, on a volume of
// zeros. A later piece goes over an earlier one, so that a few bytes behind a sound volume are a change of it. The
// update sequences of records are put in afterwards, so that what was changed is met by what reads the records.

constexpr uint64_t NtfsImageBytes = 2U << 20U;
constexpr size_t NtfsPieceHeadBytes = 5;  // offset 3, length 2

inline uint64_t NtfsNumberAt(const std::string& bytes, size_t at, size_t width) {
    uint64_t value = 0;
    for (size_t index = width; index-- > 0;)
        value = (value << 8U) | static_cast<unsigned char>(bytes[at + index]);
    return value;
}

// A record whose array leaves it stays as it is.
inline void PutNtfsUpdateSequence(std::string& image, size_t record) {
    constexpr size_t sectorBytes = 512;
    const size_t array = record + NtfsNumberAt(image, record + 4, 2);
    const size_t count = NtfsNumberAt(image, record + 6, 2);
    if (count == 0 || record + (count - 1) * sectorBytes > image.size() || array + 2 * count > image.size())
        return;
    for (size_t sector = 1; sector < count; ++sector) {
        const size_t end = record + sector * sectorBytes - 2;
        image.replace(array + 2 * sector, 2, image, end, 2);
        image.replace(end, 2, image, array, 2);
    }
}

inline void PutNtfsUpdateSequences(std::string& image) {
    constexpr size_t sectorBytes = 512;
    for (size_t at = 0; at < image.size(); at += sectorBytes) {
        if (image.compare(at, 4, "FILE") == 0 || image.compare(at, 4, "INDX") == 0)
            PutNtfsUpdateSequence(image, at);
    }
}

inline std::string NtfsImageFrom(const uint8_t* data, size_t size) {
    std::string image(NtfsImageBytes, '\0');
    const std::string input(reinterpret_cast<const char*>(data), size);
    for (size_t at = 0; at + NtfsPieceHeadBytes <= size;) {
        const size_t offset = NtfsNumberAt(input, at, 3) % NtfsImageBytes;
        const size_t length =
            std::min<size_t>({NtfsNumberAt(input, at + 3, 2), size - at - NtfsPieceHeadBytes, NtfsImageBytes - offset});
        image.replace(offset, length, input, at + NtfsPieceHeadBytes, length);
        at += NtfsPieceHeadBytes + length;
    }
    PutNtfsUpdateSequences(image);
    return image;
}

// Changes such an input without tearing its pieces apart.
class CNtfsImageMutator {
public:
    // What libFuzzer itself does to bytes.
    using MutateBytes_t = size_t (*)(uint8_t* data, size_t size, size_t maxSize);

    CNtfsImageMutator(uint8_t* data, size_t size, size_t maxSize, unsigned seed, MutateBytes_t mutateBytes)
        : m_Data(data), m_Size(size), m_MaxSize(maxSize), m_Random(seed), m_MutateBytes(mutateBytes) {
        for (size_t at = 0; at + NtfsPieceHeadBytes < size;) {
            const size_t length = std::min<size_t>(data[at + 3] + 256U * data[at + 4], size - at - NtfsPieceHeadBytes);
            m_Pieces.push_back({at, length});
            at += NtfsPieceHeadBytes + length;
        }
    }

    size_t Run() {
        if (m_Pieces.empty())
            return m_MutateBytes(m_Data, m_Size, m_MaxSize);
        for (size_t turn = Below(3) + 1; turn > 0; --turn)
            ChangeOnce();
        return m_Size;
    }

private:
    struct Piece_t {
        size_t at;
        size_t length;
    };

    size_t Below(size_t end) { return m_Random() % end; }

    void ChangeOnce() {
        const Piece_t piece = m_Pieces[Below(m_Pieces.size())];
        if (piece.length < 8)
            return;
        uint8_t* const bytes = m_Data + piece.at + NtfsPieceHeadBytes;
        switch (Below(5)) {
        case 0: Put(bytes + AlignedBelow(piece.length, 8), InterestingNumber(), 8); return;
        case 1: Put(bytes + AlignedBelow(piece.length, 4), InterestingNumber(), 4); return;
        case 2: Put(bytes + AlignedBelow(piece.length, 2), InterestingNumber(), 2); return;
        case 3: CopyFromAnother(bytes, piece.length); return;
        default: ChangeBytes(bytes, piece.length); return;
        }
    }

    size_t AlignedBelow(size_t length, size_t width) { return Below(length / width) * width; }

    void ChangeBytes(uint8_t* bytes, size_t length) {
        const size_t at = AlignedBelow(length, 8);
        const size_t count = std::min<size_t>(length - at, 1 + Below(32));
        m_MutateBytes(bytes + at, count, count);
    }

    void CopyFromAnother(uint8_t* bytes, size_t length) {
        const Piece_t other = m_Pieces[Below(m_Pieces.size())];
        if (other.length < 8)
            return;
        const size_t from = AlignedBelow(other.length, 8);
        const size_t to = AlignedBelow(length, 8);
        const size_t count = std::min({other.length - from, length - to, 8 * (1 + Below(16))});
        std::memmove(bytes + to, m_Data + other.at + NtfsPieceHeadBytes + from, count);
    }

    uint64_t InterestingNumber() {
        const uint64_t power = uint64_t{1} << Below(64);
        switch (Below(6)) {
        case 0: return 0;
        case 1: return ~uint64_t{0};
        case 2: return power - 1;
        case 3: return power + Below(3);
        case 4: return Below(64);
        default: return 8 * Below(256);
        }
    }

    static void Put(uint8_t* target, uint64_t value, size_t width) {
        for (size_t index = 0; index < width; ++index)
            target[index] = static_cast<uint8_t>(value >> (8 * index));
    }

    uint8_t* m_Data;
    size_t m_Size;
    size_t m_MaxSize;
    std::minstd_rand m_Random;
    MutateBytes_t m_MutateBytes;
    std::vector<Piece_t> m_Pieces;
};
