#include "agent/detail/CatalogScan.h"

#include <cinttypes>
#include <cstdio>
#include <string>
#include <vector>

#include "tests/agent/CatalogFiles.h"
#include "tests/agent/SetSurgery.h"

namespace {

using FileRecord = CNtfsFileRecordBuilder;
using Volume = CNtfsVolumeBuilder;

constexpr uint64_t UnixStart = 116444736000000000;
constexpr uint64_t Second = 10'000'000;

FileRecord Folder(const std::u16string& name, uint64_t parent = NtfsReference(5)) {
    return FileRecord().Directory().Add(NtfsInformationOf()).Add(NtfsNameOf(name, parent));
}

// A record without an end of its attributes.
FileRecord Broken() {
    return FileRecord().EndMarker(std::string(4, '\x01'));
}

class CatalogScan : public CCatalogFilesTest {
protected:
    void Scan(const Volume& volume, bool keepsAllNames = false, uint32_t room = 1U << 20U) {
        OpenSet(volume);
        ASSERT_OK(m_Mapped.Open(*m_Set, *m_Set->Find("Volume1")));
        m_Scan = std::make_unique<CCatalogScan>(m_Mapped, m_ReuseCounts);
        if (keepsAllNames)
            m_Scan->KeepAllNames();
        m_Directories.clear();
        std::string buffer(room, '\0');
        for (uint32_t got = 1; got != 0;) {
            ASSERT_OK(m_Scan->Read(buffer.data(), room, got));
            ASSERT_LE(got, room);
            m_Directories.append(buffer, 0, got);
        }
    }

    // "parent name" of each name that the scan keeps, an asterisk behind further ones.
    Texts_t Names() const {
        Texts_t names;
        for (const SetEntry_t& entry : m_Scan->Names())
            names.push_back(std::to_string(entry.parent) + " " + entry.name + (entry.isFurtherName ? "*" : ""));
        return names;
    }

    // What the bytes of the directory structure file say behind the signature.
    std::string Records() const { return m_Directories.substr(12); }

    CNtfsMappedVolume m_Mapped;
    std::vector<uint16_t> m_ReuseCounts;
    std::unique_ptr<CCatalogScan> m_Scan;
    std::string m_Directories;
};

TEST_F(CatalogScan, WritesTheDirectoryStructureByteForByte) {
    NtfsStandardInformationFields_t times;
    times.modification = UnixStart + 0x1234 * Second + 5;
    const Volume volume = Volume()
                              .Record(40, FileRecord()
                                              .Add(NtfsInformationOf(times))
                                              .Add(NtfsNameOf(u"é", NtfsReference(41)))
                                              .Add(NtfsNameOf(u"E", NtfsReference(41), 2))
                                              .Add(NtfsNameOf(u"link", NtfsReference(5), 0))
                                              .Add(NtfsDataOf(std::string(300, 'x'))))
                              .Record(41, Folder(u"folder"));
    const std::string times0 = "49ef6f00";  // of the start of 1601, 32 bits of it
    Scan(volume);
    EXPECT_EQ("f29 28 12c 1234 2|é"
              "F5 28 12c 1234 4|link"
              "d5 29 0 " +
                  times0 + " 6|folder",
              Records());
    const std::string whole = m_Directories;
    Scan(volume, false, 7);
    EXPECT_EQ(whole, m_Directories);
}

TEST_F(CatalogScan, KeepsTheNamesThatATreeOfOneNameForEachFileHasNot) {
    const Volume volume = Volume()
                              .Record(40, NtfsNamedFile(u"first").Add(NtfsNameOf(u"second")))
                              .Record(41, NtfsNamedFile(std::u16string(u"half\xD800") + u"pair"))
                              .Record(42, NtfsNamedFile(std::u16string(u"zero\0in", 7)))
                              .Record(43, NtfsNamedFile(u"whole\U0001F600"))
                              .Record(44, NtfsNamedFile(std::u16string(u"low\xDC00")));
    Scan(volume);
    EXPECT_EQ((Texts_t{"5 second*", "5 half\xED\xA0\x80pair", std::string("5 zero\0in", 9), "5 low\xED\xB0\x80"}),
              Names());
    EXPECT_TRUE(m_Scan->Find(43)->isAsInTree);
    EXPECT_FALSE(m_Scan->Find(41)->isAsInTree);
    Scan(volume, true);
    EXPECT_EQ((Texts_t{"5 first", "5 second*", "5 half\xED\xA0\x80pair", std::string("5 zero\0in", 9),
                       "5 whole\xF0\x9F\x98\x80", "5 low\xED\xB0\x80"}),
              Names());
}

TEST_F(CatalogScan, TakesTheLongNameAndLeavesShortOnesOut) {
    const struct {
        const char* name;
        std::vector<uint8_t> kinds;
        Texts_t names;
    } rows[] = {
        {"long and short", {1, 2}, {"5 name0"}},
        {"short and long", {2, 1}, {"5 name1"}},
        {"both in one", {3}, {"5 name0"}},
        {"short alone", {2}, {"5 name0"}},
        {"POSIX and short", {0, 2}, {"5 name1", "5 name0*"}},
        {"two of POSIX", {0, 0}, {"5 name0", "5 name1*"}},
        {"POSIX and long", {0, 1}, {"5 name1", "5 name0*"}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        FileRecord file;
        file.Add(NtfsInformationOf());
        for (size_t index = 0; index < row.kinds.size(); ++index)
            file.Add(NtfsNameOf(u"name" + std::u16string(1, static_cast<char16_t>(u'0' + index)), NtfsReference(5),
                                row.kinds[index]));
        Scan(Volume().Record(40, file), true);
        Texts_t names = Names();
        std::sort(names.begin(), names.end(), [](const std::string& left, const std::string& right) {
            return (left.back() == '*') < (right.back() == '*');
        });
        EXPECT_EQ(row.names, names);
    }
}

TEST_F(CatalogScan, TellsWhatTheRecordsTell) {
    NtfsStandardInformationFields_t fields;
    fields.creation = 1;
    fields.modification = uint64_t{1} << 63U;  // no time that can be
    fields.recordChange = 3;
    fields.access = INT64_MAX;
    fields.attributes = 0x23;
    Scan(Volume().Record(40, FileRecord()
                                 .Add(NtfsInformationOf(fields))
                                 .Add(NtfsNameOf(u"name"))
                                 .Add(NtfsNameOf(u"NAME", NtfsReference(5), 2))
                                 .Add(NtfsDataOf("12345"))
                                 .Add(NtfsReparsePointOf(0xA0000003))));
    const CatalogFile_t* const file = m_Scan->Find(40);
    ASSERT_NE(nullptr, file);
    EXPECT_EQ(5U, file->bytes);
    EXPECT_EQ(1U, file->created);
    EXPECT_EQ(0U, file->modified);
    EXPECT_EQ(3U, file->recordChanged);
    EXPECT_EQ(uint64_t{INT64_MAX}, file->accessed);
    EXPECT_EQ(0x23U, file->attributes);
    EXPECT_EQ(0xA0000003U, file->reparseTag);
    EXPECT_EQ(1U, file->links);
    EXPECT_FALSE(file->isDirectory);
    EXPECT_EQ(nullptr, m_Scan->Find(41));
    EXPECT_EQ(nullptr, m_Scan->Find(39));
    const SetEntry_t entry = file->EntryWith(7, "a name", true);
    EXPECT_EQ(7U, entry.parent);
    EXPECT_EQ(40U, entry.frn);
    EXPECT_EQ(5U, entry.bytes);
    EXPECT_EQ(3U, entry.recordChanged);
    EXPECT_EQ(0x23U, entry.attributes);
    EXPECT_EQ(0xA0000003U, entry.reparseTag);
    EXPECT_TRUE(entry.isFurtherName);
    EXPECT_EQ("a name", entry.name);
}

TEST_F(CatalogScan, LeavesOutWhatIsNoFileOfTheUsers) {
    Scan(Volume()
             .Record(6, NtfsNamedFile(u"of the volume"))
             .Record(15, NtfsNamedFile(u"the last of these"))
             .Record(16, NtfsNamedFile(u"the first of the users"))
             .Record(41, FileRecord().Add(NtfsInformationOf()))
             .Record(42, FileRecord().Flags(0).Add(NtfsNameOf(u"not in use")))
             .Record(43, FileRecord().BaseReference(NtfsReference(40)).Add(NtfsNameOf(u"of an extension")))
             .Record(44, NtfsNamedFile(u"")),
         true);
    EXPECT_EQ((Texts_t{"5 the first of the users"}), Names());
    EXPECT_EQ(Texts_t{}, m_Scan->Problems());
    EXPECT_EQ(0U, m_Scan->CountLostNames());
}

TEST_F(CatalogScan, NamesTheRecordsThatCannotBeRead) {
    Scan(Volume()
             .Record(40, Broken())
             .Record(41, Broken().Flags(0))  // no file's
             .Record(42, NtfsNamedFile(u"sound"))
             .Record(43, NtfsNamedFile(u"torn").BreakSectorEnd(1)),
         true);
    ASSERT_EQ(2U, m_Scan->Problems().size());
    EXPECT_EQ("Volume1: file record 40: File Record is Corrupted", m_Scan->Problems()[0]);
    EXPECT_EQ(0U, m_Scan->Problems()[1].find("Volume1: file record 43: "));
    EXPECT_EQ((Texts_t{"5 sound"}), Names());
}

TEST_F(CatalogScan, CountsTheNamesWhoseDirectoriesAreNotThere) {
    const Volume volume = Volume()
                              .Record(40, NtfsNamedFile(u"a").Add(NtfsNameOf(u"b", NtfsReference(50))))
                              .Record(41, FileRecord().Add(NtfsNameOf(u"of a file", NtfsReference(40))))
                              .Record(42, FileRecord().Add(NtfsNameOf(u"of a reused one", NtfsReference(43, 7))))
                              .Record(43, Folder(u"folder").ReuseCount(8))
                              .Record(44, FileRecord().Add(NtfsNameOf(u"of any count", NtfsReference(43, 0))))
                              .Record(45, FileRecord().Add(NtfsNameOf(u"of its count", NtfsReference(43, 8))))
                              .Record(46, FileRecord().Add(NtfsNameOf(u"of the volume", NtfsReference(11, 1))));
    m_ReuseCounts.assign(64, 1);
    m_ReuseCounts[43] = 8;
    Scan(volume, true);
    EXPECT_EQ(3U, m_Scan->CountLostNames());
    EXPECT_EQ(
        (Texts_t{"5 a", "50 b*", "40 of a file", "5 folder", "43 of any count", "43 of its count", "11 of the volume"}),
        Names());
}

// The whole way through a set.

Volume WithManyKinds() {
    return Volume()
        .Record(40, NtfsNamedFile(u"first").Add(NtfsNameOf(u"second", NtfsReference(41))).Add(NtfsDataOf("bytes")))
        .Record(41, Folder(u"folder"))
        .Record(42, NtfsNamedFile(std::u16string(u"half\xD800")).Add(NtfsDataOf("half")))
        .Record(43, FileRecord()
                        .Add(NtfsInformationOf())
                        .Add(NtfsNameOf(u"inside", NtfsReference(41)))
                        .Add(NtfsDataOf("inner")));
}

const std::vector<std::string> ManyKinds = {"first 40", "folder/ 41", "folder/inside 43", "folder/second 40",
                                            "half\xED\xA0\x80 42"};

TEST_F(CatalogScan, ASetHasEveryNameOfEveryFile) {
    BackUp(WithManyKinds());
    EXPECT_EQ(ManyKinds, ListCatalog());
    EXPECT_EQ(1U, m_Result.catalogVolumes);
    EXPECT_EQ(4U, m_Result.catalogFiles);
    EXPECT_EQ("inner", CatalogStream(43));
}

TEST_F(CatalogScan, ASetOfAVolumeAtWhichTheCoreStopsHasTheSameNames) {
    BackUp(WithManyKinds().Record(30, Broken()).Descriptor(300, SecurityDescriptorBytes("OGD")),
           {"Volume1: file record 30: File Record is Corrupted"});
    EXPECT_EQ(ManyKinds, ListCatalog());
    for (const uint64_t frn : {40, 42, 43})
        ExpectSameFile(frn);
}

// Extension records are known to the associate file alone, which the scan writes where the core doesn't.
TEST_F(CatalogScan, ASetOfAVolumeAtWhichTheCoreStopsJoinsRecords) {
    NtfsListEntryFields_t entry;
    entry.reference = NtfsReference(31);
    BackUp(Volume()
               .Record(30, Broken())
               .Record(31, FileRecord().BaseReference(NtfsReference(40)).Add(NtfsDataOf("in another record")))
               .Record(40, NtfsNamedFile(u"file").Add(
                               CNtfsAttributeBuilder::Resident(NtfsAttributeListType, NtfsListEntry(entry)))),
           {"Volume1: file record 30: File Record is Corrupted"});
    EXPECT_EQ("in another record", CatalogStream(40));
    ExpectSameFile(40);
}

TEST_F(CatalogScan, ASetNamesTheNamesWhoseDirectoriesAreNotThere) {
    BackUp(Volume()
               .Record(40, FileRecord().Add(NtfsNameOf(u"lost", NtfsReference(50))))
               .Record(41, FileRecord().Add(NtfsNameOf(u"of a reused one", NtfsReference(42, 7))))
               .Record(42, Folder(u"folder").ReuseCount(8)),
           {"Volume1: 2 names can't be listed, nor what lies below: the directories aren't there"});
    EXPECT_EQ((Texts_t{"folder/ 42"}), ListCatalog());
}

}  // namespace
