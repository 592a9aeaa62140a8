#pragma once

#include <vector>

#include "VirtualServer/VMInfo/LDMDatabase.h"
#include "foundation/ZuError.h"
#include "foundation/detail/ByteView.h"
#include "platform/Export.h"

// Makes `group` the disk group of whole records, with its volumes, their components, the components'
// partitions and the disk of each. Fails, with `group` as far as it came, where a record is unsound, a
// parent is missing, or a record has other children than it counts. A disk that no partition lies on
// is left out.
DISKSTREAM_EXPORT CZuError BuildVblkTree(const std::vector<CByteView>& records, CLDM_VBLK& group);
