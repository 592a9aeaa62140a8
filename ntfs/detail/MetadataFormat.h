#pragma once

#include <cstddef>
#include <cstdint>

#include "VirtualServer/VMInfo/NtfsVolumeData.h"
#include "foundation/ByteOrder.h"

// The files that a collection of a volume's metadata leaves. See docs/formats/ntfs-metadata.md.

// What each of them begins with.
constexpr char MetadataSignature[12] = {'O', 'b', 'I', 'M', 'G', 'D', 'C', 0, '1', '.', '0', 0};

// The front of the volume information file. The runs of the MFT follow, as `DATARUN_EXTENTS`.
struct MetadataVolumeInformation_t {
    char signature[12];                  //   0
    Le32_t value;                        //  12  the caller's
    NTFS_VOLUME_DATA_BUFFER volumeData;  //  16
    uint8_t objectId[16];                // 112  of the volume, or zeros
};
static_assert(sizeof(MetadataVolumeInformation_t) == 128 && offsetof(MetadataVolumeInformation_t, volumeData) == 16);

struct MetadataSecurityHead_t {
    Le32_t securityId;
    Le32_t bytes;  // of the descriptor behind it
};
static_assert(sizeof(MetadataSecurityHead_t) == 8);
