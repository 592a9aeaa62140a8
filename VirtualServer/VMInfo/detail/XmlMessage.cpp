#include "VirtualServer/VMInfo/detail/XmlMessage.h"

#include <charconv>
#include <cstddef>
#include <iterator>
#include <utility>

#include "VirtualServer/VMInfo/UtilityFunctions.h"
#include "VirtualServer/VMInfo/detail/XmlReader.h"
#include "VirtualServer/VMInfo/detail/XmlText.h"
#include "VirtualServer/VMInfo/detail/XmlWriter.h"
#include "foundation/LgDebug.h"

namespace {

constexpr char ItemElement[] = "Item";

using Texts_t = std::list<std::string>;
using FieldValue_t = std::variant<std::string, int64_t, bool, Texts_t>;

void WriteFieldElement(CXmlWriter& writer, const char* name, const std::string& text) {
    writer.Element(name, text);
}

void WriteFieldElement(CXmlWriter& writer, const char* name, int64_t number) {
    writer.Element(name, std::to_string(number));
}

void WriteFieldElement(CXmlWriter& writer, const char* name, bool isTrue) {
    writer.Element(name, isTrue ? "true" : "false");
}

void WriteFieldElement(CXmlWriter& writer, const char* name, const Texts_t& texts) {
    writer.Begin(name);
    for (const std::string& text : texts)
        writer.Element(ItemElement, text);
    writer.End(name);
}

// An odd digit stands before the text's terminator, which is no digit.
bool DecodeHexText(std::string& text) {
    std::string bytes;
    for (size_t at = 0; at < text.size(); at += 2) {
        const int byte = HexPairToByte(&text[at]);
        if (byte < 0)
            return false;
        bytes += static_cast<char>(byte);
    }
    text.swap(bytes);
    return true;
}

bool ParseFieldText(const std::string& text, int64_t& number) {
    const std::string_view digits = WithoutXmlBlanks(text);
    const char* const end = digits.data() + digits.size();
    const auto [stop, error] = std::from_chars(digits.data(), end, number);
    return error == std::errc() && stop == end;
}

bool ParseFieldText(const std::string& text, bool& isTrue) {
    const std::string_view word = WithoutXmlBlanks(text);
    isTrue = word == "true" || word == "1";
    return isTrue || word == "false" || word == "0";
}

// Reads one message. The values are gathered here, so that the fields stay as they are until all is well.
class CMessageReading {
public:
    CMessageReading(std::string_view text, const std::vector<XmlMessageField_t>& fields)
        : m_Reader(text), m_Fields(fields), m_IsSet(fields.size()) {
        for (const XmlMessageField_t& field : fields)
            m_Values.push_back(std::visit([](auto* value) { return EmptyLike(*value); }, field.value));
    }

    eXmlMsgRet Read(std::string_view name) {
        if (m_Reader.Next() != XmlToken_t::Begin)
            return m_Reader.Failure();
        if (m_Reader.Name() != name)
            return XmlMsgRet_OtherMessage;
        const eXmlMsgRet result = ReadChildren([this] { return ReadField(); });
        if (result != XmlMsgRet_Success)
            return result;
        m_Reader.Next();  // nothing may follow but comments
        return m_Reader.Failure();
    }

    void GiveValues() {
        for (size_t index = 0; index < m_Fields.size(); ++index)
            std::visit([&](auto* value) { Give(m_Values[index], *value); }, m_Fields[index].value);
    }

    size_t Position() const { return m_Reader.Position(); }

private:
    template <typename Value> static FieldValue_t EmptyLike(const Value& /*value*/) { return FieldValue_t(Value()); }

    template <typename Value> static void Give(FieldValue_t& from, Value& to) { to = std::move(std::get<Value>(from)); }

    // Up to the end of the element that is open; `read` reads an inner one that has just begun. Each turn takes a
    // token.
    template <typename Read> eXmlMsgRet ReadChildren(Read read) {
        for (;;) {
            switch (m_Reader.Next()) {
            case XmlToken_t::Begin: {
                const eXmlMsgRet result = read();
                if (result != XmlMsgRet_Success)
                    return result;
                break;
            }
            case XmlToken_t::Text:
                if (!WithoutXmlBlanks(m_Reader.Text()).empty())
                    return XmlMsgRet_BadValue;
                break;
            case XmlToken_t::End: return XmlMsgRet_Success;
            case XmlToken_t::Finished:
            case XmlToken_t::Failed: return m_Reader.Failure();
            }
        }
    }

    eXmlMsgRet ReadField() {
        for (size_t index = 0; index < m_Fields.size(); ++index) {
            if (m_Reader.Name() != m_Fields[index].name)
                continue;
            if (m_IsSet[index])
                return XmlMsgRet_BadValue;
            m_IsSet[index] = true;
            return std::visit([this](auto& value) { return ReadValue(value); }, m_Values[index]);
        }
        return PassOver();
    }

    eXmlMsgRet ReadValue(Texts_t& texts) {
        return ReadChildren([&] {
            if (m_Reader.Name() != ItemElement)
                return PassOver();
            return ReadValue(texts.emplace_back());
        });
    }

    template <typename Value> eXmlMsgRet ReadValue(Value& value) {
        std::string text;
        const eXmlMsgRet result = ReadValue(text);
        if (result != XmlMsgRet_Success)
            return result;
        return ParseFieldText(text, value) ? XmlMsgRet_Success : XmlMsgRet_BadValue;
    }

    eXmlMsgRet ReadValue(std::string& text) {
        const std::string* const encoding = m_Reader.FindAttribute(XmlEncodingAttribute);
        const bool isHex = encoding != nullptr;
        if (isHex && *encoding != XmlHexEncoding)
            return XmlMsgRet_BadValue;
        XmlToken_t token = m_Reader.Next();
        for (; token == XmlToken_t::Text; token = m_Reader.Next())
            text += m_Reader.Text();
        if (token == XmlToken_t::Failed)
            return m_Reader.Failure();
        const bool isSound = token == XmlToken_t::End && (!isHex || DecodeHexText(text));
        return isSound ? XmlMsgRet_Success : XmlMsgRet_BadValue;
    }

    // The element that has just begun, with all that it holds.
    eXmlMsgRet PassOver() {
        const size_t depth = m_Reader.Depth();
        while (m_Reader.Depth() >= depth) {
            if (m_Reader.Next() == XmlToken_t::Failed)
                return m_Reader.Failure();
        }
        return XmlMsgRet_Success;
    }

    CXmlReader m_Reader;
    const std::vector<XmlMessageField_t>& m_Fields;
    std::vector<FieldValue_t> m_Values;  // by field
    std::vector<bool> m_IsSet;           // by field
};

}  // namespace

void WriteXmlMessage(const char* name, const std::vector<XmlMessageField_t>& fields, bool isDocument,
                     std::string& out) {
    CXmlWriter writer(out, isDocument);
    writer.Begin(name);
    for (const XmlMessageField_t& field : fields)
        std::visit([&](const auto* value) { WriteFieldElement(writer, field.name, *value); }, field.value);
    writer.End(name);
}

eXmlMsgRet ReadXmlMessage(std::string_view text, const char* name, const std::vector<XmlMessageField_t>& fields) {
    CMessageReading reading(text, fields);
    const eXmlMsgRet result = reading.Read(name);
    if (result != XmlMsgRet_Success) {
        LgDebug().Error("::ReadXmlMessage", "A message %s is wrong about byte %llu of %llu: code [0x%x]", name,
                        static_cast<unsigned long long>(reading.Position()),
                        static_cast<unsigned long long>(text.size()), static_cast<unsigned int>(result));
        return result;
    }
    reading.GiveValues();
    return result;
}
