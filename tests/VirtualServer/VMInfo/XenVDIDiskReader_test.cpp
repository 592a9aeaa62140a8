#include "VirtualServer/VMInfo/XenVDIDiskReader.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "tests/support/Bytes.h"
#include "tests/support/CharBuffer.h"
#include "tests/support/DriveOfFile.h"
#include "tests/support/ErrorAssertions.h"
#include "tests/support/FakeXenHost.h"
#include "tests/support/FaultyFiles.h"
#include "tests/support/SameBytes.h"
#include "tests/support/TempDir.h"
#include "tests/support/XenRecordXml.h"

namespace {

constexpr char NotInFormat[] =
    R"(OpenDisk() failed. Not in expected format. Expected format="<VDIGUID>#\\?\PhysicalDriveX")";
constexpr char NothingCreated[] = "Object is in invalid state. Make sure CreateDisk succeeded";
constexpr char Uuid[] = "0c5c9a80-1d2e-4f00-9b7a-000000000001";

using Texts_t = std::vector<std::string>;

// Elements inside each other.
std::string Deep(int depth) {
    std::string text;
    for (int level = 0; level < depth; ++level)
        text.insert(0, "<a>").append("</a>");
    return text;
}

// A reader whose clock is the test's: time passes at once, and is counted.
class CClockedReader final : public CXenVDIDiskReader {
public:
    std::vector<unsigned int> waits;
    std::function<void()> whileWaiting;

protected:
    void WaitForDevice(unsigned int milliseconds) override {
        waits.push_back(milliseconds);
        if (whileWaiting)
            whileWaiting();
    }
};

class XenVDIDiskReader : public testing::Test {
protected:
    XenVDIDiskReader() { m_Reader.SetVMInfo(&m_Host, "first", "second"); }

    std::string Device(uint64_t sectors = 24) {
        m_Bytes = PatternedBytes(sectors * 512);
        return m_Dir.Write("device", m_Bytes);
    }
    void Open() { ASSERT_OK(m_Reader.OpenDisk(("vdi-1#" + Device()).c_str())); }

    // Makes an image whose device is a file of ours.
    CZuError Create(const std::string& xml) {
        m_Host.device = Device();
        CAutoMemory<char> metadata = BufferOf(xml);
        return m_Reader.CreateDisk(m_Dir.File("restored").c_str(), m_Record, true, m_Device, metadata);
    }
    CZuError Write(uint64_t number, unsigned int sectors, const std::string& bytes) {
        CAutoMemory<char> data = BufferOf(bytes);
        return m_Reader.WriteBlock(number, sectors, data);
    }
    std::string Metadata() {
        CAutoMemory<char> metadata = BufferOf("emptied");
        EXPECT_OK(m_Reader.GetMetadataInfo(metadata));
        return BytesOf(metadata);
    }
    // The record that the server is asked with.
    xen_vdi_record Asked(const std::string& question) {
        for (size_t index = 0; index < m_Host.questions.size(); ++index) {
            if (m_Host.questions[index] == question)
                return m_Host.records[index];
        }
        ADD_FAILURE() << "never asked: " << question;
        return {};
    }
    xen_vdi_record AskedRecord() {
        m_Host.questions.clear();
        m_Host.records.clear();
        Metadata();
        return Asked("record");
    }

    CTempDir m_Dir;
    CFakeXenHost m_Host;
    CClockedReader m_Reader;
    xen_vdi_record m_Record;
    std::string m_Device = "as before";
    std::string m_Bytes;
    std::string m_Buffer = std::string(1 << 16, '?');
};

TEST_F(XenVDIDiskReader, IsOpenedByImageAndDevice) {
    const std::string device = Device();
    ASSERT_OK(m_Reader.OpenDisk(("vdi-1#" + device).c_str()));
    EXPECT_EQ(device, m_Reader.getDiskFileName());
    ASSERT_OK(m_Reader.ReadBlock(2, m_Buffer.data(), 8));
    EXPECT_SAME_BYTES(m_Bytes.substr(16 * 512, 8 * 512), m_Buffer.substr(0, 8 * 512));
    EXPECT_EQ("vdi-1", AskedRecord().uuid);
}

TEST_F(XenVDIDiskReader, ANameWithoutNumberSignOpensNothing) {
    const std::string device = Device();
    for (const char* const name : {device.c_str(), "", "vdi-1", static_cast<const char*>(nullptr)}) {
        const CFaultyFiles counting;
        EXPECT_REFUSED(m_Reader.OpenDisk(name), NotInFormat);
        EXPECT_EQ(0U, counting.Calls(FaultOp::Open));
    }
    EXPECT_STREQ("", m_Reader.getDiskFileName());
    EXPECT_EQ("", AskedRecord().uuid);
}

TEST_F(XenVDIDiskReader, TheFirstNumberSignParts) {
    const std::string device = m_Dir.Write("#1#", PatternedBytes(512));
    ASSERT_OK(m_Reader.OpenDisk(("vdi#" + device).c_str()));
    EXPECT_EQ(device, m_Reader.getDiskFileName());
    EXPECT_EQ("vdi", AskedRecord().uuid);
    CClockedReader nameless;
    nameless.SetVMInfo(&m_Host, nullptr, nullptr);
    EXPECT_OK(nameless.OpenDisk(("#" + device).c_str()));
    EXPECT_EQ(device, nameless.getDiskFileName());
}

TEST_F(XenVDIDiskReader, PassesOnWhatTheDeviceSaysAndKeepsTheIdentifier) {
    EXPECT_SYSTEM_ERROR(m_Reader.OpenDisk(("vdi-2#" + m_Dir.File("none")).c_str()), ENOENT);
    EXPECT_EQ("vdi-2", AskedRecord().uuid);
    Open();
    EXPECT_REFUSED(m_Reader.OpenDisk("vdi-3#x"), "Object already have an open disk.");
    EXPECT_OK(m_Reader.CloseDisk());
    EXPECT_FAILURE(m_Reader.OpenDisk("vdi-4#"));
}

TEST_F(XenVDIDiskReader, ADriveHasASizeAndAnEnd) {
    const std::string device = Device(20);
    SKIP_UNLESS_A_FILE_CAN_BE_A_DRIVE(device);
    ASSERT_OK(m_Reader.OpenDisk(("vdi-1#" + DriveOfFile(device)).c_str()));
    EXPECT_EQ(20U * 512, m_Reader.GetDiskSize());
    const CZuError error = m_Reader.ReadBlock(5, m_Buffer.data(), 4);
    EXPECT_CONDITION(error, 3, 8001, 1);
    EXPECT_EQ(1, m_Reader.IsErrorEOF(error));
}

TEST_F(XenVDIDiskReader, ItsOperationsAreThoseOfARawDisk) {
    CPhysicalDiskReader& disk = m_Reader;
    EXPECT_REFUSED(disk.OpenDisk("no number sign"), NotInFormat);
    const std::string device = Device();
    ASSERT_OK(disk.CreateDisk(device.c_str())) << "a target by its device alone";
    EXPECT_OK(disk.SetDiskSize(24 * 512));
    CAutoMemory<char> data = BufferOf("new");
    EXPECT_OK(disk.WriteBlock(1, 8, data));
    EXPECT_OK(disk.CloseDisk());
    const CFaultyFiles faulty(Fault_t{FaultOp::Write, 0, 2});
    ASSERT_OK(disk.CreateDisk(device.c_str()));
    EXPECT_OK(disk.WriteBlock(1, 8, data));
    EXPECT_EQ(1U, m_Reader.waits.size()) << "through the same slot";
}

TEST_F(XenVDIDiskReader, ItsBlockSizeIs512SectorsUntilSet) {
    EXPECT_EQ(512U, m_Reader.GetBlockSize());
    m_Reader.SetBlockSize(128);
    Open();
    EXPECT_EQ(128U, m_Reader.GetBlockSize());
    m_Reader.SetBlockSize(0);
    EXPECT_EQ(0U, m_Reader.GetBlockSize());
}

TEST_F(XenVDIDiskReader, TheMetadataIsTheRecordThatTheServerTells) {
    m_Host.onRecord = [](xen_vdi_record& record) { record = SoundXenRecord(); };
    Open();
    EXPECT_EQ(CXenRecordXml().Document(), Metadata()) << "without a terminator";
    EXPECT_EQ((Texts_t{"record"}), m_Host.questions);
    EXPECT_EQ("vdi-1", m_Host.records[0].uuid);
    Metadata();
    EXPECT_EQ(XenRecordText(SoundXenRecord()), XenRecordText(m_Host.records[1])) << "the reader keeps the record";
}

TEST_F(XenVDIDiskReader, EmptyMapsAndListsAreEmptyInTheMetadata) {
    m_Host.onRecord = [](xen_vdi_record& record) {
        record = SoundXenRecord();
        record.other_config.clear();
        record.sm_config.clear();
        record.xenstore_data.clear();
        record.tags.clear();
    };
    EXPECT_EQ(CXenRecordXml()
                  .Put("Other_config", "")
                  .Put("Sm_config", "")
                  .Put("Xenstore_data", "")
                  .Put("Tags", "")
                  .Document(),
              Metadata());
}

TEST_F(XenVDIDiskReader, TheTypeIsToldInDecimal) {
    for (const int type : {0, 7, -1, 2147483647}) {
        m_Host.onRecord = [type](xen_vdi_record& record) { record.type = type; };
        EXPECT_NE(std::string::npos, Metadata().find("<Type>" + std::to_string(type) + "</Type>")) << type;
    }
}

TEST_F(XenVDIDiskReader, WithoutTheServersRecordThereIsNoMetadata) {
    for (const int answer : {1, -1, 404}) {
        m_Host.recordAnswer = answer;
        CAutoMemory<char> metadata = BufferOf("emptied");
        EXPECT_REFUSED(m_Reader.GetMetadataInfo(metadata), "VDI ");
        EXPECT_EQ(0U, metadata.GetSize());
    }
    CXenVDIDiskReader alone;
    CAutoMemory<char> metadata = BufferOf("emptied");
    EXPECT_REFUSED(alone.GetMetadataInfo(metadata), "VDI ") << "nor without a server";
    EXPECT_EQ(0U, metadata.GetSize());
}

TEST_F(XenVDIDiskReader, TheDataStoreEndsAtCharacter18) {
    const struct {
        const char* name;
        const char* text;
        const char* repository;
    } rows[] = {
        {"all of it", "store", "store"},
        {"up to it", "store\x12user\x12more", "store"},
        {"nothing before it", "\x12user", ""},
        {"nothing behind it", "store\x12", "store"},
        {"none", "", ""},
        {"null", nullptr, ""},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        CFakeXenHost host;
        CXenVDIDiskReader reader;
        reader.SetVMInfo(&host, nullptr, nullptr);
        reader.SetDataStore(row.text);
        host.prepareAnswer = 1;
        CAutoMemory<char> metadata = BufferOf(CXenRecordXml().Element());
        EXPECT_FAILURE(reader.CreateDisk(m_Dir.File("x").c_str(), m_Record, false, m_Device, metadata));
        EXPECT_EQ(row.repository, host.records.at(0).sr_guid) << "not that of the old image";
    }
}

TEST_F(XenVDIDiskReader, TheRecordGetsTheDataStoreAtOnceWhereACharacter18EndsIt) {
    m_Reader.SetDataStore("one\x12user");
    EXPECT_EQ("one", AskedRecord().sr_guid);
    m_Reader.SetDataStore("two");
    EXPECT_EQ("one", AskedRecord().sr_guid);
    Open();
    EXPECT_EQ("", AskedRecord().sr_guid) << "an open image has the repository that the server tells";
}

TEST_F(XenVDIDiskReader, ANewImageIsAskedForAsTheOldOneWas) {
    m_Reader.SetDataStore("store");
    ASSERT_OK(Create(CXenRecordXml().Document()));
    xen_vdi_record expected = SoundXenRecord();
    expected.uuid.clear();
    expected.sr_guid = "store";
    expected.vbd_guids.clear();
    expected.physical_utilisation = 0;
    expected.missing = false;
    expected.parent_vdi_guid.clear();
    expected.is_a_snapshot = false;
    expected.snapshot_of_guid.clear();
    expected.snapshot_guids.clear();
    expected.snapshot_time.clear();
    EXPECT_EQ((Texts_t{"prepare", "create"}), m_Host.questions);
    EXPECT_EQ(XenRecordText(expected), XenRecordText(m_Host.records[0]));
    EXPECT_EQ(XenRecordText(expected), XenRecordText(m_Host.records[1]));
    EXPECT_EQ(XenRecordText(expected), XenRecordText(m_Record)) << "the caller's copy";
    EXPECT_EQ("", m_Host.createText);
    EXPECT_EQ(m_Dir.File("device"), m_Device);
}

TEST_F(XenVDIDiskReader, ANewImageIsOpenForBoth) {
    ASSERT_OK(Create(CXenRecordXml().Document()));
    EXPECT_EQ(m_Dir.File("device"), m_Reader.getDiskFileName());
    EXPECT_EQ(1048576U, m_Reader.GetDiskSize()) << "the record's size";
    EXPECT_OK(Write(1, 8, std::string(8 * 512, 'x')));
    PutBytes(m_Bytes, 8 * 512, std::string(8 * 512, 'x'));
    EXPECT_SAME_BYTES(m_Bytes, m_Dir.Read("device"));
    ASSERT_OK(m_Reader.ReadBlock(0, m_Buffer.data(), 24));
    EXPECT_SAME_BYTES(m_Bytes, m_Buffer.substr(0, 24 * 512));
    EXPECT_CONDITION(m_Reader.ReadBlock(2048, m_Buffer.data(), 1), 3, 8001, 1);
}

TEST_F(XenVDIDiskReader, TheSizeIsSetThroughItsSlotBeforeTheServerIsAsked) {
    class CSized final : public CXenVDIDiskReader {
    public:
        CZuError SetDiskSize(uint64_t size) override {
            sizes.push_back(size);
            CZuError error;
            if (size == 7)
                error.SetError(4, 1, 0, "no such size", __FILE__, __LINE__);
            return error;
        }
        std::vector<uint64_t> sizes;
    };
    CSized reader;
    reader.SetVMInfo(&m_Host, nullptr, nullptr);
    m_Host.prepareAnswer = 1;
    CAutoMemory<char> metadata = BufferOf(CXenRecordXml().Element());
    EXPECT_REFUSED(reader.CreateDisk(m_Dir.File("x").c_str(), m_Record, true, m_Device, metadata),
                   "VMInfo::CreateVDI() failed with error 1");
    metadata = BufferOf(CXenRecordXml().Put("Virtual_size", "7").Put("Uuid", "other").Element());
    EXPECT_REFUSED(reader.CreateDisk(m_Dir.File("x").c_str(), m_Record, true, m_Device, metadata), "no such size");
    EXPECT_EQ((std::vector<uint64_t>{1048576, 7}), reader.sizes);
    EXPECT_EQ(Texts_t{"prepare"}, m_Host.questions);
    EXPECT_EQ((Texts_t{std::string(Uuid) + ".newConfig", std::string(Uuid) + ".origConfig"}), m_Dir.Entries());
}

TEST_F(XenVDIDiskReader, TheRecordAsItCameAndAsItIsAskedForStayBehindAsFiles) {
    m_Host.onPrepare = [](xen_vdi_record& record) { record.location = "put right by the host"; };
    m_Host.onCreate = [](xen_vdi_record& record) { record.location = "too late"; };
    const std::string original = CXenRecordXml().Add("<!-- as it stands -->").Element() + "\n";
    ASSERT_OK(Create(original));
    EXPECT_EQ((Texts_t{std::string(Uuid) + ".newConfig", std::string(Uuid) + ".origConfig", "device"}),
              m_Dir.Entries());
    EXPECT_EQ(original, m_Dir.Read(std::string(Uuid) + ".origConfig"));
    CXenRecordXml asked;
    for (const char* const emptied :
         {"Uuid", "Sr_guid", "Vbdguids", "Parentvdiguid", "Snapshot_of_guid", "Snapshotguids", "Snapshot_time"})
        asked.Put(emptied, "");
    asked.Put("Physical_utilisation", "0").Put("Missing", "false").Put("Is_a_snapshot", "false");
    asked.Put("Location", "put right by the host");
    EXPECT_EQ(asked.Document(), m_Dir.Read(std::string(Uuid) + ".newConfig"));
    EXPECT_EQ("put right by the host", m_Record.location) << "copied before the image is made";
}

TEST_F(XenVDIDiskReader, TheFilesLieInTheDirectoryOfTheName) {
    for (const char* const separator : {"/", "\\"}) {
        m_Host.prepareAnswer = 1;
        CAutoMemory<char> metadata = BufferOf(CXenRecordXml().Put("Uuid", "vdi").Element());
        const std::string name = m_Dir.Path() + separator + "disk";
        EXPECT_FAILURE(m_Reader.CreateDisk(name.c_str(), m_Record, true, m_Device, metadata));
        EXPECT_EQ((Texts_t{"vdi.newConfig", "vdi.origConfig"}), m_Dir.Entries()) << separator;
        for (const char* const file : {"vdi.newConfig", "vdi.origConfig"})
            EXPECT_EQ(0, std::remove(m_Dir.File(file).c_str()));
    }
}

TEST_F(XenVDIDiskReader, FilesOfAnEarlierTryAreReplaced) {
    m_Dir.Write(std::string(Uuid) + ".origConfig", std::string(10000, 'o'));
    m_Dir.Write(std::string(Uuid) + ".newConfig", std::string(10000, 'n'));
    ASSERT_OK(Create(CXenRecordXml().Document()));
    EXPECT_EQ(CXenRecordXml().Document(), m_Dir.Read(std::string(Uuid) + ".origConfig"));
    EXPECT_EQ('\n', m_Dir.Read(std::string(Uuid) + ".newConfig").back());
    EXPECT_OK(m_Reader.CloseDisk());
    ASSERT_OK(Create(CXenRecordXml().Element())) << "files of the first run don't stand in the way";
    EXPECT_EQ(CXenRecordXml().Element(), m_Dir.Read(std::string(Uuid) + ".origConfig"));
}

// They are for people; what counts is the disk.
TEST_F(XenVDIDiskReader, ADiskIsMadeAlsoWhereTheFilesCanNotBe) {
    CAutoMemory<char> metadata = BufferOf(CXenRecordXml().Element());
    m_Host.device = Device();
    EXPECT_OK(m_Reader.CreateDisk(m_Dir.File("none/disk").c_str(), m_Record, true, m_Device, metadata));
    EXPECT_OK(m_Reader.CloseDisk());
    const struct {
        FaultOp op;
        unsigned int calls;  // that the files take
    } rows[] = {{FaultOp::Open, 2}, {FaultOp::Seek, 2}, {FaultOp::Write, 2}, {FaultOp::Close, 2}};
    for (const auto& row : rows) {
        for (unsigned int failAt = 0; failAt < row.calls; ++failAt) {
            const CFaultyFiles faulty(Fault_t{row.op, failAt, EIO});
            EXPECT_OK(m_Reader.CreateDisk(m_Dir.File("disk").c_str(), m_Record, true, m_Device, metadata));
            EXPECT_TRUE(faulty.Fired());
            EXPECT_OK(m_Reader.CloseDisk());
        }
    }
    const CFaultyFiles faulty(Fault_t{FaultOp::Open, 2, EACCES});
    EXPECT_SYSTEM_ERROR(m_Reader.CreateDisk(m_Dir.File("disk").c_str(), m_Record, true, m_Device, metadata), EACCES)
        << "the device";
}

TEST_F(XenVDIDiskReader, WhatTheServerRefusesIsTold) {
    for (const int answer : {1, -7, 87}) {
        const std::string text = "VMInfo::CreateVDI() failed with error " + std::to_string(answer);
        m_Record.location = "as before";
        m_Host.questions.clear();
        m_Host.prepareAnswer = answer;
        m_Host.createAnswer = 0;
        EXPECT_REFUSED(Create(CXenRecordXml().Element()), text.c_str());
        EXPECT_EQ(Texts_t{"prepare"}, m_Host.questions) << "no image is made";
        EXPECT_EQ("as before", m_Record.location);
        EXPECT_EQ(3U, m_Dir.Entries().size()) << "both files are there";

        m_Host.prepareAnswer = 0;
        m_Host.createAnswer = answer;
        EXPECT_REFUSED(Create(CXenRecordXml().Element()), text.c_str());
        EXPECT_EQ((Texts_t{"prepare", "prepare", "create"}), m_Host.questions);
        EXPECT_EQ("shelf 3", m_Record.location);
        EXPECT_EQ("as before", m_Device);
        EXPECT_REFUSED(Write(0, 1, "x"), NothingCreated);
    }
    CXenVDIDiskReader alone;
    CAutoMemory<char> metadata = BufferOf(CXenRecordXml().Element());
    EXPECT_REFUSED(alone.CreateDisk(m_Dir.File("x").c_str(), m_Record, true, m_Device, metadata),
                   "VMInfo::CreateVDI() failed with error -1")
        << "and without a server";
}

TEST_F(XenVDIDiskReader, ADeviceThatDoesNotOpenIsTold) {
    CAutoMemory<char> metadata = BufferOf(CXenRecordXml().Element());
    m_Host.device = m_Dir.File("none");
    EXPECT_SYSTEM_ERROR(m_Reader.CreateDisk(m_Dir.File("x").c_str(), m_Record, true, m_Device, metadata), ENOENT);
    EXPECT_EQ(m_Host.device, m_Device);
    Open();
    m_Host.device = m_Dir.File("device");
    EXPECT_REFUSED(m_Reader.CreateDisk(m_Dir.File("x").c_str(), m_Record, true, m_Device, metadata),
                   "Object already have an open disk.");
}

TEST_F(XenVDIDiskReader, MetadataThatIsNoRecordAsksNobody) {
    const struct {
        const char* name;
        std::string metadata;
        const char* code;
    } rows[] = {
        {"nothing", "", "2"},
        {"no XML", "VDVWFT1000000020", "2"},
        {"a document type", "<!DOCTYPE a><a/>", "3"},
        {"deep elements", CXenRecordXml().Put("Tags", Deep(70)).Element(), "4"},
        {"another message", "<Other/>", "5"},
        {"another kind of value", CXenRecordXml().Put("Virtual_size", "large").Element(), "6"},
        {"a parent directory", CXenRecordXml().Put("Uuid", "..").Element(), "6"},
        {"a name above", CXenRecordXml().Put("Uuid", "../vdi").Element(), "6"},
        {"a name above, by backslashes", CXenRecordXml().Put("Uuid", "..\\vdi").Element(), "6"},
        {"a directory", CXenRecordXml().Put("Uuid", "etc/vdi").Element(), "6"},
        {"a directory, by a backslash", CXenRecordXml().Put("Uuid", "etc\\vdi").Element(), "6"},
        {"two full stops inside", CXenRecordXml().Put("Uuid", "a..b").Element(), "6"},
        {"a NUL", CXenRecordXml().Without("Uuid").Add("<Uuid encoding='hex'>610062</Uuid>").Element(), "6"},
        {"a record cut by a NUL", CXenRecordXml().Element().insert(40, 1, '\0'), "2"},
    };
    for (const auto& row : rows) {
        EXPECT_REFUSED(Create(row.metadata),
                       (std::string("Failed to unserialize VM metadata file list. Code [0x") + row.code + "]").c_str())
            << row.name;
        EXPECT_EQ(Texts_t{"device"}, m_Dir.Entries()) << row.name;
    }
    EXPECT_TRUE(m_Host.questions.empty());
    EXPECT_EQ(XenRecordText(xen_vdi_record()), XenRecordText(m_Record));
}

TEST_F(XenVDIDiskReader, AnyOtherIdentifierIsAFilesName) {
    for (const char* const uuid : {"a.b", "{00000000-0000-0000-0000-000000000000}", "", " ", "#"}) {
        ASSERT_OK(Create(CXenRecordXml().Put("Uuid", uuid).Element()));
        EXPECT_FALSE(m_Dir.Read(std::string(uuid) + ".origConfig").empty());
        EXPECT_FALSE(m_Dir.Read(std::string(uuid) + ".newConfig").empty());
        EXPECT_OK(m_Reader.CloseDisk());
    }
}

TEST_F(XenVDIDiskReader, ATerminatorEndsTheMetadata) {
    EXPECT_OK(Create(CXenRecordXml().Element() + '\0' + "behind it"));
    EXPECT_EQ(CXenRecordXml().Element(), m_Dir.Read(std::string(Uuid) + ".origConfig"));
}

TEST_F(XenVDIDiskReader, MapsArePartedAtTheFirstSeparator) {
    const std::string items = CXenRecordXml::Items({"a:::&gt;b:::&gt;c", ":::&gt;no key", "no value:::&gt;", "alone",
                                                    "::&gt;x", "twice:::&gt;1", "twice:::&gt;2", ""});
    ASSERT_OK(
        Create(CXenRecordXml().Put("Other_config", items).Put("Xenstore_data", "").Put("Sm_config", items).Element()));
    const std::map<std::string, std::string> expected = {{"", ""},      {"::>x", ""},     {"a", "b:::>c"},
                                                         {"alone", ""}, {"no value", ""}, {"twice", "2"}};
    EXPECT_EQ(expected, m_Record.other_config);
    EXPECT_EQ(expected, m_Record.sm_config);
    EXPECT_TRUE(m_Record.xenstore_data.empty());
}

TEST_F(XenVDIDiskReader, TheTypeIsTheNumberAtTheBeginningOfItsText) {
    const struct {
        const char* text;
        int type;
    } rows[] = {{"2", 2},
                {"", 0},
                {"user", 0},
                {"7 of 9", 7},
                {" \n12", 12},
                {"-3", -3},
                {"+4", 4},
                {"0x5", 0},
                {"2147483647", 2147483647},
                {"99999999999999999999", 2147483647},
                {"-99999999999999999999", -2147483647 - 1},
                {"4294967297", 2147483647}};
    for (const auto& row : rows) {
        ASSERT_OK(Create(CXenRecordXml().Put("Type", row.text).Element()));
        EXPECT_EQ(row.type, m_Record.type) << row.text;
        EXPECT_OK(m_Reader.CloseDisk());
    }
}

TEST_F(XenVDIDiskReader, SizesWithASignAreJustNumbers) {
    ASSERT_OK(Create(CXenRecordXml().Put("Virtual_size", "-1").Element()));
    EXPECT_EQ(-1, m_Record.virtual_size);
    EXPECT_EQ(~uint64_t{0}, m_Reader.GetDiskSize());
}

TEST_F(XenVDIDiskReader, WhatIsBackedUpIsRestored) {
    m_Host.onRecord = [](xen_vdi_record& record) { record = SoundXenRecord(); };
    m_Host.onPrepare = [](xen_vdi_record& record) { record.uuid = "given by the host"; };
    m_Reader.SetDataStore("sr-1");
    const std::string metadata = Metadata();
    ASSERT_OK(Create(metadata));
    EXPECT_EQ(SoundXenRecord().name_label, m_Record.name_label);
    EXPECT_EQ(SoundXenRecord().other_config, m_Record.other_config);
    EXPECT_EQ(SoundXenRecord().tags, m_Record.tags);
    EXPECT_EQ("given by the host", m_Record.uuid);
    EXPECT_EQ(metadata, m_Dir.Read(std::string(Uuid) + ".origConfig"));
}

// Every write fails with `error` as often as it is told.
class CFailingWrites final : public CFaultyFiles {
public:
    CFailingWrites(int error, unsigned int times) : m_Error(error), m_TimesLeft(times) {}
    int Write(int fd, const void* buffer, uint32_t size, uint32_t& put) override {
        ++tries;
        if (m_TimesLeft == 0)
            return CFaultyFiles::Write(fd, buffer, size, put);
        --m_TimesLeft;
        return m_Error;
    }
    unsigned int tries = 0;

private:
    const int m_Error;
    unsigned int m_TimesLeft;
};

class XenVDIDiskReaderWrite : public XenVDIDiskReader {
protected:
    void SetUp() override { ASSERT_OK(m_Reader.CreateDisk(Device().c_str())); }
};

TEST_F(XenVDIDiskReaderWrite, TriesAgainUntilTheDeviceIsReady) {
    for (const int code : {2, 21}) {
        for (const unsigned int failures : {0U, 1U, 2U, 29U}) {
            SCOPED_TRACE(failures);
            m_Reader.waits.clear();
            CFailingWrites files(code, failures);
            EXPECT_OK(Write(2, 4, std::string(4 * 512, 'y')));
            EXPECT_EQ(failures + 1, files.tries);
            EXPECT_EQ(std::vector<unsigned int>(failures, 2000), m_Reader.waits);
        }
    }
    PutBytes(m_Bytes, 2 * 4 * 512, std::string(4 * 512, 'y'));
    EXPECT_SAME_BYTES(m_Bytes, m_Dir.Read("device"));
}

TEST_F(XenVDIDiskReaderWrite, GivesUpAfterThirtyTriesAndAMinute) {
    for (const int code : {2, 21}) {
        for (const unsigned int failures : {30U, 31U, 1000U}) {
            m_Reader.waits.clear();
            CFailingWrites files(code, failures);
            EXPECT_SYSTEM_ERROR(Write(2, 4, "x"), code);
            EXPECT_EQ(30U, files.tries);
            EXPECT_EQ(std::vector<unsigned int>(30, 2000), m_Reader.waits);
        }
    }
    EXPECT_SAME_BYTES(m_Bytes, m_Dir.Read("device"));
}

TEST_F(XenVDIDiskReaderWrite, AnyOtherErrorEndsItAtOnce) {
    for (const int code : {1, 3, 5, 20, 22, 28, 30, 258, 277}) {
        CFailingWrites files(code, 1000);
        EXPECT_SYSTEM_ERROR(Write(2, 4, "x"), code);
        EXPECT_EQ(1U, files.tries);
    }
    EXPECT_REFUSED(Write(0, 1, std::string(513, 'x')), "Data size is greater than grain size");
    EXPECT_CONDITION(Write(uint64_t{1} << 55U, 1, "x"), 3, 8001, 1);
    EXPECT_OK(m_Reader.CloseDisk());
    EXPECT_REFUSED(Write(0, 1, "x"), NothingCreated);
    EXPECT_TRUE(m_Reader.waits.empty());
}

TEST_F(XenVDIDiskReaderWrite, ALaterErrorOfAnotherKindEndsTheTries) {
    CFailingWrites soon(21, 2);
    const CFaultyFiles seeks(Fault_t{FaultOp::Seek, 2, EIO});
    EXPECT_SYSTEM_ERROR(Write(2, 4, "x"), EIO);
    EXPECT_EQ(2U, m_Reader.waits.size());
}

TEST_F(XenVDIDiskReaderWrite, WaitsBehindEachTry) {
    CFailingWrites files(21, 3);
    std::vector<unsigned int> triesAtWait;
    m_Reader.whileWaiting = [&] { triesAtWait.push_back(files.tries); };
    EXPECT_OK(Write(2, 4, "x"));
    EXPECT_EQ((std::vector<unsigned int>{1, 2, 3}), triesAtWait);
}

TEST_F(XenVDIDiskReaderWrite, ACopyHasTheSameServerAndDevice) {
    CXenVDIDiskReader copy = m_Reader;
    CAutoMemory<char> data = BufferOf("copied");
    EXPECT_OK(copy.WriteBlock(0, 1, data));
    EXPECT_EQ("copied", m_Dir.Read("device").substr(0, 6));
    CAutoMemory<char> metadata;
    EXPECT_OK(copy.GetMetadataInfo(metadata));
}

// The clock of the machine, as far as a test may wait for it.
TEST(XenVDIDiskReaderClock, TheWaitTakesItsTime) {
    class CWaiting final : public CXenVDIDiskReader {
    public:
        void Wait(unsigned int milliseconds) { WaitForDevice(milliseconds); }
    };
    const auto begin = std::chrono::steady_clock::now();
    CWaiting().Wait(30);
    EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(30));
}

}  // namespace
