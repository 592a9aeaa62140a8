#pragma once

#include <cstdint>

#include "VirtualServer/VMInfo/DiskTypes.h"
#include "VirtualServer/VMInfo/VHDFormat.h"
#include "foundation/detail/ErrorHandling.h"

// What the reading and the writing half of `CVHDFileReader` both say.

constexpr Condition_t VhdEndOfDisk{ErrorType::Condition, 4001, 1, nullptr};
constexpr Condition_t VhdSectorNotFound{ErrorType::Condition, 4001, 2, nullptr};

constexpr char VhdNoDiskName[] = "Disk name is NULL";
constexpr char VhdNoOpenDisk[] = "Object is in invalid state. Make sure OpenDisk succeeded";

// In a metadata record: where the footer behind it lies, in hexadecimal.
constexpr uint32_t VhdPositionTextBytes = 16;

// The footer's type for the disk types that the class serves.
inline CZuError FooterTypeOf(DiskType_t type, uint32_t& footerType) {
    switch (type) {
    case DiskType_VhdFixed: footerType = VhdDiskTypeFixed; return CZuError();
    case DiskType_VhdDynamic: footerType = VhdDiskTypeDynamic; return CZuError();
    case DiskType_VhdDifferencing: footerType = VhdDiskTypeDifferencing; return CZuError();
    default:
        return Refusal(CZuString::Format("Disk of type {1} is not supported by this class", static_cast<int>(type)));
    }
}
