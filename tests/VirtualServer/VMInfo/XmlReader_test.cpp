#include "VirtualServer/VMInfo/detail/XmlReader.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <iterator>
#include <random>
#include <string>

#include "tests/support/XmlTexts.h"

namespace {

// All tokens, with the attributes named in `names`; ends with "!" and the failure's number where one comes.
std::string TokensOf(const std::string& text) {
    const char* const names[] = {"b", "one", "two", "three", "x"};
    CXmlReader reader(text);
    std::string tokens;
    for (XmlToken_t token = reader.Next();; token = reader.Next()) {
        switch (token) {
        case XmlToken_t::Begin:
            tokens += " <" + std::string(reader.Name());
            for (const char* const name : names) {
                const std::string* const value = reader.FindAttribute(name);
                if (value != nullptr)
                    tokens += " " + std::string(name) + "=" + *value;
            }
            break;
        case XmlToken_t::Text: tokens += " [" + reader.Text() + "]"; break;
        case XmlToken_t::End: tokens += " >" + std::string(reader.Name()); break;
        case XmlToken_t::Finished: return tokens.empty() ? tokens : tokens.substr(1);
        case XmlToken_t::Failed: return tokens + "!" + std::to_string(reader.Failure());
        }
    }
}

eXmlMsgRet FailureOf(const std::string& text) {
    CXmlReader reader(text);
    XmlToken_t token = reader.Next();
    while (token != XmlToken_t::Finished && token != XmlToken_t::Failed)
        token = reader.Next();
    EXPECT_EQ(token, reader.Next()) << "and no other token follows";
    EXPECT_LE(reader.Position(), text.size());
    return reader.Failure();
}

std::string Repeated(const std::string& piece, size_t count) {
    std::string text;
    for (size_t index = 0; index < count; ++index)
        text += piece;
    return text;
}

TEST(XmlReader, TellsWhatADocumentHolds) {
    for (const XmlText_t& row : WellFormedXml())
        EXPECT_EQ(row.tokens, TokensOf(row.text)) << row.name;
}

TEST(XmlReader, RefusesWhatIsNoDocument) {
    for (const XmlText_t& row : BrokenXml())
        EXPECT_EQ(XmlMsgRet_NotXml, FailureOf(row.text)) << row.name;
}

TEST(XmlReader, EveryCutOfADocumentIsRefused) {
    size_t tried = 0;
    for (const XmlText_t& row : WellFormedXml()) {
        const bool endsWithRoot = row.text.ends_with("/>") || row.text.ends_with("</a>");
        for (size_t size = 0; endsWithRoot && size < row.text.size(); ++size, ++tried)
            EXPECT_EQ(XmlMsgRet_NotXml, FailureOf(row.text.substr(0, size))) << row.name << ", " << size;
    }
    EXPECT_GT(tried, 500U);
}

// What other readers resolve, and what others take for XML.
TEST(XmlReader, TakesNoOtherVersionEncodingAndDocumentType) {
    using namespace std::string_literals;
    const struct {
        const char* name;
        std::string text;
        eXmlMsgRet failure;
    } rows[] = {
        {"version 1.1", "<?xml version='1.1'?><a/>", XmlMsgRet_NotXml},
        {"Latin-1", "<?xml version='1.0' encoding='ISO-8859-1'?><a/>", XmlMsgRet_NotXml},
        {"UTF-16", "<?xml version='1.0' encoding='UTF-16'?><a/>", XmlMsgRet_NotXml},
        {"what is UTF-16", "\xFF\xFE<\0a\0/\0>\0"s, XmlMsgRet_NotXml},
        {"a NUL behind the root", "<a/>\0"s, XmlMsgRet_NotXml},
        {"a document type", "<!DOCTYPE a><a/>", XmlMsgRet_DocumentType},
        {"a document type behind a comment", "<!-- --><!DOCTYPE a [<!ENTITY b 'b'>]><a>&b;</a>",
         XmlMsgRet_DocumentType},
        {"a document type inside", "<a><!DOCTYPE a></a>", XmlMsgRet_DocumentType},
        {"a document type cut short", "<!DOCTYPE", XmlMsgRet_DocumentType},
    };
    for (const auto& row : rows)
        EXPECT_EQ(row.failure, FailureOf(row.text)) << row.name;
}

TEST(XmlReader, ElementsLieInsideEachOtherUpToADepthOf64) {
    EXPECT_EQ(XmlMsgRet_Success, FailureOf(Repeated("<a>", 64) + Repeated("</a>", 64)));
    EXPECT_EQ(XmlMsgRet_TooDeep, FailureOf(Repeated("<a>", 65) + Repeated("</a>", 65)));
    EXPECT_EQ(XmlMsgRet_TooDeep, FailureOf(Repeated("<a>", 64) + "<a/>" + Repeated("</a>", 64)));
    EXPECT_EQ(XmlMsgRet_TooDeep, FailureOf(Repeated("<a>", 1000000)));
    EXPECT_EQ(XmlMsgRet_Success, FailureOf("<a>" + Repeated("<b></b>", 1000) + "</a>")) << "side by side";
}

TEST(XmlReader, KnowsHowManyElementsAreOpen) {
    CXmlReader reader("<a><b/>1</a>");
    for (const size_t depth : {1U, 2U, 1U, 1U, 0U}) {
        reader.Next();
        EXPECT_EQ(depth, reader.Depth());
    }
}

TEST(XmlReader, FindsOnlyTheAttributesOfTheElementThatBegan) {
    CXmlReader reader("<a one='1'><b two='2'/></a>");
    EXPECT_EQ(XmlToken_t::Begin, reader.Next());
    EXPECT_NE(nullptr, reader.FindAttribute("one"));
    EXPECT_EQ(nullptr, reader.FindAttribute("two"));
    EXPECT_EQ(XmlToken_t::Begin, reader.Next());
    EXPECT_EQ(nullptr, reader.FindAttribute("one"));
    EXPECT_NE(nullptr, reader.FindAttribute("two"));
}

TEST(XmlReader, TellsAboutWhereItFailed) {
    CXmlReader reader("<a>12345<b>&x;</b></a>");
    while (reader.Next() != XmlToken_t::Failed)
        continue;
    EXPECT_EQ(11U, reader.Position());
}

// Time grows with the text, not with its square: any of these would take hours.
TEST(XmlReader, LongTextsTakeNoLongerThanTheirLength) {
    constexpr size_t many = 100000;
    std::string attributes;
    for (size_t index = 0; index < many; ++index)
        attributes += " a" + std::to_string(index) + "=''";
    EXPECT_EQ(XmlMsgRet_Success, FailureOf("<a" + attributes + "/>"));
    EXPECT_EQ(XmlMsgRet_Success, FailureOf("<a>" + Repeated("&amp;", many) + "</a>"));
    EXPECT_EQ(XmlMsgRet_Success, FailureOf("<a>" + Repeated("\r", many) + "</a>"));
    EXPECT_EQ(XmlMsgRet_Success, FailureOf("<a>" + Repeated("<![CDATA[]]>", many) + "</a>"));
    EXPECT_EQ(XmlMsgRet_Success, FailureOf("<a/>" + Repeated("<!---->", many)));
    EXPECT_EQ(XmlMsgRet_Success, FailureOf("<a/>" + Repeated("<?b?>", many)));
    EXPECT_EQ(XmlMsgRet_NotXml, FailureOf("<a>" + Repeated("&", many) + "</a>"));
    EXPECT_EQ(XmlMsgRet_NotXml, FailureOf("<a>" + Repeated("<", many)));
    EXPECT_EQ(XmlMsgRet_NotXml, FailureOf("<" + std::string(many, 'a')));
}

TEST(XmlReader, AnyBytesEnd) {
    const std::string pieces[] = {"<",    ">",   "/",         "a",   "b",      "=",  "'",    "\"",  "&", ";",
                                  "#",    "x",   "1",         " ",   "!",      "-",  "[",    "]",   "?", "\r",
                                  "<!--", "-->", "<![CDATA[", "]]>", "<?xml ", "?>", "\xC3", "\xA4"};
    std::mt19937_64 random(1);
    size_t sound = 0;
    for (int run = 0; run < 20000; ++run) {
        std::string text = run % 2 == 0 ? "<a>" : "";
        for (uint64_t left = random() % 12; left > 0; --left)
            text += pieces[random() % std::size(pieces)];
        text += run % 2 == 0 ? "</a>" : "";
        sound += FailureOf(text) == XmlMsgRet_Success ? 1 : 0;
    }
    EXPECT_GT(sound, 100U);
}

}  // namespace
