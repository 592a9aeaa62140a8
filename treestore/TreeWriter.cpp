#include "treestore/TreeWriter.h"

#include <cstddef>
#include <cstring>

namespace treestore {

bool CTreeWriter::Open(const char* path) {
    if (!m_Database.Open(path))
        return false;
    m_Thread = std::thread([this] { WriteBatches(); });
    return true;
}

bool CTreeWriter::Add(const TreeStoreEntry_t& entry) {
    const void* const nameEnd = std::memchr(entry.name, 0, sizeof(entry.name));
    if (m_HasFailed || nameEnd == nullptr)
        return Fail();
    CFileBatch& batch = m_Batches[m_HandedOver % BatchCount];
    batch.Add(entry, static_cast<size_t>(static_cast<const char*>(nameEnd) - entry.name));
    if (batch.IsFull())
        HandOver();
    return true;
}

bool CTreeWriter::Close() {
    HandOver();
    EndThread();
    if (!m_HasFailed)
        return m_Database.Finish();
    m_Database.TakeBack();
    return false;
}

bool CTreeWriter::Fail() {
    m_HasFailed = true;
    return false;
}

// Waits until the next batch is free: the thread takes every batch off, after a failure too.
void CTreeWriter::HandOver() {
    std::unique_lock<std::mutex> lock(m_Mutex);
    ++m_HandedOver;
    m_Changed.notify_all();
    m_Changed.wait(lock, [this] { return m_HandedOver - m_Written < BatchCount; });
}

void CTreeWriter::EndThread() {
    if (!m_Thread.joinable())
        return;
    {
        const std::lock_guard<std::mutex> lock(m_Mutex);
        m_IsEnding = true;
        m_Changed.notify_all();
    }
    m_Thread.join();
}

void CTreeWriter::WriteBatches() {
    std::unique_lock<std::mutex> lock(m_Mutex);
    for (;;) {
        m_Changed.wait(lock, [this] { return m_Written != m_HandedOver || m_IsEnding; });
        if (m_Written == m_HandedOver)
            return;
        CFileBatch& batch = m_Batches[m_Written % BatchCount];
        lock.unlock();
        if (!m_HasFailed && !m_Database.Insert(batch))
            m_HasFailed = true;
        batch.Clear();
        lock.lock();
        ++m_Written;
        m_Changed.notify_all();
    }
}

}  // namespace treestore
