#include <cerrno>

#include "platform/NtfsVolumeControl.h"
#include "platform/SystemVolumeControl.h"

int BadVolumeReplyError() {
    return EINVAL;
}

// No file system here tells where NTFS keeps its clusters; the volume's own bytes do.
std::shared_ptr<INtfsVolumeControl> SystemVolumeControl(int /*fd*/) {
    return nullptr;
}
