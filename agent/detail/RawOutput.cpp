#include "agent/detail/RawOutput.h"

#include <algorithm>
#include <cstring>

#include "VirtualServer/VMInfo/UtilityFunctions.h"
#include "agent/ErrorText.h"
#include "agent/detail/OutOfMemory.h"
#include "agent/detail/RestoreTarget.h"
#include "foundation/detail/ErrorHandling.h"
#include "platform/DriveSize.h"

CZuError CRawOutput::Prepare(const CBackupSetReader& set, const std::string& target, uint64_t diskBytes,
                             const RestoreOptions_t& options) {
    m_Target = target;
    m_DiskBytes = diskBytes;
    m_IsDevice = IsBlockDevice(target);
    return m_IsDevice ? PrepareDevice(target, options) : BeginRestored(m_Staged, set, target, options.force);
}

CZuError CRawOutput::PrepareDevice(const std::string& target, const RestoreOptions_t& options) {
    if (!options.force)
        return Refusal(target +
                       ": is a device, and what it holds would be lost; if that is what you want, say --force");
    uint64_t deviceBytes = 0;
    uint32_t systemError = 0;
    if (FindDriveSize(target, deviceBytes, systemError) != DriveSizeResult_t::Found)
        return ErrorAt(target, SystemFailure(static_cast<int>(systemError)));
    if (deviceBytes < m_DiskBytes)
        return Refusal(
            CZuString::Format("{1}: has {2} bytes, and the disk needs {3}", target, deviceBytes, m_DiskBytes));
    return ErrorAt(target, SystemFailure(m_Claim.Take(target)));
}

CZuError CRawOutput::Begin() {
    constexpr int ownerReadsAndWrites = 384;
    constexpr int flags = OpenAsBinary | OpenNotInherited | OpenForBoth;
    const std::string& name = m_IsDevice ? m_Target : m_Staged.TemporaryName();
    const int making = m_IsDevice ? 0 : OpenCreating | OpenTruncating;
    ZU_RETURN_IF_ERROR(ErrorAt(m_Target, m_File.Open(name.c_str(), flags | making, ownerReadsAndWrites)));
    m_EarlySync.Begin(m_File);
    return m_IsDevice ? CZuError() : ErrorAt(m_Target, m_File.Truncate(static_cast<int64_t>(m_DiskBytes)));
}

CZuError CRawOutput::Write(uint64_t offset, const char* bytes, uint32_t size) {
    ZU_RETURN_IF_ERROR(FinishUpTo(offset));
    m_HasWritten = true;
    ZU_RETURN_IF_ERROR(ErrorAt(m_Target, WriteFileAt(m_File, offset, 0, bytes, size, nullptr)));
    m_DoneBytes = std::max(m_DoneBytes, offset + size);
    m_EarlySync.Count(size);
    return CZuError();
}

CZuError CRawOutput::FinishUpTo(uint64_t offset) {
    constexpr uint32_t zerosBytes = 1U << 20U;
    if (!m_IsDevice || m_DoneBytes >= offset)
        return CZuError();
    if (m_Zeros.GetSize() == 0) {
        if (m_Zeros.Alloc(zerosBytes) == nullptr)
            return Refusal(OutOfMemory);
        std::memset(m_Zeros.GetPtr(), 0, zerosBytes);
    }
    m_HasWritten = true;
    while (m_DoneBytes < offset) {
        const auto size = static_cast<uint32_t>(std::min<uint64_t>(offset - m_DoneBytes, zerosBytes));
        ZU_RETURN_IF_ERROR(ErrorAt(m_Target, WriteFileAt(m_File, m_DoneBytes, 0, m_Zeros.GetPtr(), size, nullptr)));
        m_DoneBytes += size;
        m_EarlySync.Count(size);
    }
    return CZuError();
}

CZuError CRawOutput::Commit(RestoreResult_t& result) {
    ZU_RETURN_IF_ERROR(FinishUpTo(m_DiskBytes));
    if (m_IsDevice)
        ZU_RETURN_IF_ERROR(ErrorAt(m_Target, m_File.Sync()));
    ZU_RETURN_IF_ERROR(ErrorAt(m_Target, m_File.Close()));
    if (!m_IsDevice)
        ZU_RETURN_IF_ERROR(m_Staged.Commit());
    result.files.push_back(m_Target);
    return CZuError();
}
