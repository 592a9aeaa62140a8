#include "platform/NtfsVolumeControl.h"

#include "platform/SystemVolumeControl.h"

namespace {
INtfsVolumeControl* g_volumeControlInFront = nullptr;
}

std::shared_ptr<INtfsVolumeControl> NtfsVolumeControlOfSystem(int fd) {
    if (g_volumeControlInFront != nullptr)
        return {g_volumeControlInFront, [](INtfsVolumeControl*) {}};  // it stays its owner's
    return SystemVolumeControl(fd);
}

INtfsVolumeControl* PutNtfsVolumeControlInFront(INtfsVolumeControl* control) {
    INtfsVolumeControl* const before = g_volumeControlInFront;
    g_volumeControlInFront = control;
    return before;
}
