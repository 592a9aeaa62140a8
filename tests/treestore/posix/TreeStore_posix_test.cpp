#include <gtest/gtest.h>
#include <sys/resource.h>

#include <csignal>
#include <cstring>
#include <string>
#include <vector>

#include "tests/support/SameBytes.h"
#include "tests/support/TempDir.h"
#include "treestore/TreeStore.h"

namespace {

// No file grows beyond so many bytes as long as this lives: writing fails as on a full disk.
class CFileSizeLimit {
public:
    explicit CFileSizeLimit(rlim_t bytes) : m_Handler(std::signal(SIGXFSZ, SIG_IGN)) {
        getrlimit(RLIMIT_FSIZE, &m_Before);
        const rlimit limit{bytes, m_Before.rlim_max};
        EXPECT_EQ(0, setrlimit(RLIMIT_FSIZE, &limit));
    }
    CFileSizeLimit(const CFileSizeLimit&) = delete;
    CFileSizeLimit& operator=(const CFileSizeLimit&) = delete;
    ~CFileSizeLimit() {
        EXPECT_EQ(0, setrlimit(RLIMIT_FSIZE, &m_Before));
        std::signal(SIGXFSZ, m_Handler);
    }

private:
    void (*m_Handler)(int);
    rlimit m_Before{};
};

TreeStoreEntry_t FileWithALongName(uint64_t frn) {
    TreeStoreEntry_t entry{};
    entry.frn = frn;
    std::memset(entry.name, 'n', sizeof(entry.name) - 1);
    return entry;
}

TEST(TreeStoreFullDisk, IsToldByALaterAddAndByClosingAndWhatStoodThereStays) {
    const CTempDir dir;
    const std::string path = dir.File("tree");
    void* const before = tsImageTableOpen(path.c_str());
    const TreeStoreEntry_t old = FileWithALongName(1);
    ASSERT_EQ(0, tsImageTableAdd(before, &old));
    ASSERT_EQ(0, tsImageTableClose(before));
    const std::string contents = dir.Read("tree");

    {
        const CFileSizeLimit limit(256 * 1024);
        void* const table = tsImageTableOpen(path.c_str());
        ASSERT_NE(nullptr, table);
        constexpr uint64_t tooMany = 50000;
        uint64_t frn = 1;
        int result = 0;
        for (; result == 0 && frn < tooMany; ++frn) {
            const TreeStoreEntry_t file = FileWithALongName(frn);
            result = tsImageTableAdd(table, &file);
        }
        EXPECT_NE(0, result);
        EXPECT_NE(0, tsImageTableAdd(table, &old));
        EXPECT_NE(0, tsImageTableClose(table));
    }
    EXPECT_SAME_BYTES(contents, dir.Read("tree"));
    EXPECT_EQ(std::vector<std::string>{"tree"}, dir.Entries());
}

TEST(TreeStoreFullDisk, IsToldByClosingWhenTheFilesFitIntoMemory) {
    const CTempDir dir;
    const CFileSizeLimit limit(64 * 1024);
    void* const table = tsImageTableOpen(dir.File("tree").c_str());
    ASSERT_NE(nullptr, table);
    for (uint64_t frn = 1; frn < 500; ++frn) {
        const TreeStoreEntry_t file = FileWithALongName(frn);
        EXPECT_EQ(0, tsImageTableAdd(table, &file));
    }
    EXPECT_NE(0, tsImageTableClose(table));
}

}  // namespace
