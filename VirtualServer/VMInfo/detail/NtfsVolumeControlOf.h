#pragma once

#include <memory>

#include "foundation/ZuFile.h"
#include "platform/Export.h"
#include "platform/NtfsVolumeControl.h"

// The control of the NTFS volume that is open as `volume`, which is shared: the system's, or where it has none one that
// reads the volume's own bytes and answers as the system would. What that one finds wrong with the volume goes to the
// log.
DISKSTREAM_EXPORT std::shared_ptr<INtfsVolumeControl> NtfsVolumeControlOf(const CZuFile& volume);
