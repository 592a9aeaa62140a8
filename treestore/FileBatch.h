#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "treestore/TreeStore.h"

namespace treestore {

// Files on their way into the table, with no more of their names than there is. Takes no memory of its own.
class CFileBatch {
public:
    // An entry without its name.
    struct File_t {
        uint64_t parentFrn;
        uint64_t frn;
        uint64_t sizeBytes;
        uint32_t writeTime;
        uint32_t fileAttributes;
        uint32_t accessTime;
        uint32_t creationTime;
        uint32_t nameStart;
        uint16_t nameBytes;
        uint8_t isDirectory;
    };

    bool IsEmpty() const { return m_Count == 0; }
    bool IsFull() const {
        return m_Count == MostFiles || sizeof(m_Names) - m_NamesEnd < sizeof(TreeStoreEntry_t::name);
    }

    // Not for a full batch. `nameBytes` is the length of the entry's name.
    void Add(const TreeStoreEntry_t& entry, size_t nameBytes) {
        m_Files[m_Count++] = {entry.parentFrn,
                              entry.frn,
                              entry.sizeBytes,
                              entry.writeTime,
                              entry.fileAttributes,
                              entry.accessTime,
                              entry.creationTime,
                              m_NamesEnd,
                              static_cast<uint16_t>(nameBytes),
                              entry.isDirectory};
        std::memcpy(m_Names + m_NamesEnd, entry.name, nameBytes);
        m_NamesEnd += static_cast<uint32_t>(nameBytes);
    }

    void Clear() {
        m_Count = 0;
        m_NamesEnd = 0;
    }

    const File_t* begin() const { return m_Files; }
    const File_t* end() const { return m_Files + m_Count; }
    const char* NameOf(const File_t& file) const { return m_Names + file.nameStart; }

private:
    static constexpr uint32_t MostFiles = 1024;

    uint32_t m_Count = 0;
    uint32_t m_NamesEnd = 0;
    File_t m_Files[MostFiles];
    char m_Names[64 * 1024];
};

}  // namespace treestore
