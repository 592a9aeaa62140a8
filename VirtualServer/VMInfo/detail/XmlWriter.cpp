#include "VirtualServer/VMInfo/detail/XmlWriter.h"

#include "VirtualServer/VMInfo/detail/XmlText.h"

namespace {

void AppendEscaped(std::string_view text, std::string& out) {
    for (const char character : text) {
        switch (character) {
        case '&': out += "&amp;"; break;
        case '<': out += "&lt;"; break;
        case '>': out += "&gt;"; break;    // "]]>" isn't allowed as it stands
        case '\r': out += "&#13;"; break;  // a reader takes one that stands there for the end of a line
        default: out += character;
        }
    }
}

void AppendHex(std::string_view bytes, std::string& out) {
    constexpr char digits[] = "0123456789abcdef";
    for (const char character : bytes) {
        const auto byte = static_cast<unsigned char>(character);
        out += digits[byte >> 4U];
        out += digits[byte & 0xFU];
    }
}

}  // namespace

CXmlWriter::CXmlWriter(std::string& out, bool isDocument) : m_Out(out), m_IsDocument(isDocument) {
    if (isDocument)
        m_Out += "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n";
}

void CXmlWriter::Begin(const char* name) {
    Indent();
    m_Out.append("<").append(name).append(">");
    EndLine();
    ++m_Depth;
}

void CXmlWriter::End(const char* name) {
    --m_Depth;
    Indent();
    m_Out.append("</").append(name).append(">");
    EndLine();
}

void CXmlWriter::Element(const char* name, std::string_view text) {
    const bool isPlain = IsXmlText(text);
    Indent();
    m_Out.append("<").append(name);
    if (!isPlain)
        m_Out.append(" ").append(XmlEncodingAttribute).append("=\"").append(XmlHexEncoding).append("\"");
    m_Out += '>';
    isPlain ? AppendEscaped(text, m_Out) : AppendHex(text, m_Out);
    m_Out.append("</").append(name).append(">");
    EndLine();
}

void CXmlWriter::Indent() {
    constexpr size_t columns = 2;
    if (m_IsDocument)
        m_Out.append(m_Depth * columns, ' ');
}

void CXmlWriter::EndLine() {
    if (m_IsDocument)
        m_Out += '\n';
}
