#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "VirtualServer/VMInfo/XenVDIRecord.h"

enum class XmlToken_t {
    Begin,     // of an element; an empty element begins and ends
    Text,      // a piece of it: the next one may follow at once
    End,       // of an element
    Finished,  // the document ended well
    Failed,
};

// Reads an XML 1.0 document in UTF-8 token by token. Comments and processing instructions are passed over. Only
// references to characters and the five names that XML itself has are resolved; a document type, with which a few bytes
// could stand for any number of others, is refused.
//
// Each token moves forward in the text, and the memory taken is below a small multiple of it. The text stays the
// caller's and has to live as long as the reader.
class CXmlReader {
public:
    explicit CXmlReader(std::string_view text);

    // After `Failed` and `Finished` no other token comes.
    XmlToken_t Next();

    // Of the element that began or ended.
    std::string_view Name() const { return m_Name; }

    // Of the element that began; null where it has none of that name.
    const std::string* FindAttribute(std::string_view name) const;

    // Of the text: references are resolved, and every line ends with a line feed.
    const std::string& Text() const { return m_Value; }

    // How many elements are open, one that began included and one that ended not.
    size_t Depth() const { return m_Open.size(); }

    // What was wrong, and about where: a place in bytes.
    eXmlMsgRet Failure() const { return m_Failure; }
    size_t Position() const { return m_At; }

private:
    using MaybeToken_t = std::optional<XmlToken_t>;

    struct Attribute_t {
        std::string_view name;
        std::string value;
    };

    MaybeToken_t Step();
    MaybeToken_t Fail(eXmlMsgRet failure);
    MaybeToken_t ReadText();
    MaybeToken_t ReadLiteralText();
    MaybeToken_t ReadBeginTag();
    MaybeToken_t ReadEndTag();
    MaybeToken_t EndElement();
    MaybeToken_t Finish();
    MaybeToken_t PassComment();
    MaybeToken_t PassInstruction();

    bool TakeDeclaration();
    bool IsSoundDeclaration() const;
    bool ReadName(std::string_view& name);
    bool ReadAttributes();
    bool ReadAttribute();
    bool AttributesDiffer() const;
    bool ReadUpTo(std::string_view end, std::string_view& piece);
    bool Take(std::string_view piece);
    bool TakeBlanks();
    std::string_view Rest() const { return m_Text.substr(m_At); }

    std::string_view m_Text;
    size_t m_At = 0;
    eXmlMsgRet m_Failure = XmlMsgRet_Success;
    std::vector<std::string_view> m_Open;  // names, the outermost first
    bool m_HadRoot = false;
    bool m_EndIsDue = false;  // of an empty element
    std::string_view m_Name;
    std::vector<Attribute_t> m_Attributes;
    std::string m_Value;
};
