#include "foundation/ZuString.h"

#include <cstring>

namespace {

constexpr const char* Blanks = " \t\r\n\v\f";

// Cuts one text. The state is the piece being gathered and whether a quote is open.
class CTokenizer {
public:
    CTokenizer(std::vector<CZuString>& out, char openQuote, char closeQuote, char escape, char separator)
        : m_Out(out), m_OpenQuote(openQuote), m_CloseQuote(closeQuote), m_Escape(escape), m_Separator(separator) {}

    void Cut(const std::string& text) {
        for (size_t at = 0; at < text.size(); ++at) {
            if (m_InQuotes)
                at = TakeQuoted(text, at);
            else
                TakePlain(text[at]);
        }
        EndPiece();
    }

private:
    // Returns the place of the last byte taken: an escape takes two.
    size_t TakeQuoted(const std::string& text, size_t at) {
        if (text[at] == m_Escape && m_Escape != 0 && at + 1 < text.size()) {
            m_Piece += text[at + 1];
            return at + 1;
        }
        if (text[at] == m_CloseQuote)
            m_InQuotes = false;
        else
            m_Piece += text[at];
        return at;
    }

    void TakePlain(char character) {
        if (character == m_Separator) {
            EndPiece();
        } else if (character == m_OpenQuote && m_OpenQuote != 0) {
            m_InQuotes = true;
            m_WasQuoted = true;
        } else {
            m_Piece += character;
        }
    }

    void EndPiece() {
        if (!m_Piece.empty() || m_WasQuoted)
            m_Out.emplace_back(m_Piece);
        m_Piece.clear();
        m_WasQuoted = false;
    }

    std::vector<CZuString>& m_Out;
    const char m_OpenQuote;
    const char m_CloseQuote;
    const char m_Escape;
    const char m_Separator;
    std::string m_Piece;
    bool m_InQuotes = false;
    bool m_WasQuoted = false;
};

// The number of the placeholder at `at`, 1 to 9, or 0 when there is none.
size_t PlaceholderAt(const char* at) {
    const bool isPlaceholder = at[0] == '{' && at[1] >= '1' && at[1] <= '9' && at[2] == '}';
    return isPlaceholder ? static_cast<size_t>(at[1] - '0') : 0;
}

}  // namespace

void CZuString::Tokenize(std::vector<CZuString>& out, char openQuote, char closeQuote, char escape, char separator,
                         bool /*flag*/) const {
    out.clear();
    CTokenizer(out, openQuote, closeQuote, escape, separator).Cut(m_Text);
}

CZuString CZuString::FillIn(const CZuString& format, const CZuString* arguments, size_t count) {
    constexpr size_t placeholderLength = 3;
    CZuString filled;
    for (size_t at = 0; at < format.m_Text.size();) {
        const size_t number = PlaceholderAt(format.m_Text.c_str() + at);
        if (number == 0 || number > count) {
            filled.m_Text += format.m_Text[at++];
            continue;
        }
        filled.m_Text += arguments[number - 1].m_Text;
        at += placeholderLength;
    }
    return filled;
}

CZuString CZuString::SubStr(size_t start, size_t length) const {
    if (start >= m_Text.size())
        return CZuString();
    return m_Text.substr(start, length);
}

int CZuString::ReverseFind(char character, size_t start) const {
    const size_t found = m_Text.rfind(character, start);
    return found != std::string::npos ? static_cast<int>(found) : -1;
}

void CZuString::ChopAt(size_t index) {
    if (index < m_Text.size())
        m_Text.resize(index);
}

void CZuString::LTrimAll() {
    m_Text.erase(0, m_Text.find_first_not_of(Blanks));
}

void CZuString::RTrimAll() {
    m_Text.resize(m_Text.find_last_not_of(Blanks) + 1);  // npos + 1 is 0: nothing but blanks
}

void CZuString::ReCalculateLength() {
    m_Text.resize(strnlen(m_Text.data(), m_Text.size()));
}
