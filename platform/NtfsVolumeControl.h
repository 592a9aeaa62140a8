#pragma once

#include <cstdint>
#include <memory>

#include "platform/Export.h"
#include "platform/NtfsVolumeRecord.h"

// What a file system tells of the NTFS volume that is open, and lets be done with it. Each operation answers 0 or the
// system's own error number; a bitmap has two more outcomes of its own.
class INtfsVolumeControl {
public:
    INtfsVolumeControl() = default;
    INtfsVolumeControl(const INtfsVolumeControl&) = delete;
    INtfsVolumeControl& operator=(const INtfsVolumeControl&) = delete;
    virtual ~INtfsVolumeControl() = default;

    // Lets reads and writes go past the limits of the file system, to the end of the volume.
    virtual int AllowExtendedAccess() = 0;

    // `got` is the bytes of `data` that were filled.
    virtual int ReadVolumeData(NTFS_VOLUME_DATA_BUFFER& data, uint32_t& got) = 0;

    // Fills `reply` with a head (see below) and the bitmap from cluster `firstLcn` on, rounded down to a multiple of 8,
    // the low bit of each byte first. `got` is the bytes of the reply, the head's included. `NtfsBitmapIsCut` says that
    // the volume goes on behind a reply that is whole, `NtfsBitmapIsOver` that the cluster lies behind the volume.
    virtual int ReadBitmap(uint64_t firstLcn, char* reply, uint32_t replyBytes, uint32_t& got) = 0;

    // Keeps all others out until the volume is closed. What is in use elsewhere can't be locked.
    virtual int Lock() = 0;
};

// The numbers that Windows has for these outcomes. No other system's numbers for a failure of these operations are the
// same.
constexpr int NtfsBitmapIsOver = 87;
constexpr int NtfsBitmapIsCut = 234;

// In front of the bitmap in a reply: the first cluster and the number of those from there to the volume's end, each in
// 8 bytes, least significant byte first.
constexpr uint32_t NtfsBitmapHeadBytes = 16;

// The system's own number for a reply that makes no sense.
DISKSTREAM_EXPORT int BadVolumeReplyError();

// The control of the volume open as `fd`, which stays the caller's; null where the system has no such thing.
DISKSTREAM_EXPORT std::shared_ptr<INtfsVolumeControl> NtfsVolumeControlOfSystem(int fd);

// Makes `control` the control of every volume, or lets the system's be again with null. Returns what stood there
// before, null for nothing. For tests: not while another thread works with volumes.
DISKSTREAM_EXPORT INtfsVolumeControl* PutNtfsVolumeControlInFront(INtfsVolumeControl* control);
