#pragma once

#include <memory>

class INtfsVolumeControl;

// The system's own control, with nothing in front; null where it has none.
std::shared_ptr<INtfsVolumeControl> SystemVolumeControl(int fd);
