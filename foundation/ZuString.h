#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "platform/Export.h"

// A text of bytes. Numbers become texts in decimal, which is how they reach `Format`.
// Positions and lengths count bytes and are clipped to the text; nothing here fails.
class DISKSTREAM_EXPORT CZuString {
public:
    CZuString() = default;
    CZuString(const char* text) : m_Text(text != nullptr ? text : "") {}
    CZuString(const std::string& text) : m_Text(text) {}
    CZuString(unsigned short number) : m_Text(std::to_string(number)) {}
    CZuString(int number) : m_Text(std::to_string(number)) {}
    CZuString(unsigned int number) : m_Text(std::to_string(number)) {}
    CZuString(long number) : m_Text(std::to_string(number)) {}
    CZuString(unsigned long number) : m_Text(std::to_string(number)) {}
    CZuString(long long number) : m_Text(std::to_string(number)) {}
    CZuString(unsigned long long number) : m_Text(std::to_string(number)) {}

    // `format` with each {1} to {5} replaced by the argument of that number. Arguments are put in
    // as they are, never searched for placeholders; a placeholder without an argument stays.
    template <typename... Arguments> static CZuString Format(const CZuString& format, const Arguments&... arguments) {
        static_assert(sizeof...(Arguments) <= 5, "Format fills at most {1} to {5}");
        const std::array<CZuString, sizeof...(Arguments)> texts{CZuString(arguments)...};
        return FillIn(format, texts.data(), texts.size());
    }

    // Cuts the text at each `separator` into `out`, which is emptied first. Empty pieces are left
    // out. Between `openQuote` and `closeQuote` (0 for no quoting) a separator doesn't cut and
    // `escape` takes the next character as it is; the quotes themselves are dropped, "" makes an
    // empty piece, and an open quote runs to the end. `flag` has no effect; callers pass false.
    void Tokenize(std::vector<CZuString>& out, char openQuote, char closeQuote, char escape, char separator,
                  bool flag) const;

    const char* c_str() const { return m_Text.c_str(); }
    operator const char*() const { return m_Text.c_str(); }
    size_t Length() const { return m_Text.size(); }
    bool IsEmpty() const { return m_Text.empty(); }
    void Clear() { m_Text.clear(); }

    CZuString& operator=(const char* text) {
        m_Text = text != nullptr ? text : "";
        return *this;
    }
    bool operator==(const char* text) const { return text != nullptr && m_Text == text; }
    bool operator==(const CZuString& other) const { return m_Text == other.m_Text; }
    char& operator[](int index) { return m_Text[static_cast<size_t>(index)]; }
    const char& operator[](int index) const { return m_Text[static_cast<size_t>(index)]; }
    CZuString operator+(const CZuString& other) const { return m_Text + other.m_Text; }
    CZuString operator+(const char* text) const { return *this + CZuString(text); }
    CZuString operator+(char character) const { return m_Text + character; }
    CZuString& operator+=(const CZuString& other) {
        m_Text += other.m_Text;
        return *this;
    }
    CZuString& operator+=(const char* text) { return *this += CZuString(text); }

    CZuString SubStr(size_t start, size_t length) const;

    // The last place at or before `start` that holds `character`, or -1.
    int ReverseFind(char character, size_t start = std::string::npos) const;

    // Keeps the first `index` bytes.
    void ChopAt(size_t index);

    // Take the blanks, tabs and line ends off the beginning or the end.
    void LTrimAll();
    void RTrimAll();

    // For callers that fill the text themselves: make room for `size` bytes (zeros), write through
    // `GetBuffer`, then let `ReCalculateLength` end the text at its first NUL.
    void AllocateBuffer(size_t size) { m_Text.assign(size, '\0'); }
    char* GetBuffer() { return m_Text.data(); }
    void AssignBuffer(const char* bytes, size_t size) { m_Text.assign(bytes, bytes != nullptr ? size : 0); }
    void ReCalculateLength();

private:
    static CZuString FillIn(const CZuString& format, const CZuString* arguments, size_t count);

    std::string m_Text;
};

inline CZuString operator+(const char* left, const CZuString& right) {
    return CZuString(left) + right;
}
