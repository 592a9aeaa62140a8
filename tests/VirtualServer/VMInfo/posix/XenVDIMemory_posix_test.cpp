#include <gtest/gtest.h>

#include <cstddef>
#include <string>

#include "VirtualServer/VMInfo/XenVDIDiskReader.h"
#include "tests/support/CharBuffer.h"
#include "tests/support/ErrorAssertions.h"
#include "tests/support/FakeXenHost.h"
#include "tests/support/TempDir.h"
#include "tests/support/XenRecordXml.h"
#include "tests/support/posix/MemoryMeter.h"

// Memory follows the text of a record, and a machine without memory is a failure like others.

namespace {

constexpr size_t Limit = 10000;  // bytes of one allocation

// Small texts that are large together.
void AddTags(xen_vdi_record& record) {
    record.tags.assign(1000, std::string(50, 't'));
}

std::string LargeRecord() {
    CXenRecordXml xml;
    for (int index = 0; index < 2000; ++index)
        xml.Add("<Other/>");
    return xml.Element();
}

class XenVDIMemory : public testing::Test {
protected:
    XenVDIMemory() { m_Reader.SetVMInfo(&m_Host, nullptr, nullptr); }

    CZuError Create(const std::string& xml) {
        CAutoMemory<char> metadata = BufferOf(xml);
        CMemoryMeter meter;
        meter.RefuseAbove(Limit);
        return m_Reader.CreateDisk(m_Name.c_str(), m_Record, true, m_Device, metadata);
    }

    CTempDir m_Dir;
    CFakeXenHost m_Host;
    CXenVDIDiskReader m_Reader;
    xen_vdi_record m_Record;
    std::string m_Device;
    const std::string m_Name = m_Dir.File("disk");
};

TEST_F(XenVDIMemory, WithoutItThereIsNoMetadata) {
    m_Host.onRecord = AddTags;
    CAutoMemory<char> metadata = BufferOf("emptied");
    {
        CMemoryMeter meter;
        meter.RefuseAbove(Limit);
        EXPECT_REFUSED(m_Reader.GetMetadataInfo(metadata), "Failed to serialize VM metadata file list. Code [0x1]");
    }
    EXPECT_EQ(0U, metadata.GetSize());
    EXPECT_OK(m_Reader.GetMetadataInfo(metadata));
}

TEST_F(XenVDIMemory, WithoutItNoRecordIsReadAndNoneIsWritten) {
    EXPECT_REFUSED(Create(LargeRecord()), "Out of memory");
    EXPECT_TRUE(m_Host.questions.empty());
    m_Host.onPrepare = AddTags;
    EXPECT_REFUSED(Create(CXenRecordXml().Element()), "Failed to unserialize new VDI data:");
    EXPECT_EQ(1U, m_Host.questions.size());
    EXPECT_EQ(std::vector<std::string>{SoundXenRecord().uuid + ".origConfig"}, m_Dir.Entries())
        << "what was written stays";
}

TEST_F(XenVDIMemory, WithoutItAMessageSaysSoAndStaysAsItWas) {
    VirtualServer::XenVDIRecord message;
    message.SetUuid("kept");
    std::string text = CXenRecordXml().Put("Location", std::string(2 * Limit, 'x')).Element();
    {
        CMemoryMeter meter;
        meter.RefuseAbove(Limit);
        EXPECT_EQ(XmlMsgRet_OutOfMemory, message.unserialize(text));
    }
    EXPECT_EQ("kept", message.GetUuid());
    message.SetLocation(std::string(2 * Limit, 'x'));
    std::string out = "kept";
    CMemoryMeter meter;
    meter.RefuseAbove(Limit);
    EXPECT_EQ(XmlMsgRet_OutOfMemory, message.serialize(out, true));
    EXPECT_EQ("kept", out);
}

// Each of these is the costliest of its kind.
TEST_F(XenVDIMemory, FollowsTheText) {
    constexpr size_t many = 100000;
    const struct {
        const char* name;
        const char* begin;
        const char* piece;
        const char* end;
    } rows[] = {
        {"items", "<XenVDIRecord><Tags>", "<Item/>", "</Tags></XenVDIRecord>"},
        {"elements inside each other", "<XenVDIRecord>", "<a>", ""},
        {"attributes", "<XenVDIRecord", " a='1'", "/>"},
        {"text", "<XenVDIRecord><Uuid>", "text", "</Uuid></XenVDIRecord>"},
    };
    for (const auto& row : rows) {
        std::string text = row.begin;
        for (size_t index = 0; index < many; ++index)
            text += row.piece;
        text += row.end;
        VirtualServer::XenVDIRecord message;
        const CMemoryMeter meter;
        message.unserialize(text);
        EXPECT_LE(meter.PeakBytes(), 24 * text.size()) << row.name;
    }
}

}  // namespace
