#include "tests/support/ImageFile.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <utility>

#include "tests/support/Bytes.h"

void CImageFile::Put(uint64_t offset, std::string bytes) {
    m_Pieces.push_back({offset, std::move(bytes)});
}

uint64_t CImageFile::Size() const {
    uint64_t end = 0;
    for (const Piece_t& piece : m_Pieces)
        end = std::max(end, piece.offset + piece.bytes.size());
    return m_Size.value_or(end);
}

std::string CImageFile::Bytes() const {
    std::string image;
    for (const Piece_t& piece : m_Pieces)
        PutBytes(image, static_cast<size_t>(piece.offset), piece.bytes);
    image.resize(static_cast<size_t>(Size()), '\0');
    return image;
}

std::string CImageFile::WriteTo(const CTempDir& dir, const std::string& name) const {
    const std::string path = dir.File(name);
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    for (const Piece_t& piece : m_Pieces) {
        file.seekp(static_cast<std::streamoff>(piece.offset));
        file.write(piece.bytes.data(), static_cast<std::streamsize>(piece.bytes.size()));
    }
    file.close();
    EXPECT_TRUE(file.good()) << path;
    ResizeFile(path, Size());
    return path;
}
