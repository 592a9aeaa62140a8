#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "tests/support/TempDir.h"

// The bytes of a disk image, gathered piece by piece by a builder. What isn't put is a hole, which
// takes no memory and, in a file, no room on the disk: an image may be far larger than the machine.
class CImageFile {
public:
    // Later pieces lie over earlier ones.
    void Put(uint64_t offset, std::string bytes);

    // Sets the size after all pieces: less cuts the image, more adds a hole.
    void Resize(uint64_t sizeBytes) { m_Size = sizeBytes; }

    // The size that was set, or else the end of the last piece.
    uint64_t Size() const;

    // The whole image in memory.
    std::string Bytes() const;

    // Writes the image into `dir` and returns the file's path.
    std::string WriteTo(const CTempDir& dir, const std::string& name) const;

private:
    struct Piece_t {
        uint64_t offset;
        std::string bytes;
    };

    std::vector<Piece_t> m_Pieces;  // in the order of putting
    std::optional<uint64_t> m_Size;
};
