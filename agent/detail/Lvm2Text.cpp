#include "agent/detail/Lvm2Text.h"

#include <algorithm>
#include <charconv>
#include <cstring>

#include "foundation/detail/ErrorHandling.h"

namespace {

template <typename Named> const Named* FindNamed(const std::vector<Named>& all, const std::string& name) {
    const auto found = std::find_if(all.begin(), all.end(), [&](const Named& each) { return each.name == name; });
    return found != all.end() ? &*found : nullptr;
}

// The words, texts and marks of a text, one behind the other.
class CTokens {
public:
    explicit CTokens(const std::string& text) : m_Text(text) {}

    enum class Kind_t { End, Mark, Word, Text };
    struct Token_t {
        Kind_t kind = Kind_t::End;
        std::string text;

        bool Is(char mark) const { return kind == Kind_t::Mark && text[0] == mark; }
        bool IsValue() const { return kind == Kind_t::Word || kind == Kind_t::Text; }
    };

    // False for a text in quotes that doesn't end.
    [[nodiscard]] bool Next(Token_t& token) {
        SkipBlanks();
        token = Token_t();
        if (AtEnd())
            return true;
        const char first = m_Text[m_At];
        if (first == '"')
            return TakeQuoted(token);
        if (IsMark(first)) {
            token = {Kind_t::Mark, std::string(1, first)};
            ++m_At;
            return true;
        }
        token.kind = Kind_t::Word;
        while (!AtEnd() && !IsBlank(m_Text[m_At]) && !IsMark(m_Text[m_At]) && m_Text[m_At] != '"')
            token.text += m_Text[m_At++];
        return true;
    }

    size_t Line() const { return m_Line; }

private:
    // The text ends at its first NUL: writers put one behind it.
    bool AtEnd() const { return m_At >= m_Text.size() || m_Text[m_At] == '\0'; }
    static bool IsBlank(char each) { return each == ' ' || each == '\t' || each == '\n' || each == '\r'; }
    static bool IsMark(char each) { return each != '\0' && std::strchr("={}[],#", each) != nullptr; }

    void SkipBlanks() {
        bool isComment = false;
        for (; !AtEnd() && (isComment || IsBlank(m_Text[m_At]) || m_Text[m_At] == '#'); ++m_At) {
            isComment = (isComment || m_Text[m_At] == '#') && m_Text[m_At] != '\n';
            m_Line += m_Text[m_At] == '\n' ? 1 : 0;
        }
    }

    bool TakeQuoted(Token_t& token) {
        token.kind = Kind_t::Text;
        for (++m_At; !AtEnd(); ++m_At) {
            if (m_Text[m_At] == '"') {
                ++m_At;
                return true;
            }
            if (m_Text[m_At] == '\\' && m_At + 1 < m_Text.size())
                ++m_At;
            m_Line += m_Text[m_At] == '\n' ? 1 : 0;
            token.text += m_Text[m_At];
        }
        return false;
    }

    const std::string& m_Text;
    size_t m_At = 0;
    size_t m_Line = 1;
};

class CTextReader {
public:
    CTextReader(const std::string& text, Lvm2Block_t& root) : m_Tokens(text), m_Open{&root} {}

    CZuError Read() {
        for (;;) {
            if (!m_Tokens.Next(m_Token))
                return Bad("a text in quotes doesn't end");
            if (m_Token.kind == CTokens::Kind_t::End)
                return m_Open.size() == 1 ? CZuError() : Bad("a block doesn't end");
            if (m_Token.Is('}')) {
                if (m_Open.size() == 1)
                    return Bad("a block ends that didn't begin");
                m_Open.pop_back();
                continue;
            }
            if (!m_Token.IsValue())
                return Bad("a name is missing");
            ZU_RETURN_IF_ERROR(ReadNamed());
        }
    }

private:
    // Real texts are four blocks deep. More deep ones would only wear out the stack.
    static constexpr size_t DeepestBlock = 16;
    // An item takes more memory than its few bytes; so many are in no real text.
    static constexpr uint64_t MostNodes = uint64_t{4} << 20U;

    CZuError ReadNamed() {
        const std::string name = m_Token.text;
        if (!m_Tokens.Next(m_Token))
            return Bad("a text in quotes doesn't end");
        if (++m_Nodes > MostNodes)
            return Bad("it has more items than any volume group");
        if (m_Token.Is('{'))
            return OpenBlock(name);
        if (!m_Token.Is('='))
            return Bad("neither a value nor a block follows " + name);
        Lvm2Item_t& item = m_Open.back()->items.emplace_back();
        item.name = name;
        return ReadValues(item);
    }

    // A pointer to the open block stays good: its siblings come after it is closed.
    CZuError OpenBlock(const std::string& name) {
        if (m_Open.size() > DeepestBlock)
            return Bad("its blocks are nested too deeply");
        Lvm2Block_t& block = m_Open.back()->blocks.emplace_back();
        block.name = name;
        m_Open.push_back(&block);
        return CZuError();
    }

    CZuError ReadValues(Lvm2Item_t& item) {
        if (!m_Tokens.Next(m_Token))
            return Bad("a text in quotes doesn't end");
        if (m_Token.IsValue()) {
            item.values.push_back(m_Token.text);
            return CZuError();
        }
        if (!m_Token.Is('['))
            return Bad("the value of " + item.name + " is missing");
        for (;;) {
            if (!m_Tokens.Next(m_Token))
                return Bad("a text in quotes doesn't end");
            if (m_Token.Is(']'))
                return CZuError();
            if (m_Token.Is(','))
                continue;
            if (!m_Token.IsValue())
                return Bad("the values of " + item.name + " don't end");
            if (++m_Nodes > MostNodes)
                return Bad("it has more items than any volume group");
            item.values.push_back(m_Token.text);
        }
    }

    CZuError Bad(const std::string& what) const {
        return Refusal(CZuString::Format("line {1} of its text: {2}", m_Tokens.Line(), what));
    }

    CTokens m_Tokens;
    CTokens::Token_t m_Token;
    std::vector<Lvm2Block_t*> m_Open;  // the outermost first
    uint64_t m_Nodes = 0;
};

}  // namespace

const Lvm2Block_t* Lvm2Block_t::Block(const std::string& wanted) const {
    return FindNamed(blocks, wanted);
}

const std::vector<std::string>* Lvm2Block_t::Values(const std::string& wanted) const {
    const Lvm2Item_t* const item = FindNamed(items, wanted);
    return item != nullptr ? &item->values : nullptr;
}

std::string Lvm2Block_t::Text(const std::string& wanted) const {
    const std::vector<std::string>* const values = Values(wanted);
    return values != nullptr && values->size() == 1 ? values->front() : std::string();
}

bool Lvm2Block_t::Number(const std::string& wanted, uint64_t& number) const {
    return ParseLvm2Number(Text(wanted), number);
}

bool Lvm2Block_t::Has(const std::string& wanted, const std::string& value) const {
    const std::vector<std::string>* const values = Values(wanted);
    return values != nullptr && std::find(values->begin(), values->end(), value) != values->end();
}

bool ParseLvm2Number(const std::string& text, uint64_t& number) {
    const char* const end = text.data() + text.size();
    const std::from_chars_result result = std::from_chars(text.data(), end, number);
    return !text.empty() && result.ec == std::errc() && result.ptr == end;
}

CZuError ParseLvm2Text(const std::string& text, Lvm2Block_t& root) {
    return CTextReader(text, root).Read();
}
