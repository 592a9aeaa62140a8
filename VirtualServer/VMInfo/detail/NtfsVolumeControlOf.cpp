#include "VirtualServer/VMInfo/detail/NtfsVolumeControlOf.h"

#include <algorithm>
#include <cstring>

#include "VirtualServer/VMInfo/detail/NtfsVolumeOnDisk.h"
#include "foundation/LgDebug.h"
#include "foundation/detail/ErrorHandling.h"
#include "platform/DeviceClaim.h"

namespace {

class CVolumeControlOnDisk final : public INtfsVolumeControl {
public:
    explicit CVolumeControlOnDisk(const CZuFile& volume) : m_File(volume) {}

    // Nothing stands between the volume's bytes and their reader.
    int AllowExtendedAccess() override { return 0; }

    int ReadVolumeData(NTFS_VOLUME_DATA_BUFFER& data, uint32_t& got) override {
        got = 0;
        if (const int error = NumberOf(m_Volume.Open(m_File)); error != 0)
            return error;
        data = m_Volume.Data();
        got = sizeof(data);
        return 0;
    }

    int ReadBitmap(uint64_t firstLcn, char* reply, uint32_t replyBytes, uint32_t& got) override {
        got = 0;
        if (replyBytes <= NtfsBitmapHeadBytes)
            return BadVolumeReplyError();
        if (firstLcn >= m_Volume.ClusterCount())
            return NtfsBitmapIsOver;
        const uint64_t first = firstLcn - firstLcn % 8;
        uint32_t bitmapBytes = 0;
        const CZuError reading =
            m_Volume.ReadBitmap(first, reply + NtfsBitmapHeadBytes, replyBytes - NtfsBitmapHeadBytes, bitmapBytes);
        if (const int error = NumberOf(reading); error != 0)
            return error;
        const uint64_t clusters = m_Volume.ClusterCount() - first;
        PutHead(first, clusters, reply);
        got = NtfsBitmapHeadBytes + bitmapBytes;
        return clusters > uint64_t{bitmapBytes} * 8 ? NtfsBitmapIsCut : 0;
    }

    int Lock() override { return m_Claim.Take(m_File.GetName()); }

private:
    static void PutHead(uint64_t first, uint64_t clusters, char* reply) {
        Le64_t head[2];
        head[0] = first;
        head[1] = clusters;
        static_assert(sizeof(head) == NtfsBitmapHeadBytes);
        std::memcpy(reply, head, sizeof(head));
    }

    static int NumberOf(const CZuError& error) {
        if (!error.IsErrorSet())
            return 0;
        LgDebug().Error("CVolumeControlOnDisk::NumberOf", "%s", error.ConvertToString());
        return error.GetErrorType() == ErrorType::System ? static_cast<int>(error.GetErrorCode())
                                                         : BadVolumeReplyError();
    }

    CZuFile m_File;
    CNtfsVolumeOnDisk m_Volume;
    CDeviceClaim m_Claim;
};

}  // namespace

std::shared_ptr<INtfsVolumeControl> NtfsVolumeControlOf(const CZuFile& volume) {
    std::shared_ptr<INtfsVolumeControl> control = NtfsVolumeControlOfSystem(volume.GetFD());
    return control != nullptr ? control : std::make_shared<CVolumeControlOnDisk>(volume);
}
