#include "treestore/TreeStore.h"

#include <cstddef>
#include <exception>
#include <memory>

#include "treestore/TreeWriter.h"

namespace {

static_assert(sizeof(TreeStoreEntry_t) == 1088 && offsetof(TreeStoreEntry_t, name) == 41);

// Runs what may find no memory or no thread; nothing is thrown at callers in C.
template <typename Step> bool Succeeds(Step step) {
    try {
        return step();
    } catch (const std::exception&) {
        return false;
    }
}

}  // namespace

void* tsImageTableOpen(const char* path) {
    if (path == nullptr)
        return nullptr;
    std::unique_ptr<treestore::CTreeWriter> table;
    const bool isOpen = Succeeds([&] {
        table = std::make_unique<treestore::CTreeWriter>();
        return table->Open(path);
    });
    return isOpen ? table.release() : nullptr;
}

int tsImageTableAdd(void* table, const TreeStoreEntry_t* entry) {
    if (table == nullptr || entry == nullptr)
        return 1;
    return static_cast<treestore::CTreeWriter*>(table)->Add(*entry) ? 0 : 1;
}

int tsImageTableClose(void* table) {
    const std::unique_ptr<treestore::CTreeWriter> closed(static_cast<treestore::CTreeWriter*>(table));
    return closed != nullptr && closed->Close() ? 0 : 1;
}
