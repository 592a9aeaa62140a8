#include "archive/CreateMFTTree.h"

#include <gtest/gtest.h>

#include <string>

#include "platform/SharedLibrary.h"
#include "tests/support/RecordingTreeStore.h"
#include "tests/support/TempDir.h"

namespace {

class CreateMFTTree : public testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(0U, m_Tree.Init()); }

    int Open(const std::string& name) {
        std::string path = m_Dir.File(name);
        return m_Tree.Open(path.data());
    }

    int Add(const std::string& name) {
        std::string writable = name;
        return m_Tree.Add(5, 64, 1000, 111, 0, writable.data(), 0x20, 222, 333);
    }

    std::string Line(const std::string& name) const { return "5 64 1000 111 32 222 333 0 " + name + "\n"; }

    CTempDir m_Dir;
    CCreateMFTTree m_Tree;
};

TEST(SharedLibrary, OneThatIsNowhereDoesNotLoad) {
    CSharedLibrary library;
    EXPECT_NE(0U, library.Load("diskstream-nowhere"));
    EXPECT_FALSE(library.IsLoaded());
    void* address = &library;
    EXPECT_NE(0U, library.Find("tsImageTableOpen", address));
    EXPECT_EQ(nullptr, address);
}

TEST(SharedLibrary, GivesWhatItExportsAndNothingElse) {
    CSharedLibrary library;
    ASSERT_EQ(0U, library.Load("treestore"));
    void* address = nullptr;
    EXPECT_EQ(0U, library.Find("tsImageTableOpen", address));
    EXPECT_NE(nullptr, address);
    EXPECT_NE(0U, library.Find("tsImageTableNone", address));
    library.Free();
    EXPECT_FALSE(library.IsLoaded());
}

TEST_F(CreateMFTTree, HandsEachFileToTheLibrary) {
    ASSERT_EQ(0, Open("table"));
    EXPECT_EQ(0, Add("one"));
    EXPECT_EQ(0, Add("n\u00E4me"));
    EXPECT_EQ(0, m_Tree.Close());
    EXPECT_EQ(Line("one") + Line("n\u00E4me") + TreeEndLine, m_Dir.Read("table"));
}

TEST_F(CreateMFTTree, WithoutThemAttributesAndTimesStayAsTheyWere) {
    ASSERT_EQ(0, Open("table"));
    std::string name = "fresh";
    EXPECT_EQ(0, m_Tree.Add(1, 2, 3, 4, 1, name.data()));
    EXPECT_EQ(0, Add("full"));
    EXPECT_EQ(0, m_Tree.Add(1, 2, 3, 4, 1, name.data()));
    EXPECT_EQ(0, m_Tree.Close());
    EXPECT_EQ("1 2 3 4 0 0 0 1 fresh\n" + Line("full") + "1 2 3 4 32 222 333 1 fresh\n" + TreeEndLine,
              m_Dir.Read("table"));
}

TEST_F(CreateMFTTree, ASecondInitLoadsNothingAgain) {
    EXPECT_EQ(0U, m_Tree.Init());
}

TEST_F(CreateMFTTree, ASecondOpenClosesTheFirstTable) {
    ASSERT_EQ(0, Open("first"));
    ASSERT_EQ(0, Open("second"));
    EXPECT_EQ(TreeEndLine, m_Dir.Read("first"));
    EXPECT_EQ(0, m_Tree.Close());
}

TEST_F(CreateMFTTree, ASecondCloseHasNothingToDo) {
    ASSERT_EQ(0, Open("table"));
    EXPECT_EQ(0, m_Tree.Close());
    EXPECT_EQ(0, m_Tree.Close());
}

TEST_F(CreateMFTTree, AFailedCloseIsToldOnce) {
    ASSERT_EQ(0, Open("unclosed"));
    EXPECT_EQ(1, m_Tree.Close());
    EXPECT_EQ(0, m_Tree.Close());
}

TEST_F(CreateMFTTree, WhatTheLibraryRefusesIsAFailure) {
    EXPECT_EQ(1, Open("refused"));
    EXPECT_EQ(1, Add("no table"));
    ASSERT_EQ(0, Open("table"));
    EXPECT_EQ(1, Add("refused"));
}

TEST_F(CreateMFTTree, ANameThatAnEntryHasNoRoomForIsRefused) {
    ASSERT_EQ(0, Open("table"));
    EXPECT_EQ(0, Add(std::string(1046, 'n')));
    EXPECT_EQ(1, Add(std::string(1047, 'n')));
}

TEST(CreateMFTTreeWithoutInit, OpensNothing) {
    CCreateMFTTree tree;
    char path[] = "table";
    EXPECT_EQ(1, tree.Open(path));
    EXPECT_EQ(0, tree.Close());
}

TEST(CreateMFTTreeAtItsEnd, ClosesTheTable) {
    const CTempDir dir;
    {
        CCreateMFTTree tree;
        ASSERT_EQ(0U, tree.Init());
        std::string path = dir.File("table");
        ASSERT_EQ(0, tree.Open(path.data()));
    }
    EXPECT_EQ(TreeEndLine, dir.Read("table"));
}

}  // namespace
