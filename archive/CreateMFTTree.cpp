#include "archive/CreateMFTTree.h"

#include <cstring>

namespace {

constexpr char LibraryName[] = "treestore";

template <typename Call> unsigned long FindCall(const CSharedLibrary& library, const char* name, Call& call) {
    void* address = nullptr;
    const unsigned long error = library.Find(name, address);
    call = reinterpret_cast<Call>(address);
    return error;
}

}  // namespace

CCreateMFTTree::~CCreateMFTTree() {
    Close();
}

unsigned long CCreateMFTTree::Init() {
    if (m_Library.IsLoaded())
        return 0;
    unsigned long error = m_Library.Load(LibraryName);
    if (error == 0)
        error = Bind();
    if (error != 0)
        m_Library.Free();
    return error;
}

unsigned long CCreateMFTTree::Bind() {
    unsigned long error = FindCall(m_Library, "tsImageTableOpen", m_Open);
    if (error == 0)
        error = FindCall(m_Library, "tsImageTableAdd", m_Add);
    if (error == 0)
        error = FindCall(m_Library, "tsImageTableClose", m_Close);
    return error;
}

int CCreateMFTTree::Open(char* path) {
    Close();
    if (m_Library.IsLoaded())
        m_Table = m_Open(path);
    return m_Table == nullptr ? 1 : 0;
}

int CCreateMFTTree::Add(uint64_t parent, uint64_t frn, uint64_t size, unsigned int writeTime, unsigned char isDirectory,
                        char* name) {
    const size_t nameBytes = std::strlen(name);
    if (m_Table == nullptr || nameBytes >= sizeof(m_Entry.name))
        return 1;
    m_Entry.parentFrn = parent;
    m_Entry.frn = frn;
    m_Entry.sizeBytes = size;
    m_Entry.writeTime = writeTime;
    m_Entry.isDirectory = isDirectory;
    std::memcpy(m_Entry.name, name, nameBytes);
    std::memset(m_Entry.name + nameBytes, 0, sizeof(m_Entry.name) - nameBytes);  // nothing of a longer name stays
    return m_Add(m_Table, &m_Entry) != 0 ? 1 : 0;
}

int CCreateMFTTree::Add(uint64_t parent, uint64_t frn, uint64_t size, unsigned int writeTime, unsigned char isDirectory,
                        char* name, unsigned long attributes, unsigned long accessTime, unsigned long creationTime) {
    m_Entry.fileAttributes = static_cast<uint32_t>(attributes);
    m_Entry.accessTime = static_cast<uint32_t>(accessTime);
    m_Entry.creationTime = static_cast<uint32_t>(creationTime);
    return Add(parent, frn, size, writeTime, isDirectory, name);
}

int CCreateMFTTree::Close() {
    if (m_Table == nullptr)
        return 0;
    const int result = m_Close(m_Table);
    m_Table = nullptr;
    return result != 0 ? 1 : 0;
}
