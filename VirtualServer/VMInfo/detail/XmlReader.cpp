#include "VirtualServer/VMInfo/detail/XmlReader.h"

#include <algorithm>
#include <charconv>
#include <cstdint>

#include "VirtualServer/VMInfo/detail/XmlText.h"
#include "foundation/detail/UnicodeText.h"

namespace {

// Far more than any of our messages has, and little enough for the names of all open elements to be nothing.
constexpr size_t MostOpenElements = 64;

constexpr std::string_view ByteOrderMark = "\xEF\xBB\xBF";

char LowerAscii(char character) {
    return character >= 'A' && character <= 'Z' ? static_cast<char>(character - 'A' + 'a') : character;
}

bool EqualInAnyCase(std::string_view left, std::string_view right) {
    return std::equal(left.begin(), left.end(), right.begin(), right.end(),
                      [](char one, char other) { return LowerAscii(one) == LowerAscii(other); });
}

// Beyond ASCII any character will do: such names aren't ours, and are only compared with each other.
bool BeginsXmlName(char character) {
    const char lower = LowerAscii(character);
    return (lower >= 'a' && lower <= 'z') || character == '_' || character == ':' ||
           static_cast<unsigned char>(character) >= 0x80;
}

bool ContinuesXmlName(char character) {
    return BeginsXmlName(character) || (character >= '0' && character <= '9') || character == '-' || character == '.';
}

// Lines end with a line feed, whatever the system where the text was written.
void AppendLines(std::string_view piece, std::string& text) {
    for (size_t at = 0; at < piece.size(); ++at) {
        if (piece[at] != '\r') {
            text += piece[at];
            continue;
        }
        const bool isPair = at + 1 < piece.size() && piece[at + 1] == '\n';
        if (!isPair)
            text += '\n';
    }
}

// The number of a reference to a character, without "&#" and ";".
bool ParseCharacterNumber(std::string_view digits, uint32_t& character) {
    const bool isHex = !digits.empty() && digits.front() == 'x';
    if (isHex)
        digits.remove_prefix(1);
    const char* const end = digits.data() + digits.size();
    const auto [stop, error] = std::from_chars(digits.data(), end, character, isHex ? 16 : 10);
    return error == std::errc() && stop == end && IsXmlCharacter(character);
}

bool AppendReferenced(std::string_view name, std::string& text) {
    constexpr struct {
        std::string_view name;
        char character;
    } predefined[] = {{"amp", '&'}, {"lt", '<'}, {"gt", '>'}, {"quot", '"'}, {"apos", '\''}};
    for (const auto& row : predefined) {
        if (row.name == name) {
            text += row.character;
            return true;
        }
    }
    uint32_t character = 0;
    if (name.empty() || name.front() != '#' || !ParseCharacterNumber(name.substr(1), character))
        return false;
    AppendUtf8(character, text);
    return true;
}

// Text as it stands between tags or quotes. Each turn takes a reference off, or all that is left.
bool Resolve(std::string_view raw, std::string& text) {
    text.clear();
    for (;;) {
        const size_t reference = raw.find('&');
        AppendLines(raw.substr(0, reference), text);
        if (reference == std::string_view::npos)
            return true;
        const size_t end = raw.find(';', reference);
        if (end == std::string_view::npos || !AppendReferenced(raw.substr(reference + 1, end - reference - 1), text))
            return false;
        raw.remove_prefix(end + 1);
    }
}

}  // namespace

CXmlReader::CXmlReader(std::string_view text) : m_Text(text) {
    if (m_Text.substr(0, ByteOrderMark.size()) == ByteOrderMark)
        m_At = ByteOrderMark.size();
    if (!IsXmlText(m_Text) || !TakeDeclaration())
        m_Failure = XmlMsgRet_NotXml;
}

XmlToken_t CXmlReader::Next() {
    MaybeToken_t token;
    while (m_Failure == XmlMsgRet_Success && !token)
        token = Step();
    return token.value_or(XmlToken_t::Failed);
}

const std::string* CXmlReader::FindAttribute(std::string_view name) const {
    const auto found = std::find_if(m_Attributes.begin(), m_Attributes.end(),
                                    [name](const Attribute_t& attribute) { return attribute.name == name; });
    return found != m_Attributes.end() ? &found->value : nullptr;
}

// Takes one piece of the document; no token comes of what is passed over and of what is wrong.
CXmlReader::MaybeToken_t CXmlReader::Step() {
    if (m_EndIsDue)
        return EndElement();
    if (m_At == m_Text.size())
        return Finish();
    if (m_Text[m_At] != '<')
        return ReadText();
    if (Take("<!--"))
        return PassComment();
    if (Take("<![CDATA["))
        return ReadLiteralText();
    if (Take("<!DOCTYPE"))
        return Fail(XmlMsgRet_DocumentType);
    if (Take("<?"))
        return PassInstruction();
    return Take("</") ? ReadEndTag() : ReadBeginTag();
}

CXmlReader::MaybeToken_t CXmlReader::Fail(eXmlMsgRet failure) {
    m_Failure = failure;
    return std::nullopt;
}

CXmlReader::MaybeToken_t CXmlReader::ReadText() {
    const std::string_view raw = Rest().substr(0, Rest().find('<'));
    if (m_Open.empty() && !WithoutXmlBlanks(raw).empty())
        return Fail(XmlMsgRet_NotXml);
    if (raw.find("]]>") != std::string_view::npos || !Resolve(raw, m_Value))
        return Fail(XmlMsgRet_NotXml);
    m_At += raw.size();
    return m_Open.empty() ? std::nullopt : MaybeToken_t(XmlToken_t::Text);
}

CXmlReader::MaybeToken_t CXmlReader::ReadLiteralText() {
    std::string_view raw;
    if (m_Open.empty() || !ReadUpTo("]]>", raw))
        return Fail(XmlMsgRet_NotXml);
    m_Value.clear();
    AppendLines(raw, m_Value);
    return XmlToken_t::Text;
}

CXmlReader::MaybeToken_t CXmlReader::ReadBeginTag() {
    const bool isSecondRoot = m_Open.empty() && m_HadRoot;
    if (isSecondRoot || !Take("<") || !ReadName(m_Name) || !ReadAttributes())
        return Fail(XmlMsgRet_NotXml);
    m_EndIsDue = Take("/>");
    if (!m_EndIsDue && !Take(">"))
        return Fail(XmlMsgRet_NotXml);
    if (m_Open.size() == MostOpenElements)
        return Fail(XmlMsgRet_TooDeep);
    m_Open.push_back(m_Name);
    m_HadRoot = true;
    return XmlToken_t::Begin;
}

CXmlReader::MaybeToken_t CXmlReader::ReadEndTag() {
    std::string_view name;
    if (!ReadName(name) || m_Open.empty() || m_Open.back() != name)
        return Fail(XmlMsgRet_NotXml);
    TakeBlanks();
    return Take(">") ? EndElement() : Fail(XmlMsgRet_NotXml);
}

CXmlReader::MaybeToken_t CXmlReader::EndElement() {
    m_EndIsDue = false;
    m_Name = m_Open.back();
    m_Open.pop_back();
    return XmlToken_t::End;
}

CXmlReader::MaybeToken_t CXmlReader::Finish() {
    return m_HadRoot && m_Open.empty() ? MaybeToken_t(XmlToken_t::Finished) : Fail(XmlMsgRet_NotXml);
}

CXmlReader::MaybeToken_t CXmlReader::PassComment() {
    std::string_view comment;
    return ReadUpTo("--", comment) && Take(">") ? std::nullopt : Fail(XmlMsgRet_NotXml);
}

CXmlReader::MaybeToken_t CXmlReader::PassInstruction() {
    std::string_view target;
    std::string_view content;
    if (!ReadName(target) || EqualInAnyCase(target, "xml") || !ReadUpTo("?>", content))
        return Fail(XmlMsgRet_NotXml);
    return content.empty() || IsXmlBlank(content.front()) ? std::nullopt : Fail(XmlMsgRet_NotXml);
}

// The declaration may be missing, but stands nowhere else than here.
bool CXmlReader::TakeDeclaration() {
    constexpr std::string_view begin = "<?xml";
    const bool isThere =
        Rest().substr(0, begin.size()) == begin && Rest().size() > begin.size() && IsXmlBlank(Rest()[begin.size()]);
    if (!isThere)
        return true;
    m_At += begin.size();
    return ReadAttributes() && Take("?>") && IsSoundDeclaration();
}

// Version, encoding and whether it stands alone, in this order; the last two may be missing.
bool CXmlReader::IsSoundDeclaration() const {
    constexpr std::string_view known[] = {"version", "encoding", "standalone"};
    size_t place = 0;
    for (const Attribute_t& attribute : m_Attributes) {
        place = std::find(known + place, std::end(known), attribute.name) - known;
        if (place == std::size(known))
            return false;
    }
    const std::string* const version = FindAttribute("version");
    const std::string* const encoding = FindAttribute("encoding");
    const std::string* const standalone = FindAttribute("standalone");
    return version != nullptr && *version == "1.0" &&
           (encoding == nullptr || EqualInAnyCase(*encoding, "UTF-8") || EqualInAnyCase(*encoding, "US-ASCII")) &&
           (standalone == nullptr || *standalone == "yes" || *standalone == "no");
}

bool CXmlReader::ReadName(std::string_view& name) {
    const std::string_view rest = Rest();
    if (rest.empty() || !BeginsXmlName(rest.front()))
        return false;
    name = rest.substr(0, std::find_if_not(rest.begin(), rest.end(), ContinuesXmlName) - rest.begin());
    m_At += name.size();
    return true;
}

bool CXmlReader::ReadAttributes() {
    m_Attributes.clear();
    for (;;) {
        const bool isApart = TakeBlanks();
        const bool isOneMore = m_At < m_Text.size() && BeginsXmlName(m_Text[m_At]);
        if (!isOneMore)
            return AttributesDiffer();
        if (!isApart || !ReadAttribute())
            return false;
    }
}

bool CXmlReader::ReadAttribute() {
    Attribute_t attribute;
    if (!ReadName(attribute.name))
        return false;
    TakeBlanks();
    if (!Take("="))
        return false;
    TakeBlanks();
    const bool isDoubleQuoted = Take("\"");
    std::string_view raw;
    if ((!isDoubleQuoted && !Take("'")) || !ReadUpTo(isDoubleQuoted ? "\"" : "'", raw))
        return false;
    if (raw.find('<') != std::string_view::npos || !Resolve(raw, attribute.value))
        return false;
    m_Attributes.push_back(std::move(attribute));
    return true;
}

bool CXmlReader::AttributesDiffer() const {
    std::vector<std::string_view> names;
    for (const Attribute_t& attribute : m_Attributes)
        names.push_back(attribute.name);
    std::sort(names.begin(), names.end());
    return std::adjacent_find(names.begin(), names.end()) == names.end();
}

// What stands before `end`, which is taken too.
bool CXmlReader::ReadUpTo(std::string_view end, std::string_view& piece) {
    const size_t length = Rest().find(end);
    if (length == std::string_view::npos)
        return false;
    piece = Rest().substr(0, length);
    m_At += length + end.size();
    return true;
}

bool CXmlReader::Take(std::string_view piece) {
    if (Rest().substr(0, piece.size()) != piece)
        return false;
    m_At += piece.size();
    return true;
}

bool CXmlReader::TakeBlanks() {
    const size_t begin = m_At;
    while (m_At < m_Text.size() && IsXmlBlank(m_Text[m_At]))
        ++m_At;
    return m_At != begin;
}
