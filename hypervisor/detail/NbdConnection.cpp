#include "hypervisor/detail/NbdConnection.h"

#include <libnbd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <thread>
#include <utility>

#include "foundation/LgDebug.h"

namespace {

// The library's words begin with the name of its own call, which tells people nothing.
std::string WithoutCall(const char* words) {
    std::string text = words != nullptr ? words : "";
    if (text.rfind("nbd_", 0) != 0)
        return text;
    const size_t end = text.find(": ");
    return end != std::string::npos ? text.substr(end + 2) : text;
}

constexpr nbd_completion_callback NoCallback{};  // the outcome is asked for

struct StatusCall_t {
    const std::string& context;
    std::vector<NbdStatus_t>& pieces;
};

// Entries are pairs of a length and its flags.
int TakeStatus(void* user, const char* context, uint64_t /*offset*/, uint32_t* entries, size_t count, int* /*error*/) {
    auto& call = *static_cast<StatusCall_t*>(user);
    if (call.context != context)
        return 0;
    for (size_t index = 0; index + 1 < count; index += 2)
        call.pieces.push_back({entries[index], entries[index + 1]});
    return 0;
}

}  // namespace

CNbdConnection::~CNbdConnection() {
    if (m_Handle != nullptr && nbd_aio_is_ready(m_Handle) == 1)
        nbd_aio_disconnect(m_Handle, 0);  // the server gets to know, and isn't waited for
    Close();
}

bool CNbdConnection::Connect(const std::vector<std::string>& contexts) {
    m_Contexts = contexts;
    ++m_Generation;
    return TryToConnect();
}

bool CNbdConnection::HasContext(const std::string& context) const {
    return m_Handle != nullptr && nbd_can_meta_context(m_Handle, context.c_str()) == 1;
}

bool CNbdConnection::Read(uint64_t offset, void* buffer, uint32_t size) {
    return Run([&](nbd_handle* handle) { return nbd_aio_pread(handle, buffer, size, offset, NoCallback, 0); });
}

bool CNbdConnection::Write(uint64_t offset, const void* bytes, uint32_t size) {
    return Run([&](nbd_handle* handle) { return nbd_aio_pwrite(handle, bytes, size, offset, NoCallback, 0); });
}

bool CNbdConnection::Zero(uint64_t offset, uint64_t size) {
    if (nbd_can_zero(m_Handle) == 1)
        return Run([&](nbd_handle* handle) { return nbd_aio_zero(handle, size, offset, NoCallback, 0); });
    const std::vector<char> zeros(static_cast<size_t>(std::min<uint64_t>(size, MostBytes)), '\0');
    for (uint64_t done = 0; done < size; done += zeros.size()) {
        if (!Write(offset + done, zeros.data(), static_cast<uint32_t>(std::min<uint64_t>(size - done, zeros.size()))))
            return false;
    }
    return true;
}

bool CNbdConnection::Flush() {
    if (nbd_can_flush(m_Handle) != 1)
        return true;
    return Run([](nbd_handle* handle) { return nbd_aio_flush(handle, NoCallback, 0); });
}

bool CNbdConnection::BlockStatus(const std::string& context, uint64_t offset, uint64_t size,
                                 std::vector<NbdStatus_t>& pieces) {
    StatusCall_t call{context, pieces};
    return Run([&](nbd_handle* handle) {
        pieces.clear();
        nbd_extent_callback take{};
        take.callback = TakeStatus;
        take.user_data = &call;
        return nbd_aio_block_status(handle, size, offset, take, NoCallback, 0);
    });
}

void CNbdConnection::StartRead(uint64_t offset, void* buffer, uint32_t size, Request_t& request) {
    request = Start([&](nbd_handle* handle) { return nbd_aio_pread(handle, buffer, size, offset, NoCallback, 0); });
}

void CNbdConnection::StartWrite(uint64_t offset, const void* bytes, uint32_t size, Request_t& request) {
    request = Start([&](nbd_handle* handle) { return nbd_aio_pwrite(handle, bytes, size, offset, NoCallback, 0); });
}

CNbdConnection::Request_t CNbdConnection::Start(const Start_t& start) {
    Request_t request{m_Handle != nullptr ? start(m_Handle) : -1, m_Generation};
    if (request.cookie < 0 && m_Handle != nullptr)
        NoteError();
    return request;
}

CNbdConnection::Outcome_t CNbdConnection::Wait(const Request_t& request) {
    if (!IsCurrent(request))
        return Outcome_t::Lost;
    if (request.cookie < 0)
        return IsLost() ? Outcome_t::Lost : Outcome_t::Failed;
    for (;;) {
        const int completed = nbd_aio_command_completed(m_Handle, static_cast<uint64_t>(request.cookie));
        if (completed > 0) {
            m_LostSince.reset();
            return Outcome_t::Done;
        }
        if (completed < 0) {
            NoteError();
            return IsLost() ? Outcome_t::Lost : Outcome_t::Failed;
        }
        const int polled = nbd_poll(m_Handle, PatienceMs());
        if (polled > 0)
            continue;
        if (polled < 0)
            NoteError();
        else
            NoteError("the server doesn't answer", ETIMEDOUT);
        return Outcome_t::Lost;
    }
}

bool CNbdConnection::Finish(Request_t& request, const std::function<void()>& startAgain) {
    for (;;) {
        switch (Wait(request)) {
        case Outcome_t::Done: return true;
        case Outcome_t::Failed: return false;
        case Outcome_t::Lost: break;
        }
        if (IsCurrent(request) && !Reconnect())
            return false;
        startAgain();
    }
}

bool CNbdConnection::LetGo(const Request_t& request) {
    return Wait(request) != Outcome_t::Lost || !IsCurrent(request) || Reconnect();
}

bool CNbdConnection::FailForMemory() {
    NoteError("out of memory", ENOMEM);
    return false;
}

bool CNbdConnection::Run(const Start_t& start) {
    Request_t request = Start(start);
    return Finish(request, [&] { request = Start(start); });
}

bool CNbdConnection::Reconnect() {
    constexpr std::chrono::milliseconds longestPause(1000);
    const std::string cause = m_ErrorText;
    const uint64_t sizeBytes = m_SizeBytes;
    const bool isLostAgain = m_LostSince.has_value();
    if (!isLostAgain)
        m_LostSince = Clock_t::now();
    const Clock_t::time_point end = *m_LostSince + m_Options.patience;
    LgDebug().Error("CNbdConnection::Reconnect", "%s: %s", m_Uri.c_str(), cause.c_str());
    ++m_Generation;
    if (isLostAgain && Clock_t::now() >= end) {
        NoteError("the connection was lost again and again: " + cause, m_ErrorCode);
        return false;
    }
    for (std::chrono::milliseconds pause(20);; pause = std::min(2 * pause, longestPause)) {
        if (TryToConnect())
            break;
        if (Clock_t::now() + pause >= end) {
            NoteError("the connection was lost (" + cause + ") and couldn't be made again in " +
                          std::to_string(m_Options.patience.count() / 1000) + " s: " + m_ErrorText,
                      m_ErrorCode);
            return false;
        }
        std::this_thread::sleep_for(pause);
    }
    ++m_Reconnections;
    if (m_SizeBytes == sizeBytes)
        return true;
    NoteError("the export has " + std::to_string(m_SizeBytes) + " bytes after the connection was lost (" + cause +
                  "), and had " + std::to_string(sizeBytes),
              EIO);
    return false;
}

bool CNbdConnection::TryToConnect() {
    Close();
    m_Handle = nbd_create();
    if (m_Handle == nullptr) {
        NoteError();
        return false;
    }
    nbd_set_uri_allow_local_file(m_Handle, true);  // the keys of nbds:// are files that the URI names
    nbd_set_pread_initialize(m_Handle, false);     // no byte is used that the server didn't send
    for (const std::string& context : m_Contexts)
        nbd_add_meta_context(m_Handle, context.c_str());
    if (nbd_aio_connect_uri(m_Handle, m_Uri.c_str()) < 0) {
        NoteError();
        return false;
    }
    if (!FinishConnecting())
        return false;
    LearnOfExport();
    return true;
}

bool CNbdConnection::FinishConnecting() {
    while (nbd_aio_is_connecting(m_Handle) == 1) {
        const int polled = nbd_poll(m_Handle, PatienceMs());
        if (polled > 0)
            continue;
        if (polled < 0)
            NoteError();
        else
            NoteError("the server doesn't answer", ETIMEDOUT);
        return false;
    }
    if (nbd_aio_is_ready(m_Handle) == 1)
        return true;
    NoteError();
    return false;
}

void CNbdConnection::LearnOfExport() {
    m_SizeBytes = static_cast<uint64_t>(std::max<int64_t>(nbd_get_size(m_Handle), 0));
    m_SmallestBytes =
        static_cast<uint32_t>(std::clamp<int64_t>(nbd_get_block_size(m_Handle, LIBNBD_SIZE_MINIMUM), 1, 65536));
    m_IsReadOnly = nbd_is_read_only(m_Handle) == 1;
}

void CNbdConnection::Close() {
    nbd_close(m_Handle);  // which takes null as well
    m_Handle = nullptr;
}

bool CNbdConnection::IsLost() const {
    return m_Handle == nullptr || nbd_aio_is_dead(m_Handle) == 1 || nbd_aio_is_closed(m_Handle) == 1;
}

void CNbdConnection::NoteError() {
    NoteError(WithoutCall(nbd_get_error()), nbd_get_errno());
}

void CNbdConnection::NoteError(const std::string& text, int code) {
    m_ErrorText = !text.empty() ? text : "the server closed the connection";
    m_ErrorCode = code;
}
