#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <thread>

#include "treestore/FileBatch.h"
#include "treestore/TreeDatabase.h"

namespace treestore {

// Takes files and lets a thread of its own put them into the database, so that who finds the files goes on meanwhile.
// A few batches may wait; then adding does. What fails in the thread is told by a later call.
class CTreeWriter {
public:
    CTreeWriter() = default;
    CTreeWriter(const CTreeWriter&) = delete;
    CTreeWriter& operator=(const CTreeWriter&) = delete;
    ~CTreeWriter() { EndThread(); }

    // Throws when there is no thread to be had.
    bool Open(const char* path);

    // False for a name without an end, and when a file before couldn't be kept: nothing will be then.
    bool Add(const TreeStoreEntry_t& entry);

    // False when nothing is kept.
    bool Close();

private:
    static constexpr uint64_t BatchCount = 4;

    bool Fail();
    void HandOver();
    void EndThread();
    void WriteBatches();

    CTreeDatabase m_Database;          // the thread's while there is one
    CFileBatch m_Batches[BatchCount];  // in turn; the one in work is the caller's, those handed over the thread's
    std::atomic<bool> m_HasFailed = false;
    std::mutex m_Mutex;
    std::condition_variable m_Changed;  // one of these:
    uint64_t m_HandedOver = 0;          // batches
    uint64_t m_Written = 0;
    bool m_IsEnding = false;
    std::thread m_Thread;
};

}  // namespace treestore
