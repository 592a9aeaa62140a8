#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "agent/detail/SetSchema.h"
#include "tests/agent/AgentAssertions.h"
#include "tests/agent/AgentRuns.h"
#include "tests/agent/CatalogSets.h"
#include "tests/agent/SetSurgery.h"
#include "tests/support/ErrorAssertions.h"

// The entries of volumes in a set.

namespace {

using Names_t = std::vector<std::string>;

SetEntry_t Entry(uint64_t parent, const std::string& name, uint64_t frn) {
    SetEntry_t entry;
    entry.parent = parent;
    entry.name = name;
    entry.frn = frn;
    entry.bytes = frn * 1000;
    entry.modified = 131000000000000000 + frn;
    entry.accessed = 132000000000000000 + frn;
    entry.created = 133000000000000000 + frn;
    entry.recordChanged = 134000000000000000 + frn;
    entry.attributes = 0x20;
    entry.reparseTag = 0xA000000C;
    entry.links = 2;
    entry.isFurtherName = frn % 2 != 0;
    return entry;
}

SetEntry_t Directory(uint64_t parent, const std::string& name, uint64_t frn) {
    SetEntry_t entry = Entry(parent, name, frn);
    entry.isDirectory = true;
    return entry;
}

SetVolume_t Volume(int64_t id, const std::string& name) {
    SetVolume_t volume;
    volume.id = id;
    volume.name = name;
    volume.facts = "{\"of\": \"" + name + "\"}";
    return volume;
}

class EntriesOfASet : public CatalogOfASet {
protected:
    // "C:" with a root of 5 and two directories, and "D:" with one entry.
    static void AddVolumes(CBackupSetWriter& writer) {
        EXPECT_OK(writer.AddVolume(Volume(0, "C:")));
        for (const SetEntry_t& entry :
             {Entry(5, "b", 31), Directory(5, "a", 40), Entry(5, "a", 32), Entry(5, "ab", 33), Entry(40, "in a", 34),
              Directory(40, "deep", 50), Entry(50, "deepest", 35), Entry(5, "\xC3\xA9", 36)})
            EXPECT_OK(writer.AddEntry(entry));
        EXPECT_OK(writer.AddVolume(Volume(3, "D:")));
        EXPECT_OK(writer.AddEntry(Entry(5, "b", 60)));
    }

    Names_t NamesIn(int64_t volume, uint64_t parent) {
        Names_t names;
        EXPECT_OK(m_Set.ForEachEntry(volume, parent, [&](SetEntry_t& entry) {
            EXPECT_EQ(parent, entry.parent);
            names.push_back(entry.name + " " + std::to_string(entry.frn));
            return true;
        }));
        return names;
    }
};

void ExpectSame(const SetEntry_t& expected, const SetEntry_t& entry) {
    EXPECT_EQ(expected.parent, entry.parent);
    EXPECT_EQ(expected.frn, entry.frn);
    EXPECT_EQ(expected.bytes, entry.bytes);
    EXPECT_EQ(expected.modified, entry.modified);
    EXPECT_EQ(expected.accessed, entry.accessed);
    EXPECT_EQ(expected.created, entry.created);
    EXPECT_EQ(expected.recordChanged, entry.recordChanged);
    EXPECT_EQ(expected.attributes, entry.attributes);
    EXPECT_EQ(expected.reparseTag, entry.reparseTag);
    EXPECT_EQ(expected.links, entry.links);
    EXPECT_EQ(expected.isDirectory, entry.isDirectory);
    EXPECT_EQ(expected.isFurtherName, entry.isFurtherName);
    EXPECT_EQ(expected.name, entry.name);
}

TEST_F(EntriesOfASet, ComeByNameAndNumber) {
    ASSERT_NO_FATAL_FAILURE(Open(AddVolumes));
    ASSERT_EQ(2U, m_Set.Volumes().size());
    EXPECT_EQ("C:", m_Set.Volumes()[0].name);
    EXPECT_EQ("{\"of\": \"C:\"}", m_Set.Volumes()[0].facts);
    EXPECT_EQ(8U, m_Set.Volumes()[0].entryCount);
    EXPECT_EQ(3, m_Set.Volumes()[1].id);
    EXPECT_EQ(1U, m_Set.Volumes()[1].entryCount);
    EXPECT_EQ((Names_t{"a 32", "a 40", "ab 33", "b 31", "\xC3\xA9 36"}), NamesIn(0, 5));
    EXPECT_EQ((Names_t{"deep 50", "in a 34"}), NamesIn(0, 40));
    EXPECT_EQ((Names_t{"b 60"}), NamesIn(3, 5));
    for (const uint64_t parent : {uint64_t{0}, uint64_t{6}, ~uint64_t{0}})
        EXPECT_EQ(Names_t{}, NamesIn(0, parent));
    EXPECT_EQ(Names_t{}, NamesIn(1, 5));
    EXPECT_OK(Verify(m_Dir.File("set")));
}

TEST_F(EntriesOfASet, KeepAllThatTheyWereGiven) {
    SetEntry_t largest = Directory(INT64_MAX, std::string(LargestEntryNameBytes, 'n'), INT64_MAX);
    largest.bytes = largest.modified = largest.accessed = largest.created = largest.recordChanged = INT64_MAX;
    largest.attributes = largest.reparseTag = largest.links = UINT32_MAX;
    largest.isFurtherName = true;
    const SetEntry_t entries[] = {Entry(5, "plain", 30), Directory(5, "directory", 31),
                                  Entry(0, std::string("\0n\xED\xA0\x80", 5), 0), largest};
    ASSERT_NO_FATAL_FAILURE(Open([&](CBackupSetWriter& writer) {
        EXPECT_OK(writer.AddVolume(Volume(0, "C:")));
        for (const SetEntry_t& entry : entries)
            EXPECT_OK(writer.AddEntry(entry));
    }));
    for (const SetEntry_t& entry : entries) {
        std::optional<SetEntry_t> found;
        ASSERT_OK(m_Set.FindEntry(0, entry.parent, entry.name, found));
        ASSERT_TRUE(found.has_value()) << entry.name;
        ExpectSame(entry, *found);
    }
    EXPECT_OK(m_Set.ProveEntries(m_Set.Volumes()[0]));
}

TEST_F(EntriesOfASet, AreFoundByName) {
    ASSERT_NO_FATAL_FAILURE(Open(AddVolumes));
    std::optional<SetEntry_t> entry;
    ASSERT_OK(m_Set.FindEntry(0, 5, "a", entry));
    ASSERT_TRUE(entry.has_value());
    EXPECT_EQ(32U, entry->frn);
    const struct {
        int64_t volume;
        uint64_t parent;
        const char* name;
    } rows[] = {{0, 5, "A"}, {0, 5, ""},  {0, 5, "deep"},        {0, 40, "a"},
                {3, 5, "a"}, {1, 5, "a"}, {0, ~uint64_t{0}, "a"}};
    for (const auto& row : rows) {
        ASSERT_OK(m_Set.FindEntry(row.volume, row.parent, row.name, entry));
        EXPECT_FALSE(entry.has_value()) << row.name << " in " << row.parent << " of " << row.volume;
    }
}

TEST_F(EntriesOfASet, AWalkEndsWhenNoMoreIsWanted) {
    ASSERT_NO_FATAL_FAILURE(Open(AddVolumes));
    for (size_t wanted = 1; wanted <= 5; ++wanted) {
        size_t got = 0;
        EXPECT_OK(m_Set.ForEachEntry(0, 5, [&](SetEntry_t&) { return ++got < wanted; }));
        EXPECT_EQ(wanted, got);
    }
    EXPECT_EQ(5U, NamesIn(0, 5).size());
}

TEST_F(EntriesOfASet, AWalkMayUseTheReader) {
    ASSERT_NO_FATAL_FAILURE(Open([](CBackupSetWriter& writer) {
        AddVolumes(writer);
        EXPECT_OK(AddPart(writer, "part", "bytes"));
    }));
    Names_t seen;
    const std::function<void(uint64_t)> walk = [&](uint64_t parent) {
        EXPECT_OK(m_Set.ForEachEntry(0, parent, [&](SetEntry_t& entry) {
            seen.push_back(entry.name);
            std::optional<SetEntry_t> again;
            EXPECT_OK(m_Set.FindEntry(0, parent, entry.name, again));
            EXPECT_TRUE(again.has_value());
            EXPECT_EQ("byte", ReadPart("part", 0, 4));
            if (entry.isDirectory)
                walk(entry.frn);
            return true;
        }));
    };
    walk(5);
    walk(5);
    const Names_t once{"a", "a", "deep", "deepest", "in a", "ab", "b", "\xC3\xA9"};
    Names_t twice = once;
    twice.insert(twice.end(), once.begin(), once.end());
    EXPECT_EQ(twice, seen);
}

TEST_F(EntriesOfASet, OneThatIsThereAlreadyIsPassedOver) {
    SetEntry_t again = Entry(5, "twice", 30);
    again.bytes = 77;
    ASSERT_NO_FATAL_FAILURE(Open([&](CBackupSetWriter& writer) {
        EXPECT_OK(writer.AddVolume(Volume(0, "C:")));
        EXPECT_OK(writer.AddEntry(Entry(5, "twice", 30)));
        EXPECT_OK(writer.AddEntry(again));
        EXPECT_OK(writer.AddEntry(Entry(5, "twice", 31)));
    }));
    EXPECT_EQ(2U, m_Set.Volumes()[0].entryCount);
    std::optional<SetEntry_t> found;
    ASSERT_OK(m_Set.FindEntry(0, 5, "twice", found));
    ExpectSame(Entry(5, "twice", 30), found.value());
    EXPECT_OK(m_Set.ProveEntries(m_Set.Volumes()[0]));
}

TEST_F(EntriesOfASet, TheOrderInWhichTheyCameDoesNotMatter) {
    std::vector<SetEntry_t> entries;
    for (uint64_t frn = 0; frn < 100; ++frn)
        entries.push_back(Entry(frn % 7, "name " + std::to_string(frn * 31 % 100), frn));
    BlockDigest_t digests[2];
    for (BlockDigest_t& digest : digests) {
        ASSERT_NO_FATAL_FAILURE(Open([&](CBackupSetWriter& writer) {
            EXPECT_OK(writer.AddVolume(Volume(0, "C:")));
            for (const SetEntry_t& entry : entries)
                EXPECT_OK(writer.AddEntry(entry));
        }));
        digest = m_Set.Volumes()[0].entriesDigest;
        EXPECT_OK(m_Set.ProveEntries(m_Set.Volumes()[0]));
        std::reverse(entries.begin(), entries.end());
    }
    EXPECT_EQ(digests[0], digests[1]);
}

TEST_F(EntriesOfASet, WhatHasNoPlaceIsRefused) {
    CBackupSetWriter writer;
    ASSERT_OK(writer.Create(m_Dir.File("set"), false));
    EXPECT_FAILS_SAYING(writer.AddEntry(Entry(5, "of no volume", 30)), "has no place");
    ASSERT_OK(writer.AddVolume(Volume(0, "C:")));
    constexpr uint64_t tooMuch = uint64_t{1} << 63U;
    const struct {
        const char* name;
        std::function<void(SetEntry_t&)> change;
    } rows[] = {
        {"no name", [](SetEntry_t& entry) { entry.name.clear(); }},
        {"a long name", [](SetEntry_t& entry) { entry.name.assign(LargestEntryNameBytes + 1, 'n'); }},
        {"parent", [](SetEntry_t& entry) { entry.parent = tooMuch; }},
        {"number", [](SetEntry_t& entry) { entry.frn = tooMuch; }},
        {"size", [](SetEntry_t& entry) { entry.bytes = tooMuch; }},
        {"modified", [](SetEntry_t& entry) { entry.modified = tooMuch; }},
        {"accessed", [](SetEntry_t& entry) { entry.accessed = tooMuch; }},
        {"created", [](SetEntry_t& entry) { entry.created = tooMuch; }},
        {"record change", [](SetEntry_t& entry) { entry.recordChanged = tooMuch; }},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        SetEntry_t entry = Entry(5, "name", 30);
        row.change(entry);
        EXPECT_FAILS_SAYING(writer.AddEntry(entry), m_Dir.File("set"), "has no place");
    }
    SetVolume_t large = Volume(1, "D:");
    large.facts.assign(LargestFactsBytes + 1, ' ');
    EXPECT_FAILS_SAYING(writer.AddVolume(large), "the volume D: has no place");
    EXPECT_FAILS_SAYING(writer.AddVolume(Volume(0, "C: again")), "the volume C: again has no place");
    EXPECT_FAILS_SAYING(writer.AddVolume(Volume(-1, "E:")), "the volume E: has no place");
}

class DamagedEntries : public EntriesOfASet {
protected:
    DamagedEntries() {
        WriteSet(AddVolumes);
        m_Sound = m_Dir.Read("set");
    }

    std::string Altered(const std::string& sql) const {
        m_Dir.Write("set", m_Sound);
        AlterSet(m_Dir.File("set"), sql);
        return m_Dir.File("set");
    }

    std::string m_Sound;
};

TEST_F(DamagedEntries, EachColumnIsProved) {
    for (const char* change : {"volume = 7",
                               "volume = -1",
                               "parent = 6",
                               "parent = -5",
                               "name = x'62'",
                               "name = 'ab'",
                               "frn = 99",
                               "frn = -1",
                               "bytes = bytes + 1",
                               "bytes = -1",
                               "bytes = 'x'",
                               "modified = 0",
                               "modified = -1",
                               "accessed = 0",
                               "created = 0",
                               "record_changed = 1",
                               "attributes = 0x21",
                               "attributes = -1",
                               "attributes = 4294967296",
                               "reparse_tag = 0",
                               "reparse_tag = 1.5",
                               "links = 1",
                               "links = x'02'",
                               "kind = 0",
                               "kind = 4",
                               "kind = -1",
                               "kind = 257"}) {
        SCOPED_TRACE(change);
        const std::string set = Altered(std::string("UPDATE entry SET ") + change + " WHERE frn = 33");
        ASSERT_OK(m_Set.Open(set));
        EXPECT_FAILS_SAYING(m_Set.ProveEntries(m_Set.Volumes()[0]), set, "the set is damaged");
        EXPECT_OK(m_Set.ProveEntries(m_Set.Volumes()[1]));
        EXPECT_FAILS_SAYING(Verify(set), set, "the set is damaged");
    }
}

TEST_F(DamagedEntries, RowsThatAreLostAddedOrElsewhereAreNoticed) {
    for (const char* sql :
         {"DELETE FROM entry WHERE frn = 33", "DELETE FROM entry", "UPDATE entry SET volume = 0 WHERE frn = 60",
          "INSERT INTO entry SELECT volume, parent, x'7A', frn, bytes, modified, accessed, created, record_changed, "
          "attributes, reparse_tag, links, kind FROM entry WHERE frn = 33"}) {
        SCOPED_TRACE(sql);
        EXPECT_FAILS_SAYING(Verify(Altered(sql)), "entries of the volume C: are lost or changed");
    }
}

// What no writer makes isn't handed out either.
TEST_F(DamagedEntries, RowsThatNoWriterMakesAreRefused) {
    for (const char* change : {"frn = -1", "bytes = -1", "bytes = 'x'", "modified = -1", "accessed = -1",
                               "created = -1", "record_changed = -1", "attributes = -1", "attributes = 4294967296",
                               "reparse_tag = 1.5", "links = x'02'", "kind = 4", "kind = -1"}) {
        SCOPED_TRACE(change);
        ASSERT_OK(m_Set.Open(Altered(std::string("UPDATE entry SET ") + change + " WHERE frn = 33")));
        std::optional<SetEntry_t> entry;
        EXPECT_FAILS_SAYING(m_Set.FindEntry(0, 5, "ab", entry), "an entry of the directory 5 of its volume 0");
        size_t sound = 0;
        EXPECT_FAILS_SAYING(m_Set.ForEachEntry(0, 5, [&](SetEntry_t&) { return ++sound != 0; }),
                            "an entry of the directory 5 of its volume 0");
        EXPECT_EQ(2U, sound);
        EXPECT_EQ((Names_t{"deep 50", "in a 34"}), NamesIn(0, 40));
    }
    for (const char* name : {"x''", "'text'", "zeroblob(3139)", "zeroblob(60000000)"}) {
        SCOPED_TRACE(name);
        ASSERT_OK(m_Set.Open(Altered(std::string("UPDATE entry SET name = ") + name + " WHERE frn = 33")));
        EXPECT_FAILS_SAYING(m_Set.ForEachEntry(0, 5, [](SetEntry_t&) { return true; }), "an entry of the directory 5");
    }
}

TEST_F(DamagedEntries, VolumesThatNoWriterMakesAreRefusedAtOnce) {
    for (const char* change :
         {"id = -1", "name = x'43'", "facts = x'7B7D'", "facts = printf('%*s', 16777217, '')", "entry_count = -1",
          "entry_count = 'x'", "entries_digest = x'00'", "entries_digest = 'text'"}) {
        SCOPED_TRACE(change);
        EXPECT_FAILS_SAYING(m_Set.Open(Altered(std::string("UPDATE volume SET ") + change + " WHERE id = 0")),
                            "its row of the volume");
    }
    for (const char* change :
         {"id = 1", "name = 'E:'", "facts = '{}'", "entry_count = 9", "entries_digest = zeroblob(16)"}) {
        SCOPED_TRACE(change);
        EXPECT_FAILS_SAYING(m_Set.Open(Altered(std::string("UPDATE volume SET ") + change + " WHERE id = 0")),
                            "the digest over its lists is wrong");
    }
}

// However large they are: opening has to be quick.
TEST_F(DamagedEntries, OpeningLooksAtNoEntriesAndPieces) {
    const std::string set = WriteSet([](CBackupSetWriter& writer) {
        AddVolumes(writer);
        EXPECT_OK(AddPart(writer, "part", "bytes"));
        EXPECT_OK(writer.BeginStream(EmptyStream(), CAutoMemory<char>(), NoCompression));
        EXPECT_OK(writer.EndStream());
    });
    AlterSet(set, "UPDATE entry SET kind = -1; UPDATE piece SET size = -1; "
                  "INSERT INTO block VALUES (0, -1, x'', -1, NULL)");
    EXPECT_OK(m_Set.Open(set));
    EXPECT_EQ(2U, m_Set.Volumes().size());
    EXPECT_EQ(2U, m_Set.Parts().size());
}

}  // namespace
