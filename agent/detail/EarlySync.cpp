#include "agent/detail/EarlySync.h"

#include "foundation/detail/ErrorHandling.h"

CZuError CEarlySync::Begin(const std::string& name) {
    CZuFile file;
    ZU_RETURN_IF_ERROR(file.Open(name.c_str(), OpenAsBinary | OpenNotInherited, 0));
    Begin(file);
    return CZuError();
}

void CEarlySync::Count(uint64_t bytes) {
    constexpr uint64_t stretchBytes = uint64_t{16} << 20U;
    m_Written += bytes;
    if (m_Written - m_Begun < stretchBytes)
        return;
    m_File.BeginSync(static_cast<int64_t>(m_Begun));
    m_Begun = m_Written;
}

void CEarlySync::End() {
    Dropped(m_File.Close());  // nothing was written through it
}
