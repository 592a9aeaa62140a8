#include "agent/detail/CatalogListing.h"

#include <cstdint>
#include <string>
#include <vector>

#include "agent/CatalogVolume.h"
#include "tests/agent/AgentAssertions.h"
#include "tests/agent/CatalogSets.h"

// Trees of a set that is trusted in nothing.

namespace {

using Texts_t = std::vector<std::string>;

SetEntry_t Entry(uint64_t parent, uint64_t frn, const std::string& name, bool isDirectory = false) {
    SetEntry_t entry;
    entry.parent = parent;
    entry.frn = frn;
    entry.name = name;
    entry.isDirectory = isDirectory;
    return entry;
}

SetEntry_t Folder(uint64_t parent, uint64_t frn, const std::string& name) {
    return Entry(parent, frn, name, true);
}

class CatalogListing : public CatalogOfASet {
protected:
    void OpenWith(const std::vector<SetEntry_t>& entries) {
        Open([&](CBackupSetWriter& writer) {
            SetVolume_t volume;
            volume.name = "Volume1";
            volume.facts = "{}";
            EXPECT_OK(writer.AddVolume(volume));
            for (const SetEntry_t& entry : entries)
                EXPECT_OK(writer.AddEntry(entry));
        });
        ASSERT_EQ(1U, m_Set.Volumes().size());
        ASSERT_OK(m_Volume.Open(m_Set, m_Set.Volumes()[0]));
    }

    Texts_t List(uint64_t directory = 5, bool isRecursive = true) {
        Texts_t paths;
        NtfsListing_t listing;
        listing.isRecursive = isRecursive;
        EXPECT_OK(m_Volume.List(directory, listing, [&](const NtfsEntry_t& entry) {
            paths.push_back(entry.path);
            EXPECT_EQ(entry.path.substr(entry.path.size() - entry.name.size()), entry.name);
            return true;
        }));
        return paths;
    }

    CZuError TryFind(const std::string& path, uint64_t& frn) { return m_Volume.Find(path, frn); }

    uint64_t Find(const std::string& path) {
        uint64_t frn = 777;
        EXPECT_OK(m_Volume.Find(path, frn)) << path;
        return frn;
    }

    CCatalogVolume m_Volume;
};

TEST_F(CatalogListing, GivesNamesInTheirOrderAndWhatIsInAFolderBehindIt) {
    OpenWith({Entry(5, 20, "b"), Entry(5, 21, "C"), Entry(5, 22, "a"), Entry(5, 23, "Case"), Entry(5, 24, "case"),
              Folder(5, 25, "B folder"), Entry(25, 26, "z"), Folder(25, 27, "Y"), Entry(27, 28, "x"),
              Entry(5, 29, "\xC3\xA4"), Entry(5, 30, "Z")});
    EXPECT_EQ((Texts_t{"a", "b", "B folder", "B folder/Y", "B folder/Y/x", "B folder/z", "C", "Case", "case", "Z",
                       "\xC3\xA4"}),
              List());
    EXPECT_EQ((Texts_t{"Y", "z"}), List(25, false));
    EXPECT_EQ((Texts_t{"Y", "Y/x", "z"}), List(25));
    EXPECT_EQ(Texts_t{}, List(99));
}

TEST_F(CatalogListing, EndsInATreeThatLeadsBackIntoItself) {
    OpenWith({Folder(5, 20, "a"), Folder(20, 21, "b"), Folder(21, 20, "a again"), Folder(21, 5, "the root"),
              Folder(5, 5, "."), Entry(20, 30, "file")});
    EXPECT_EQ((Texts_t{".", "a", "a/b", "a/b/a again", "a/b/the root", "a/file"}), List());
    EXPECT_EQ(20U, Find("a/b/a again/b/the root/a"));
}

TEST_F(CatalogListing, EntersADirectoryOfManyNamesOnce) {
    std::vector<SetEntry_t> entries;
    for (uint64_t level = 0; level < 40; ++level) {
        for (const char* const name : {"left", "right"})
            entries.push_back(Folder(level == 0 ? 5 : 100 + level - 1, 100 + level, name));
    }
    OpenWith(entries);
    EXPECT_EQ(80U, List().size());
}

TEST_F(CatalogListing, EndsWhenNoMoreIsWanted) {
    OpenWith({Folder(5, 20, "a"), Entry(20, 21, "b"), Entry(5, 22, "c")});
    size_t given = 0;
    NtfsListing_t listing;
    listing.isRecursive = true;
    EXPECT_OK(m_Volume.List(5, listing, [&](const NtfsEntry_t& /*entry*/) { return ++given < 2; }));
    EXPECT_EQ(2U, given);
}

TEST_F(CatalogListing, TellsThatTheVolumesOwnFilesAreLeftOut) {
    OpenWith({Entry(5, 20, "a")});
    NtfsListing_t listing;
    listing.withMetadata = true;
    EXPECT_OK(m_Volume.List(5, listing, [](const NtfsEntry_t& /*entry*/) { return true; }));
    ASSERT_EQ(1U, listing.problems.size());
    EXPECT_NE(std::string::npos, listing.problems[0].find("leaves the files out that make the volume itself"));
}

TEST_F(CatalogListing, TellsOfAFileWhatTheTreeTells) {
    SetEntry_t entry = Entry(5, 20, "a");
    entry.bytes = 1;
    entry.modified = 2;
    entry.accessed = 3;
    entry.created = 4;
    entry.recordChanged = 5;
    entry.attributes = 6;
    entry.reparseTag = 7;
    entry.links = 8;
    OpenWith({entry, Folder(5, 21, "b")});
    NtfsFileInfo_t file;
    ASSERT_OK(m_Volume.FindFile("a", file));
    EXPECT_EQ(20U, file.frn);
    EXPECT_EQ(1U, file.bytes);
    EXPECT_EQ(2U, file.modification);
    EXPECT_EQ(3U, file.access);
    EXPECT_EQ(4U, file.creation);
    EXPECT_EQ(5U, file.recordChange);
    EXPECT_EQ(6U, file.attributes);
    EXPECT_EQ(7U, file.reparseTag);
    EXPECT_EQ(8U, file.links);
    EXPECT_FALSE(file.isDirectory);
    ASSERT_OK(m_Volume.FindFile("b", file));
    EXPECT_TRUE(file.isDirectory);
    EXPECT_EQ(0U, file.bytes);
}

TEST_F(CatalogListing, PathsLeadToFiles) {
    OpenWith({Folder(5, 20, "Folder"), Entry(20, 21, "File"), Entry(20, 22, "file"), Entry(20, 23, "Only"),
              Entry(20, 24, "half\xED\xA0\x80")});
    const struct {
        const char* path;
        uint64_t frn;
    } rows[] = {
        {"", 5},
        {"/", 5},
        {"\\", 5},
        {".", 5},
        {"/./Folder/", 20},
        {"FOLDER", 20},
        {"//Folder\\\\File", 21},
        {"/folder/file", 22},
        {"folder/FILE", 21},  // the first of two
        {"folder/ONLY", 23},
        {"folder/HALF\xED\xA0\x80", 24},
    };
    for (const auto& row : rows)
        EXPECT_EQ(row.frn, Find(row.path)) << row.path;
    uint64_t frn = 777;
    EXPECT_FAILS_SAYING(TryFind("Folder/none/more", frn), "Volume1: there is no /Folder/none;");
    EXPECT_FAILS_SAYING(TryFind("Folder/Only/more", frn), "Volume1: /Folder/Only is no directory");
    EXPECT_FAILS_SAYING(TryFind("..", frn), "there is no /..");
    EXPECT_EQ(777U, frn);
}

TEST_F(CatalogListing, ABackupSetIsKnownByTheHeadOfItsFile) {
    OpenWith({});
    const std::string set = m_Dir.Read("set");
    EXPECT_TRUE(IsBackupSet(m_Dir.File("set")));
    EXPECT_TRUE(IsBackupSet(m_Dir.Write("head", set.substr(0, 72))));
    EXPECT_FALSE(IsBackupSet(m_Dir.Write("short", set.substr(0, 71))));
    std::string other = set;
    other[68] = static_cast<char>(other[68] ^ 1);
    EXPECT_FALSE(IsBackupSet(m_Dir.Write("of another program", other)));
    other = set;
    other[0] = 's';
    EXPECT_FALSE(IsBackupSet(m_Dir.Write("no database", other)));
    EXPECT_FALSE(IsBackupSet(m_Dir.File("none")));
    EXPECT_FALSE(IsBackupSet(m_Dir.Path()));
}

TEST_F(CatalogListing, StreamsAreNotToldWithoutTheFileRecords) {
    OpenWith({Entry(5, 20, "a")});
    NtfsListing_t listing;
    listing.withStreams = true;
    EXPECT_FAILS_SAYING(m_Volume.List(5, listing, [](const NtfsEntry_t& /*entry*/) { return true; }), "mft");
}

}  // namespace
