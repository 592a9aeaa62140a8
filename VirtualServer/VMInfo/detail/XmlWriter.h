#pragma once

#include <cstddef>
#include <string>
#include <string_view>

// Writes XML 1.0 in UTF-8 behind what `out` holds. Any bytes may be a text: one that XML can't hold is written in
// hexadecimal, which the attribute `encoding="hex"` tells. Names are the caller's to keep sound and to pair.
class CXmlWriter {
public:
    // A document has a declaration, and each element a line of its own, indented. What isn't one is meant to stand
    // inside of another.
    CXmlWriter(std::string& out, bool isDocument);

    void Begin(const char* name);
    void End(const char* name);

    // A whole element that holds `text`.
    void Element(const char* name, std::string_view text);

private:
    void Indent();
    void EndLine();

    std::string& m_Out;
    const bool m_IsDocument;
    size_t m_Depth = 0;
};
