#pragma once

#include "platform/Export.h"

// A library that is loaded while the program runs, and let go with this object.
class DISKSTREAM_EXPORT CSharedLibrary {
public:
    CSharedLibrary() = default;
    CSharedLibrary(const CSharedLibrary&) = delete;
    CSharedLibrary& operator=(const CSharedLibrary&) = delete;
    ~CSharedLibrary() { Free(); }

    // Loads the library of that name, "treestore" for libtreestore.so or Libtreestore.dll, which the system's loader
    // finds or which lies beside the library or program that this code is in. Answers 0 or the system's error number.
    unsigned long Load(const char* name);

    bool IsLoaded() const { return m_Handle != nullptr; }

    // Gives the address of what the library exports under that name. Answers 0 or the system's error number.
    unsigned long Find(const char* symbol, void*& address) const;

    void Free();

private:
    void* m_Handle = nullptr;
};
