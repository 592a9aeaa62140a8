#pragma once

#include <cstdint>
#include <cstring>
#include <type_traits>

// Bytes that somebody else owns, with their length, read only where they are.
class CByteView {
public:
    CByteView() = default;
    CByteView(const char* data, uint64_t size) : m_Data(data), m_Size(data != nullptr ? size : 0) {}

    const char* Data() const { return m_Data; }
    uint64_t Size() const { return m_Size; }

    bool Holds(uint64_t offset, uint64_t size) const { return offset <= m_Size && size <= m_Size - offset; }

    // Copies the record at `offset`; false, and `record` untouched, when it leaves the view.
    template <typename Record> [[nodiscard]] bool Get(uint64_t offset, Record& record) const {
        static_assert(std::is_trivially_copyable_v<Record>);
        return CopyOut(offset, &record, sizeof(Record));
    }

    [[nodiscard]] bool CopyOut(uint64_t offset, void* target, uint64_t size) const {
        if (!Holds(offset, size))
            return false;
        if (size != 0)
            std::memcpy(target, m_Data + offset, static_cast<size_t>(size));
        return true;
    }

    // The rest of the view from `offset` on; empty behind its end.
    CByteView From(uint64_t offset) const {
        return offset <= m_Size ? CByteView(m_Data + offset, m_Size - offset) : CByteView();
    }

private:
    const char* m_Data = nullptr;
    uint64_t m_Size = 0;
};

// Takes pieces off a view, one after the other.
class CByteReader {
public:
    explicit CByteReader(CByteView view) : m_Rest(view) {}

    // Copies the next `size` bytes; false, and nothing taken, when fewer are left.
    [[nodiscard]] bool Take(void* target, uint64_t size) {
        if (!m_Rest.CopyOut(0, target, size))
            return false;
        m_Rest = m_Rest.From(size);
        return true;
    }

    // Passes over the next `size` bytes; false, and nothing passed, when fewer are left.
    [[nodiscard]] bool Skip(uint64_t size) {
        if (!m_Rest.Holds(0, size))
            return false;
        m_Rest = m_Rest.From(size);
        return true;
    }

    CByteView Rest() const { return m_Rest; }

private:
    CByteView m_Rest;
};
