#include <gtest/gtest.h>

#include <cstddef>
#include <cstdio>
#include <string>
#include <utility>
#include <vector>

#include "VirtualServer/VMInfo/XenVDIRecord.h"
#include "tests/interop/OtherPrograms.h"
#include "tests/support/TempDir.h"
#include "tests/support/XmlTexts.h"

// Records of disk images are XML to other programs too, and what is XML to us is XML to them.

namespace {

using VirtualServer::XenVDIRecord;

#define SKIP_WITHOUT_XMLLINT()  \
    if (!HasProgram("xmllint")) \
    GTEST_SKIP() << "xmllint isn't installed"

bool IsXmlForXmllint(const CTempDir& dir, const std::string& text) {
    return RunProgram("xmllint --nonet --noout " + Quoted(dir.Write("text.xml", text)));
}

// What the path leads to in the file, as text without an end of line of xmllint's own.
std::string AtPath(const std::string& file, const std::string& path) {
    std::string output;
    EXPECT_TRUE(
        RunProgram("xmllint --nonet --xpath " + Quoted("concat(" + path + ", \"|\")") + " " + Quoted(file), &output))
        << output;
    const size_t end = output.rfind('|');
    return output.substr(0, end);
}

std::string Hexadecimal(const std::string& bytes) {
    std::string text;
    for (const char byte : bytes) {
        char digits[3];
        std::snprintf(digits, sizeof(digits), "%02x", static_cast<unsigned int>(static_cast<unsigned char>(byte)));
        text += digits;
    }
    return text;
}

TEST(XenVDIRecordsOfXmllint, ReadEachValueAsItIs) {
    SKIP_WITHOUT_XMLLINT();
    const std::string markup = "<Item a=\"1\">&amp;'</Item>]]><![CDATA[x]]>";
    const std::string lines = " one\ttwo\n\rthree\r\nfour ";
    const std::string letters = "\xC3\xA4\xE2\x82\xAC\xF0\x9F\x98\x80\x7F\xC2\x85";
    const std::string bytes("a\0\x1F\xFF", 4);
    XenVDIRecord message;
    message.SetUuid("0c5c9a80-1d2e-4f00-9b7a-000000000001");
    message.SetName_label(markup);
    message.SetName_description(lines);
    message.SetLocation(letters);
    message.SetSr_guid(bytes);
    message.SetVirtual_size(-9223372036854775807 - 1);
    message.SetManaged(true);
    message.SetOther_config({"key:::>" + markup, "", bytes});
    for (const bool isDocument : {false, true}) {
        std::string text;
        ASSERT_EQ(XmlMsgRet_Success, message.serialize(text, isDocument));
        const CTempDir dir;
        const std::string file = dir.Write("record.xml", text);
        EXPECT_TRUE(Runs("xmllint --nonet --noout " + Quoted(file)));
        const std::pair<const char*, std::string> rows[] = {
            {"/XenVDIRecord/Uuid", message.GetUuid()},
            {"/XenVDIRecord/Name_label", markup},
            {"/XenVDIRecord/Name_description", lines},
            {"/XenVDIRecord/Location", letters},
            {"/XenVDIRecord/Sr_guid", Hexadecimal(bytes)},
            {"/XenVDIRecord/Sr_guid/@encoding", "hex"},
            {"/XenVDIRecord/Virtual_size", "-9223372036854775808"},
            {"/XenVDIRecord/Managed", "true"},
            {"/XenVDIRecord/Missing", "false"},
            {"count(/XenVDIRecord/Other_config/Item)", "3"},
            {"/XenVDIRecord/Other_config/Item[1]", "key:::>" + markup},
            {"/XenVDIRecord/Other_config/Item[2]", ""},
            {"/XenVDIRecord/Other_config/Item[3]", Hexadecimal(bytes)},
            {"count(/XenVDIRecord/Tags/*)", "0"},
            {"count(/XenVDIRecord/*)", "23"},
        };
        for (const auto& [path, value] : rows)
            EXPECT_EQ(value, AtPath(file, path)) << path;
    }
}

// What others make of a record on its way is the same record.
TEST(XenVDIRecordsOfXmllint, AreReadAsItWritesThem) {
    SKIP_WITHOUT_XMLLINT();
    XenVDIRecord message;
    message.SetName_label("<disk> & \"more\" \xC3\xA4\r\n");
    message.SetSr_guid(std::string("\0\xFF", 2));
    message.SetVirtual_size(1234567890123);
    message.SetOther_config({"a:::>b", "c:::>d"});
    message.SetTags({"", "last"});
    std::string text;
    ASSERT_EQ(XmlMsgRet_Success, message.serialize(text, true));
    for (const char* const form : {"", "--format", "--c14n", "--encode US-ASCII", "--noblanks", "--pretty 2"}) {
        const CTempDir dir;
        dir.Write("record.xml", text);
        ASSERT_TRUE(Runs("cd " + Quoted(dir.Path()) + " && xmllint --nonet " + form + " record.xml > other.xml"));
        std::string other = dir.Read("other.xml");
        XenVDIRecord again;
        ASSERT_EQ(XmlMsgRet_Success, again.unserialize(other)) << form << ": " << other;
        std::string textAgain;
        ASSERT_EQ(XmlMsgRet_Success, again.serialize(textAgain, true));
        EXPECT_EQ(text, textAgain) << form;
    }
}

TEST(XenVDIRecordsOfXmllint, TheSameTextsAreXml) {
    SKIP_WITHOUT_XMLLINT();
    const CTempDir dir;
    for (const XmlText_t& row : WellFormedXml())
        EXPECT_TRUE(IsXmlForXmllint(dir, row.text)) << row.name;
    for (const XmlText_t& row : BrokenXml())
        EXPECT_FALSE(IsXmlForXmllint(dir, row.text)) << row.name;
}

}  // namespace
