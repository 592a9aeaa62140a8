#include "agent/NtfsCopy.h"

#include <sys/stat.h>

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "agent/NtfsExport.h"
#include "tests/agent/NtfsFiles.h"
#include "tests/agent/posix/SmallDisk.h"
#include "tests/support/Bytes.h"
#include "tests/support/SameBytes.h"

namespace {

using Attribute = CNtfsAttributeBuilder;
using FileRecord = CNtfsFileRecordBuilder;
using Root = CNtfsIndexRootBuilder;
using Volume = CNtfsVolumeBuilder;
using Texts_t = std::vector<std::string>;

constexpr uint64_t FolderFrn = 30;
constexpr uint64_t FileFrn = 40;
constexpr uint64_t Lcn = 64;
constexpr uint64_t ClusterBytes = 4096;

// 2020-01-02 03:04:05 and 2021-02-03 04:05:06, in both ways of counting.
constexpr uint64_t Accessed = 132224078450000000;
constexpr uint64_t Changed = 132567987060000000;
constexpr int64_t AccessedUnix = 1577934245;
constexpr int64_t ChangedUnix = 1612325106;

Attribute Times() {
    NtfsStandardInformationFields_t fields;
    fields.access = Accessed;
    fields.modification = Changed;
    return Attribute::Resident(NtfsStandardInformationType, NtfsStandardInformationValue(fields));
}

// In "tree": "a.txt", "empty", and "deep" with "b.txt".
Volume Tree() {
    return Volume()
        .Root(Root().Add(NtfsFolderEntryOf(FolderFrn, u"Tree")))
        .Record(FolderFrn, NtfsFolderOf({NtfsEntryOf(FileFrn, u"a.txt"), NtfsFolderEntryOf(31, u"deep"),
                                         NtfsEntryOf(42, u"empty")})
                               .Add(Times()))
        .Record(31, NtfsFolderOf({NtfsEntryOf(41, u"b.txt")}).Add(Times()))
        .Record(FileFrn, NtfsFileOf("contents of a").Add(Times()))
        .Record(41, NtfsFileOf("b").Add(NtfsDataOf("named").Name(u"stream")))
        .Record(42, NtfsFileOf(""));
}

class NtfsCopy : public CNtfsFilesTest {
protected:
    CZuError Copy(const std::string& path, const std::string& target) {
        return CopyFromNtfs(*m_Ntfs, path, m_Target.File(target), m_Copy);
    }

    CZuError CopyTree(const std::string& path, const std::string& target) {
        m_Copy = NtfsCopy_t();
        m_Copy.isRecursive = true;
        return Copy(path, target);
    }

    // All that lies below the target's directory, sorted, directories with a slash.
    Texts_t Found() const {
        Texts_t paths;
        for (const auto& entry : std::filesystem::recursive_directory_iterator(m_Target.Path()))
            paths.push_back(std::filesystem::relative(entry.path(), m_Target.Path()).string() +
                            (entry.is_directory() ? "/" : ""));
        std::sort(paths.begin(), paths.end());
        return paths;
    }

    struct stat StatOf(const std::string& name) const {
        struct stat facts {};
        EXPECT_EQ(0, lstat(m_Target.File(name).c_str(), &facts)) << name;
        return facts;
    }

    // There is a problem that begins so and holds this text.
    void ExpectProblem(const std::string& beginning, const std::string& text) const {
        const bool isThere =
            std::any_of(m_Copy.problems.begin(), m_Copy.problems.end(), [&](const std::string& problem) {
                return problem.rfind(beginning, 0) == 0 && problem.find(text) != std::string::npos;
            });
        EXPECT_TRUE(isThere) << beginning << "..." << text << " isn't in " << testing::PrintToString(m_Copy.problems);
    }

    CTempDir m_Target;
    NtfsCopy_t m_Copy;
};

// --- One file.

TEST_F(NtfsCopy, AFileIsCopiedWithItsTimes) {
    Open(Tree());
    ASSERT_OK(Copy("/tree/A.TXT", "copy"));
    EXPECT_EQ(Texts_t{"copy"}, Found());
    EXPECT_EQ(ChangedUnix, StatOf("copy").st_mtim.tv_sec);
    EXPECT_EQ(AccessedUnix, StatOf("copy").st_atim.tv_sec);
    EXPECT_EQ("contents of a", m_Target.Read("copy"));
    EXPECT_EQ(1U, m_Copy.files);
    EXPECT_EQ(0U, m_Copy.directories);
    EXPECT_EQ(13U, m_Copy.bytes);
    EXPECT_EQ(Texts_t{}, m_Copy.problems);
}

TEST_F(NtfsCopy, ADirectoryTakesAFileInUnderItsName) {
    Open(Tree());
    for (const char* const path : {"/Tree/a.txt", "Tree\\a.txt", "/Tree/a.txt/"}) {
        ASSERT_OK(Copy(path, ".")) << path;
        EXPECT_EQ("contents of a", m_Target.Read("a.txt"));
        std::filesystem::remove(m_Target.File("a.txt"));
    }
}

TEST_F(NtfsCopy, AFileThatExistsIsReplacedOnlyWhereItMayBe) {
    Open(Tree());
    m_Target.Write("copy", "stands here");
    EXPECT_FAILS_SAYING(Copy("/Tree/a.txt", "copy"), m_Target.File("copy"), "exists already");
    EXPECT_EQ("stands here", m_Target.Read("copy"));
    m_Copy.isReplacing = true;
    ASSERT_OK(Copy("/Tree/a.txt", "copy"));
    EXPECT_EQ("contents of a", m_Target.Read("copy"));
    EXPECT_EQ(Texts_t{"copy"}, Found());
}

TEST_F(NtfsCopy, ALargeFileIsCopiedWholeAndASparseOneStaysSparse) {
    const std::string piece = PatternedBytes(3 * ClusterBytes);
    const auto file = [](uint16_t flags) {
        return FileRecord().Add(Attribute::NonResident(NtfsDataType, {{NtfsHole, 512}, {Lcn, 3}, {NtfsHole, 512}},
                                                       1027 * ClusterBytes - 100)
                                    .Flags(flags));
    };
    Open(Volume()
             .Root(Root().Add(NtfsEntryOf(40, u"sparse")).Add(NtfsEntryOf(41, u"whole")))
             .Record(40, file(0x8000))
             .Record(41, file(0))
             .Cluster(Lcn, piece));
    const std::string expected =
        std::string(512 * ClusterBytes, '\0') + piece + std::string(512 * ClusterBytes - 100, '\0');
    ASSERT_OK(Copy("sparse", "sparse"));
    ASSERT_OK(Copy("whole", "whole"));
    EXPECT_SAME_BYTES(expected, m_Target.Read("sparse"));
    EXPECT_SAME_BYTES(expected, m_Target.Read("whole"));
    EXPECT_LT(StatOf("sparse").st_blocks, StatOf("whole").st_blocks);
}

TEST_F(NtfsCopy, AFileThatCannotBeReadLeavesNothing) {
    Open(
        Volume()
            .Root(Root().Add(NtfsEntryOf(40, u"encrypted")).Add(NtfsEntryOf(41, u"torn")).Add(NtfsEntryOf(42, u"link")))
            .Record(40, FileRecord().Add(NtfsDataOf("x").Flags(0x4000)))
            .Record(41, FileRecord().Add(Attribute::NonResident(NtfsDataType, {{Lcn, 400}}, 500 * ClusterBytes)))
            .Record(42, NtfsFileOf("").Add(NtfsReparsePointOf(0xA000000C))));
    EXPECT_FAILS_SAYING(Copy("encrypted", "copy"), "is encrypted");
    EXPECT_FAILS_SAYING(Copy("torn", "copy"), "don't say where byte");
    EXPECT_FAILS_SAYING(Copy("link", "copy"), "link: is a link (reparse point 0xA000000C)");
    EXPECT_FAILS_SAYING(Copy("gone", "copy"), "there is no /gone");
    EXPECT_EQ(Texts_t{}, Found());
    EXPECT_EQ(0U, m_Copy.files);
}

// --- A tree.

TEST_F(NtfsCopy, ATreeIsCopiedWithItsTimes) {
    Open(Tree());
    ASSERT_OK(CopyTree("/Tree", "copy"));
    EXPECT_EQ((Texts_t{"copy/", "copy/a.txt", "copy/deep/", "copy/deep/b.txt", "copy/empty"}), Found());
    EXPECT_EQ("contents of a", m_Target.Read("copy/a.txt"));
    EXPECT_EQ("b", m_Target.Read("copy/deep/b.txt"));
    EXPECT_EQ("", m_Target.Read("copy/empty"));
    for (const char* const name : {"copy", "copy/a.txt", "copy/deep"}) {
        EXPECT_EQ(ChangedUnix, StatOf(name).st_mtim.tv_sec) << name;
    }
    EXPECT_EQ(3U, m_Copy.files);
    EXPECT_EQ(2U, m_Copy.directories);
    EXPECT_EQ(14U, m_Copy.bytes);
    EXPECT_EQ(Texts_t{}, m_Copy.problems);
}

TEST_F(NtfsCopy, ADirectoryTakesATreeInUnderItsName) {
    Open(Tree());
    ASSERT_OK(CopyTree("/Tree/deep", "."));
    EXPECT_EQ((Texts_t{"deep/", "deep/b.txt"}), Found());
    EXPECT_FAILS_SAYING(CopyTree("/Tree/deep", "."), m_Target.Path(), "exists already");
    EXPECT_FAILS_SAYING(CopyTree("/", "."), m_Target.Path(), "exists already");
    EXPECT_FAILS_SAYING(CopyTree("/Tree/deep", "none/copy"), "none/copy", "can't be made");
    EXPECT_EQ((Texts_t{"deep/", "deep/b.txt"}), Found());
}

TEST_F(NtfsCopy, ATreeIsCopiedOnlyWhereItIsAskedFor) {
    Open(Tree());
    EXPECT_FAILS_SAYING(Copy("/Tree", "copy"), "/Tree: is a directory", "--recursive");
    m_Target.Write("file", "stands here");
    EXPECT_FAILS_SAYING(CopyTree("/Tree", "file"), "exists already");
    m_Copy.isReplacing = true;
    EXPECT_FAILS_SAYING(Copy("/Tree", "file"), "exists already");
    EXPECT_EQ("stands here", m_Target.Read("file"));
    EXPECT_EQ(Texts_t{"file"}, Found());
}

TEST_F(NtfsCopy, TheWholeVolumeIsCopiedWithItsOwnFilesWhenAskedFor) {
    Open(Volume()
             .Root(Root().Add(NtfsEntryOf(3, u"$Volume")).Add(NtfsFolderEntryOf(5, u".")).Add(NtfsEntryOf(40, u"f")))
             .Record(3, NtfsFileOf("v"))
             .Record(40, NtfsFileOf("x")));
    ASSERT_OK(CopyTree("/", "copy"));
    EXPECT_EQ((Texts_t{"copy/", "copy/f"}), Found());
    std::filesystem::remove_all(m_Target.File("copy"));
    m_Copy.withMetadata = true;
    ASSERT_OK(Copy("/", "copy"));
    EXPECT_EQ((Texts_t{"copy/", "copy/$Volume", "copy/f"}), Found());
}

TEST_F(NtfsCopy, WhatCannotBeCopiedIsLeftOutAndTold) {
    Open(Volume()
             .Root(Root().Add(NtfsFolderEntryOf(30, u"t")))
             .Record(30, NtfsFolderOf({NtfsEntryOf(41, u"encrypted"), NtfsEntryOf(42, u"gone"),
                                       NtfsEntryOf(43, u"kept"), NtfsFolderEntryOf(31, u"link")})
                             .Add(Times()))
             .Record(31, NtfsFolderOf({NtfsEntryOf(40, u"behind the link")}).Add(NtfsReparsePointOf(0xA0000003)))
             .Record(40, NtfsFileOf("x"))
             .Record(41, FileRecord().Add(NtfsDataOf("x").Flags(0x4000)))
             .Record(42, "")
             .Record(43, NtfsFileOf("x").Add(NtfsReparsePointOf(0x80000013))));
    ASSERT_OK(CopyTree("/t", "copy"));
    EXPECT_EQ(Texts_t{"copy/"}, Found());
    EXPECT_EQ(4U, m_Copy.problems.size());
    ExpectProblem("encrypted: ", "is encrypted");
    ExpectProblem("gone: ", "File Not in Use");
    ExpectProblem("kept: ", "kept elsewhere (reparse point 0x80000013)");
    ExpectProblem("link: ", "is a link (reparse point 0xA0000003), which isn't followed");
    EXPECT_EQ(0U, m_Copy.files);
}

// Names as no driver writes them, but a disk may hold.
TEST_F(NtfsCopy, NamesThatNoFileCanHaveAreLeftOutWithAllBelowThem) {
    const std::u16string names[] = {
        u"..", u".", u"", u"a/b", u"/", u"../up", u"..\\..", std::u16string(u"z\0z", 3), u"x/../../up"};
    for (const std::u16string& name : names) {
        for (const bool isFolder : {false, true}) {
            SCOPED_TRACE(testing::Message() << testing::PrintToString(name) << " folder " << isFolder);
            Open(Volume()
                     .Root(Root().Add(NtfsFolderEntryOf(30, u"t")))
                     .Record(30, NtfsFolderOf({isFolder ? NtfsFolderEntryOf(31, name) : NtfsEntryOf(41, name),
                                               NtfsEntryOf(40, u"sound")}))
                     .Record(31, NtfsFolderOf({NtfsEntryOf(41, u"below"), NtfsFolderEntryOf(32, u"deeper")}))
                     .Record(32, NtfsFolderOf({NtfsEntryOf(41, u"far below")}))
                     .Record(40, NtfsFileOf("sound"))
                     .Record(41, NtfsFileOf("x")));
            std::filesystem::create_directory(m_Target.File("in"));
            ASSERT_OK(CopyTree("/t", "in/copy"));
            if (name == u"..\\..") {
                // A backslash separates nothing here.
                EXPECT_EQ(isFolder ? 3U : 2U, m_Copy.files);
                EXPECT_EQ(Texts_t{}, m_Copy.problems);
            } else {
                EXPECT_EQ((Texts_t{"in/", "in/copy/", "in/copy/sound"}), Found());
                EXPECT_EQ(1U, m_Copy.problems.size());
                ExpectProblem("", "is no name that a file can have here");
            }
            EXPECT_EQ(Texts_t{"in"}, m_Target.Entries());
            std::filesystem::remove_all(m_Target.File("in"));
        }
    }
}

TEST_F(NtfsCopy, ANameThatStandsTwiceIsCopiedOnce) {
    Open(Volume()
             .Root(Root().Add(NtfsFolderEntryOf(30, u"t")))
             .Record(30, NtfsFolderOf({NtfsEntryOf(40, u"a"), NtfsEntryOf(41, u"a"), NtfsFolderEntryOf(31, u"a"),
                                       NtfsFolderEntryOf(32, u"d"), NtfsFolderEntryOf(33, u"d")}))
             .Record(31, NtfsFolderOf({NtfsEntryOf(41, u"below a")}))
             .Record(32, NtfsFolderOf({NtfsEntryOf(40, u"first")}))
             .Record(33, NtfsFolderOf({NtfsEntryOf(41, u"second")}))
             .Record(40, NtfsFileOf("first"))
             .Record(41, NtfsFileOf("second")));
    ASSERT_OK(CopyTree("/t", "copy"));
    EXPECT_EQ((Texts_t{"copy/", "copy/a", "copy/d/", "copy/d/first"}), Found());
    EXPECT_EQ("first", m_Target.Read("copy/a"));
    EXPECT_EQ(3U, m_Copy.problems.size());
    ExpectProblem("a: ", m_Target.File("copy/a") + ": File exists");
    ExpectProblem("d: ", "stands in its directory twice");
}

TEST_F(NtfsCopy, WhatIsLeftOutTakesNoOtherFolderOfItsNameAlong) {
    Open(Volume()
             .Root(Root().Add(NtfsFolderEntryOf(30, u"t")))
             .Record(30, NtfsFolderOf({NtfsEntryOf(33, u"a", NtfsFolderBit, 3, 9), NtfsFolderEntryOf(31, u"a")}))
             .Record(31, NtfsFolderOf({NtfsEntryOf(40, u"file")}))
             .Record(33, NtfsFolderOf(std::vector<CNtfsIndexEntryBuilder>()))
             .Record(40, NtfsFileOf("x")));
    ASSERT_OK(CopyTree("/t", "copy"));
    EXPECT_EQ((Texts_t{"copy/", "copy/a/", "copy/a/file"}), Found());
    ASSERT_EQ(1U, m_Copy.problems.size());
    ExpectProblem("a: ", "belongs to another file by now");
}

TEST_F(NtfsCopy, AFileWhoseNameIsTooLongIsLeftOut) {
    Open(Volume()
             .Root(Root().Add(NtfsFolderEntryOf(30, u"t")))
             .Record(30, NtfsFolderOf({NtfsEntryOf(40, std::u16string(200, u'\u4E00')), NtfsEntryOf(40, u"short")}))
             .Record(40, NtfsFileOf("x")));
    ASSERT_OK(CopyTree("/t", "copy"));
    EXPECT_EQ((Texts_t{"copy/", "copy/short"}), Found());
    EXPECT_EQ(1U, m_Copy.problems.size());
    ExpectProblem("\u4E00", "File name too long");
}

TEST_F(NtfsCopy, DamageOfADirectoryIsToldAndTheRestIsCopied) {
    Open(Volume()
             .Root(Root().Add(NtfsFolderEntryOf(30, u"t")))
             .Record(30, NtfsFolderOf({NtfsEntryOf(40, u"a"), NtfsEntryOf(40, u"b").SubNode(0)}))
             .Record(40, NtfsFileOf("x")));
    ASSERT_OK(CopyTree("/t", "copy"));
    EXPECT_EQ((Texts_t{"copy/", "copy/a", "copy/b"}), Found());
    EXPECT_EQ(1U, m_Copy.problems.size());
    ExpectProblem("Volume1: /", "block 0 of its index is damaged");
}

// A link in the place of the target is never followed.
TEST_F(NtfsCopy, NothingIsWrittenThroughALink) {
    Open(Tree());
    const CTempDir other;
    other.Write("file", "stands here");
    std::filesystem::create_symlink(other.File("file"), m_Target.File("to a file"));
    std::filesystem::create_symlink(other.File("none"), m_Target.File("to nothing"));
    for (const char* const target : {"to a file", "to nothing"}) {
        m_Copy.isReplacing = true;
        EXPECT_FAILURE(Copy("/Tree/a.txt", target)) << target;
        EXPECT_FAILURE(CopyTree("/Tree", target)) << target;
    }
    EXPECT_EQ("stands here", other.Read("file"));
    EXPECT_EQ(Texts_t{"file"}, other.Entries());
}

// --- Copies that end early.

TEST_F(NtfsCopy, ACancelledCopyLeavesNothing) {
    Open(Tree());
    for (int most = 0; most < 2; ++most) {
        int calls = 0;
        m_Copy = NtfsCopy_t();
        m_Copy.isRecursive = true;
        m_Copy.progress = [&](const Progress_t&) { return ++calls <= most; };
        EXPECT_FAILS_SAYING(Copy("/Tree", "copy"), "cancelled") << most;
        EXPECT_EQ(most + 1, calls);
        EXPECT_EQ(Texts_t{}, Found());
    }
    m_Copy = NtfsCopy_t();
    m_Copy.progress = [](const Progress_t&) { return false; };
    EXPECT_FAILS_SAYING(Copy("/Tree/a.txt", "copy"), "cancelled");
    EXPECT_EQ(Texts_t{}, Found());
}

// A disk that is full ends the copy: of a tree with half of its files nobody knows which half.
TEST_F(NtfsCopy, AFailedWriteLeavesNothing) {
    const std::string bytes = PatternedBytes(60 * ClusterBytes);
    Open(Volume()
             .Root(Root().Add(NtfsFolderEntryOf(30, u"t")))
             .Record(30, NtfsFolderOf({NtfsEntryOf(40, u"a"), NtfsEntryOf(41, u"b"), NtfsEntryOf(40, u"c")}))
             .Record(40, NtfsFileOf("x"))
             .Record(41, FileRecord().Add(Attribute::NonResident(NtfsDataType, {{Lcn, 60}}, bytes.size())))
             .Cluster(Lcn, bytes));
    const CSmallDisk full(128);
    SKIP_WITHOUT(full);
    const std::string target = full.Dir().File("copy");
    m_Copy.isRecursive = true;
    EXPECT_FAILS_SAYING(CopyFromNtfs(*m_Ntfs, "/t", target, m_Copy), target + "/b: ", "No space left");
    EXPECT_EQ(Texts_t{}, full.Dir().Entries());
    EXPECT_FAILS_SAYING(CopyFromNtfs(*m_Ntfs, "/t/b", target, m_Copy), target + ": ", "No space left");
    EXPECT_EQ(Texts_t{}, full.Dir().Entries());
    EXPECT_FAILS_SAYING(ExportBackupStream(*m_Ntfs, 41, target, false, {}), target + ": ", "No space left");
    EXPECT_EQ(Texts_t{}, full.Dir().Entries());
    EXPECT_OK(CopyFromNtfs(*m_Ntfs, "/t/a", target, m_Copy));
}

TEST_F(NtfsCopy, ProgressTellsOfTheBytesThatAreDone) {
    Open(Tree());
    std::vector<uint64_t> done;
    m_Copy.isRecursive = true;
    m_Copy.progress = [&](const Progress_t& progress) {
        done.push_back(progress.doneBytes);
        return true;
    };
    ASSERT_OK(Copy("/Tree", "copy"));
    EXPECT_EQ((std::vector<uint64_t>{13, 14}), done);
}

// --- Backup streams as files.

using NtfsExport = NtfsCopy;

TEST_F(NtfsExport, ABackupStreamIsWrittenWhole) {
    Open(Tree());
    uint64_t doneBytes = 0;
    const auto progress = [&](const Progress_t& at) {
        doneBytes = at.doneBytes;
        return true;
    };
    ASSERT_OK(ExportBackupStream(*m_Ntfs, 41, m_Target.File("stream"), false, progress));
    EXPECT_SAME_BYTES(BackupStream(41), m_Target.Read("stream"));
    EXPECT_EQ(m_Target.Read("stream").size(), doneBytes);
    EXPECT_FAILS_SAYING(ExportBackupStream(*m_Ntfs, 40, m_Target.File("stream"), false, {}), "exists already");
    EXPECT_SAME_BYTES(BackupStream(41), m_Target.Read("stream"));
    ASSERT_OK(ExportBackupStream(*m_Ntfs, 40, m_Target.File("stream"), true, {}));
    EXPECT_SAME_BYTES(BackupStream(40), m_Target.Read("stream"));
    EXPECT_EQ(Texts_t{"stream"}, Found());
}

TEST_F(NtfsExport, AnExportThatEndsEarlyLeavesNothing) {
    Open(Tree().Record(42, FileRecord().Add(NtfsDataOf("x").Flags(0x4000))));
    EXPECT_FAILS_SAYING(
        ExportBackupStream(*m_Ntfs, 40, m_Target.File("stream"), false, [](const Progress_t&) { return false; }),
        m_Target.File("stream"), "cancelled");
    EXPECT_FAILS_SAYING(ExportBackupStream(*m_Ntfs, 42, m_Target.File("stream"), false, {}), "is encrypted");
    EXPECT_FAILS_SAYING(ExportBackupStream(*m_Ntfs, 40, m_Target.File("none/stream"), false, {}), "none/stream");
    EXPECT_EQ(Texts_t{}, Found());
}

}  // namespace
