#include "VirtualServer/VMInfo/XenVDIRecord.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <list>
#include <random>
#include <string>

#include "tests/support/XenRecordXml.h"
#include "tests/support/XmlTexts.h"

namespace {

using VirtualServer::XenVDIRecord;
using Texts_t = std::list<std::string>;

XenVDIRecord SoundMessage() {
    XenVDIRecord message;
    message.SetUuid("0c5c9a80-1d2e-4f00-9b7a-000000000001");
    message.SetName_label("disk one");
    message.SetName_description("what it is for");
    message.SetSr_guid("sr-1");
    message.SetVbdguids({"vbd-1", "vbd-2"});
    message.SetVirtual_size(1048576);
    message.SetPhysical_utilisation(4096);
    message.SetType("2");
    message.SetSharable(true);
    message.SetRead_only(false);
    message.SetOther_config({"colour:::>red", "size:::>large"});
    message.SetStorage_lock(true);
    message.SetLocation("shelf 3");
    message.SetManaged(true);
    message.SetMissing(true);
    message.SetParentvdiguid("parent-1");
    message.SetXenstore_data({"path:::>/local/1"});
    message.SetSm_config({"kind:::>raw"});
    message.SetIs_a_snapshot(true);
    message.SetSnapshot_of_guid("origin-1");
    message.SetSnapshotguids({"snapshot-1"});
    message.SetSnapshot_time("20240229T12:00:00Z");
    message.SetTags({"first", "second"});
    return message;
}

std::string ListText(const Texts_t& texts) {
    std::string text = std::to_string(texts.size());
    for (const std::string& one : texts)
        text += "[" + one + "]";
    return text;
}

std::string FieldsOf(const XenVDIRecord& message) {
    std::string text;
    for (const std::string& field : {message.GetUuid(),
                                     message.GetName_label(),
                                     message.GetName_description(),
                                     message.GetSr_guid(),
                                     ListText(message.GetVbdguids()),
                                     std::to_string(message.GetVirtual_size()),
                                     std::to_string(message.GetPhysical_utilisation()),
                                     message.GetType(),
                                     std::to_string(message.GetSharable()),
                                     std::to_string(message.GetRead_only()),
                                     ListText(message.GetOther_config()),
                                     std::to_string(message.GetStorage_lock()),
                                     message.GetLocation(),
                                     std::to_string(message.GetManaged()),
                                     std::to_string(message.GetMissing()),
                                     message.GetParentvdiguid(),
                                     ListText(message.GetXenstore_data()),
                                     ListText(message.GetSm_config()),
                                     std::to_string(message.GetIs_a_snapshot()),
                                     message.GetSnapshot_of_guid(),
                                     ListText(message.GetSnapshotguids()),
                                     message.GetSnapshot_time(),
                                     ListText(message.GetTags())})
        text += "<" + field + ">\n";
    return text;
}

std::string Serialised(XenVDIRecord message, bool isDocument) {
    std::string text = "replaced";
    EXPECT_EQ(XmlMsgRet_Success, message.serialize(text, isDocument));
    return text;
}

XenVDIRecord Unserialised(std::string text) {
    XenVDIRecord message;
    EXPECT_EQ(XmlMsgRet_Success, message.unserialize(text)) << text;
    return message;
}

eXmlMsgRet ResultOf(std::string text) {
    XenVDIRecord message = SoundMessage();
    const std::string before = FieldsOf(message);
    const std::string textBefore = text;
    const eXmlMsgRet result = message.unserialize(text);
    EXPECT_EQ(textBefore, text);
    if (result != XmlMsgRet_Success) {
        EXPECT_EQ(before, FieldsOf(message)) << "a failure changes nothing";
    }
    return result;
}

TEST(XenVDIRecord, IsEmptyAtFirst) {
    EXPECT_EQ(
        "<>\n<>\n<>\n<>\n<0>\n<0>\n<0>\n<>\n<0>\n<0>\n<0>\n<0>\n<>\n<0>\n<0>\n<>\n<0>\n<0>\n<0>\n<>\n<0>\n<>\n<0>\n",
        FieldsOf(XenVDIRecord()));
}

TEST(XenVDIRecord, IsWrittenAsAnElementOrAsADocument) {
    EXPECT_EQ(CXenRecordXml().Element(), Serialised(SoundMessage(), false));
    EXPECT_EQ(CXenRecordXml().Document(), Serialised(SoundMessage(), true));
}

TEST(XenVDIRecord, EachFieldIsReadFromItsOwnElement) {
    for (const std::string& text : {CXenRecordXml().Element(), CXenRecordXml().Document()})
        EXPECT_EQ(FieldsOf(SoundMessage()), FieldsOf(Unserialised(text)));
}

TEST(XenVDIRecord, AnEmptyListIsAnEmptyElement) {
    CXenRecordXml xml;
    XenVDIRecord message = SoundMessage();
    for (const char* const list : {"Vbdguids", "Other_config", "Xenstore_data", "Sm_config", "Snapshotguids", "Tags"})
        xml.Put(list, "");
    message.SetVbdguids({});
    message.SetOther_config({});
    message.SetXenstore_data({});
    message.SetSm_config({});
    message.SetSnapshotguids({});
    message.SetTags({});
    EXPECT_EQ(xml.Element(), Serialised(message, false));
    EXPECT_EQ(xml.Document(), Serialised(message, true));
    EXPECT_EQ(FieldsOf(message), FieldsOf(Unserialised(xml.Element())));
    EXPECT_EQ(FieldsOf(message), FieldsOf(Unserialised(xml.Document())));
}

TEST(XenVDIRecord, WritesEachTextSoThatItComesBack) {
    const struct {
        const char* name;
        std::string text;
        const char* xml;
    } rows[] = {
        {"nothing", "", "<Location></Location>"},
        {"blanks", " \t\n ", "<Location> \t\n </Location>"},
        {"markup", "<a b=\"1\">&amp;'</a>]]>", "<Location>&lt;a b=\"1\"&gt;&amp;amp;'&lt;/a&gt;]]&gt;</Location>"},
        {"ends of lines", "1\r2\r\n3\n", "<Location>1&#13;2&#13;\n3\n</Location>"},
        {"beyond ASCII", "\xC3\xA4\xE2\x82\xAC\xF0\x9F\x98\x80\x7F",
         "<Location>\xC3\xA4\xE2\x82\xAC\xF0\x9F\x98\x80\x7F</Location>"},
        {"a NUL", std::string("a\0b", 3), "<Location encoding=\"hex\">610062</Location>"},
        {"a control character", "\x1F", "<Location encoding=\"hex\">1f</Location>"},
        {"no UTF-8", "\xFF\xFE", "<Location encoding=\"hex\">fffe</Location>"},
        {"UTF-8 cut short", "a\xE2\x82", "<Location encoding=\"hex\">61e282</Location>"},
        {"half a pair", "\xED\xA0\x80", "<Location encoding=\"hex\">eda080</Location>"},
        {"no character", "\xEF\xBF\xBF", "<Location encoding=\"hex\">efbfbf</Location>"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        XenVDIRecord message;
        message.SetLocation(row.text);
        message.SetTags({row.text, "x", row.text});
        for (const bool isDocument : {false, true}) {
            const std::string text = Serialised(message, isDocument);
            EXPECT_NE(std::string::npos, text.find(row.xml)) << text;
            EXPECT_EQ(row.text, Unserialised(text).GetLocation());
            EXPECT_EQ((Texts_t{row.text, "x", row.text}), Unserialised(text).GetTags());
        }
    }
}

TEST(XenVDIRecord, WritesNumbersUpToTheirEnds) {
    for (const int64_t number : {std::numeric_limits<int64_t>::min(), int64_t{-1}, int64_t{0}, int64_t{1} << 40U,
                                 std::numeric_limits<int64_t>::max()}) {
        XenVDIRecord message;
        message.SetVirtual_size(number);
        message.SetPhysical_utilisation(-(number / 2));
        const XenVDIRecord again = Unserialised(Serialised(message, true));
        EXPECT_EQ(number, again.GetVirtual_size());
        EXPECT_EQ(-(number / 2), again.GetPhysical_utilisation());
    }
}

TEST(XenVDIRecord, AnyMessageComesBackAsItWas) {
    std::mt19937_64 random(7);
    const auto text = [&random] {
        std::string bytes(random() % 20, '\0');
        const uint64_t kind = random() % 3;
        for (char& byte : bytes)
            byte = static_cast<char>(kind == 0 ? random()
                                               : (kind == 1 ? ' ' + random() % 95 : "<>&\r\n\"']"[random() % 8]));
        return bytes;
    };
    const auto list = [&] {
        Texts_t texts(random() % 4);
        for (std::string& one : texts)
            one = text();
        return texts;
    };
    for (int run = 0; run < 500; ++run) {
        XenVDIRecord message;
        message.SetUuid(text());
        message.SetName_label(text());
        message.SetSr_guid(text());
        message.SetVbdguids(list());
        message.SetVirtual_size(static_cast<int64_t>(random()));
        message.SetType(text());
        message.SetSharable(random() % 2 == 0);
        message.SetRead_only(random() % 2 == 0);
        message.SetOther_config(list());
        message.SetSnapshot_time(text());
        message.SetTags(list());
        for (const bool isDocument : {false, true})
            ASSERT_EQ(FieldsOf(message), FieldsOf(Unserialised(Serialised(message, isDocument)))) << run;
    }
}

TEST(XenVDIRecord, ReadingReplacesWhatWasThere) {
    XenVDIRecord message = SoundMessage();
    std::string text = "<XenVDIRecord/>";
    EXPECT_EQ(XmlMsgRet_Success, message.unserialize(text));
    EXPECT_EQ(FieldsOf(XenVDIRecord()), FieldsOf(message)) << "what isn't told is empty";
    for (int turn = 0; turn < 2; ++turn) {
        text = CXenRecordXml().Element();
        EXPECT_EQ(XmlMsgRet_Success, message.unserialize(text));
        EXPECT_EQ(FieldsOf(SoundMessage()), FieldsOf(message)) << "lists don't grow";
    }
}

TEST(XenVDIRecord, ReadsWhatOthersMayHaveMadeOfTheText) {
    const struct {
        const char* name;
        CXenRecordXml xml;
    } rows[] = {
        {"elements of others", CXenRecordXml().Add("<Later><Uuid>x</Uuid>text<Later/></Later><other/>")},
        {"comments", CXenRecordXml().Add("<!-- <Uuid> -->").Put("Type", "<!-- two -->2<!-- -->")},
        {"text as it stands", CXenRecordXml().Put("Location", "sh<![CDATA[elf]]> <![CDATA[3]]>")},
        {"references", CXenRecordXml().Put("Location", "&#115;helf&#x20;3")},
        {"hexadecimal text",
         CXenRecordXml().Without("Location").Add("<Location encoding='hex'>7368656C662033</Location>")},
        {"attributes of others",
         CXenRecordXml().Without("Type").Add("<Type kind='number' xml:space='preserve'>2</Type>")},
        {"blanks around numbers", CXenRecordXml().Put("Virtual_size", "\n 1048576\t").Put("Sharable", " true\r\n")},
        {"zeros before numbers", CXenRecordXml().Put("Virtual_size", "00001048576")},
        {"truth in numbers", CXenRecordXml().Put("Sharable", "1").Put("Read_only", "0")},
        {"blanks in lists", CXenRecordXml().Put("Tags", " <Item>first</Item>\n<!-- --><Item>second</Item>\t")},
        {"elements of others in lists",
         CXenRecordXml().Put("Tags", "<Item>first</Item><Later>x<a/></Later><Item>second</Item>")},
        {"another order", CXenRecordXml().Without("Uuid").Add("<Uuid>0c5c9a80-1d2e-4f00-9b7a-000000000001</Uuid>")},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(FieldsOf(SoundMessage()), FieldsOf(Unserialised(row.xml.Element()))) << row.name;
        EXPECT_EQ(FieldsOf(SoundMessage()), FieldsOf(Unserialised("<?pi?>\n" + row.xml.Element() + "<!-- -->")))
            << row.name;
    }
}

TEST(XenVDIRecord, RefusesValuesThatArentOfTheirKind) {
    const struct {
        const char* name;
        CXenRecordXml xml;
    } rows[] = {
        {"no number", CXenRecordXml().Put("Virtual_size", "")},
        {"a number with a unit", CXenRecordXml().Put("Virtual_size", "1 MiB")},
        {"a number with a plus", CXenRecordXml().Put("Virtual_size", "+1")},
        {"a hexadecimal number", CXenRecordXml().Put("Virtual_size", "0x10")},
        {"a number with a point", CXenRecordXml().Put("Physical_utilisation", "1.0")},
        {"two numbers", CXenRecordXml().Put("Virtual_size", "1 2")},
        {"a number beyond its end", CXenRecordXml().Put("Virtual_size", "9223372036854775808")},
        {"a number before its beginning", CXenRecordXml().Put("Virtual_size", "-9223372036854775809")},
        {"neither true nor false", CXenRecordXml().Put("Sharable", "yes")},
        {"true in upper case", CXenRecordXml().Put("Sharable", "TRUE")},
        {"nothing for true", CXenRecordXml().Put("Missing", "")},
        {"2 for true", CXenRecordXml().Put("Managed", "2")},
        {"an element in a text", CXenRecordXml().Put("Location", "shelf<b/>")},
        {"an element in a number", CXenRecordXml().Put("Virtual_size", "<Item>1</Item>")},
        {"an element in an item", CXenRecordXml().Put("Tags", "<Item><Item/></Item>")},
        {"text in a list", CXenRecordXml().Put("Tags", "<Item>a</Item>b")},
        {"text in the record", CXenRecordXml().Add("x")},
        {"a field that stands twice", CXenRecordXml().Add("<Uuid/>")},
        {"a list that stands twice", CXenRecordXml().Add("<Tags/>")},
        {"another encoding", CXenRecordXml().Without("Uuid").Add("<Uuid encoding='base64'>aaaa</Uuid>")},
        {"an odd digit", CXenRecordXml().Without("Uuid").Add("<Uuid encoding='hex'>414</Uuid>")},
        {"no digits", CXenRecordXml().Without("Uuid").Add("<Uuid encoding='hex'>4g</Uuid>")},
        {"digits with a blank", CXenRecordXml().Without("Uuid").Add("<Uuid encoding='hex'>41 42</Uuid>")},
        {"an item of no digits", CXenRecordXml().Put("Tags", "<Item encoding='hex'>xx</Item>")},
    };
    for (const auto& row : rows)
        EXPECT_EQ(XmlMsgRet_BadValue, ResultOf(row.xml.Element())) << row.name;
}

TEST(XenVDIRecord, RefusesWhatIsNotItsOwnMessage) {
    EXPECT_EQ(XmlMsgRet_OtherMessage, ResultOf("<Other/>"));
    EXPECT_EQ(XmlMsgRet_OtherMessage, ResultOf("<xenvdirecord/>"));
    EXPECT_EQ(XmlMsgRet_OtherMessage, ResultOf("<a>" + CXenRecordXml().Element() + "</a>"));
    EXPECT_EQ(XmlMsgRet_DocumentType, ResultOf("<!DOCTYPE XenVDIRecord>" + CXenRecordXml().Element()));
}

TEST(XenVDIRecord, RefusesBrokenTextsWhateverTheyBreak) {
    for (const XmlText_t& row : BrokenXml()) {
        std::string text = row.text;
        for (const std::string tag : {"<a", "</a"}) {
            for (size_t at = text.find(tag); at != std::string::npos; at = text.find(tag, at + tag.size()))
                text.replace(at + tag.size() - 1, 1, "XenVDIRecord");
        }
        EXPECT_NE(XmlMsgRet_Success, ResultOf(text)) << row.name;
    }
}

TEST(XenVDIRecord, RefusesWhatFollows) {
    EXPECT_EQ(XmlMsgRet_Success, ResultOf(CXenRecordXml().Document() + "<!-- end -->\n"));
    for (const char* const more : {"x", "<a/>", "</XenVDIRecord>", "<", "&#32;"})
        EXPECT_EQ(XmlMsgRet_NotXml, ResultOf(CXenRecordXml().Document() + more)) << more;
    EXPECT_EQ(XmlMsgRet_NotXml, ResultOf(CXenRecordXml().Element() + std::string(1, '\0')));
}

TEST(XenVDIRecord, EveryCutOfAMessageIsRefused) {
    const std::string text = CXenRecordXml().Document();
    for (size_t size = 0; size + 1 < text.size(); ++size)
        EXPECT_EQ(XmlMsgRet_NotXml, ResultOf(text.substr(0, size))) << size;
    EXPECT_EQ(XmlMsgRet_Success, ResultOf(text.substr(0, text.size() - 1))) << "the last line's end alone";
}

TEST(XenVDIRecord, ElementsOfOthersMayLieInsideEachOtherButNotWithoutEnd) {
    std::string inside = "x";
    for (int depth = 2; depth <= 64; ++depth) {
        inside.insert(0, "<a>").append("</a>");
        ASSERT_EQ(XmlMsgRet_Success, ResultOf(CXenRecordXml().Add(inside).Element())) << depth;
    }
    EXPECT_EQ(XmlMsgRet_TooDeep, ResultOf(CXenRecordXml().Add("<a>" + inside + "</a>").Element()));
}

}  // namespace
