#include "agent/detail/CatalogTree.h"

#include "agent/detail/SetDatabase.h"
#include "foundation/detail/ErrorHandling.h"

CZuError ReadTree(const std::string& path, const std::function<CZuError(const TreeName_t&)>& take) {
    CSetDatabase tree;
    CSetStatement rows;
    ZU_RETURN_IF_ERROR(tree.OpenForReading(path));
    ZU_RETURN_IF_ERROR(rows.Prepare(tree, "SELECT parent, frn, name FROM files ORDER BY parent, name"));
    TreeName_t name;
    for (;;) {
        bool hasRow = false;
        ZU_RETURN_IF_ERROR(rows.Step(hasRow));
        if (!hasRow)
            return CZuError();
        name.parent = static_cast<uint64_t>(rows.Number(0));
        name.frn = static_cast<uint64_t>(rows.Number(1));
        name.name = rows.Text(2);
        ZU_RETURN_IF_ERROR(take(name));
    }
}
