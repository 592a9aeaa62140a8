#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "hypervisor/NbdVMInfo.h"

struct nbd_handle;

// What a server tells of a piece of its export.
struct NbdStatus_t {
    uint64_t bytes = 0;
    uint32_t flags = 0;  // of the context that was asked
};

// One export. A connection that breaks is made again and the request repeated, for as long as the options say; the
// export then has to be of the same size. Operations answer false for a failure, which `ErrorText` and `ErrorCode`
// tell.
class CNbdConnection {
public:
    CNbdConnection(std::string uri, const NbdOptions_t& options) : m_Uri(std::move(uri)), m_Options(options) {}
    CNbdConnection(const CNbdConnection&) = delete;
    CNbdConnection& operator=(const CNbdConnection&) = delete;
    ~CNbdConnection();

    // Connects, and asks for the contexts; which ones the server has, `HasContext` tells.
    bool Connect(const std::vector<std::string>& contexts);

    uint64_t SizeBytes() const { return m_SizeBytes; }
    bool IsReadOnly() const { return m_IsReadOnly; }
    bool HasContext(const std::string& context) const;

    // Requests begin and end at multiples of the server's smallest block, or at the export's end, and have at most
    // `MostBytes`.
    uint32_t SmallestBytes() const { return m_SmallestBytes; }
    static constexpr uint32_t MostBytes = 4U << 20U;

    bool Read(uint64_t offset, void* buffer, uint32_t size);
    bool Write(uint64_t offset, const void* bytes, uint32_t size);
    bool Zero(uint64_t offset, uint64_t size);
    bool Flush();
    bool BlockStatus(const std::string& context, uint64_t offset, uint64_t size, std::vector<NbdStatus_t>& pieces);

    // For several requests on their way at once. A request that was started in an older generation has died with its
    // connection, and touches its buffer no more.
    struct Request_t {
        int64_t cookie = -1;
        unsigned generation = 0;
    };
    using Start_t = std::function<int64_t(nbd_handle*)>;
    void StartRead(uint64_t offset, void* buffer, uint32_t size, Request_t& request);
    void StartWrite(uint64_t offset, const void* bytes, uint32_t size, Request_t& request);

    // Waits for a request, which `startAgain` makes anew over a new connection.
    bool Finish(Request_t& request, const std::function<void()>& startAgain);

    // Waits until the server has nothing more to do with the request, whatever became of it. False when the connection
    // was lost and couldn't be made again.
    bool LetGo(const Request_t& request);

    // How often the connection was made again. What was written before may be gone with a server that failed.
    unsigned Reconnections() const { return m_Reconnections; }

    // Notes that a buffer for a request couldn't be had.
    bool FailForMemory();

    const std::string& ErrorText() const { return m_ErrorText; }
    int ErrorCode() const { return m_ErrorCode; }

private:
    enum class Outcome_t { Done, Lost, Failed };
    Outcome_t Wait(const Request_t& request);
    bool IsCurrent(const Request_t& request) const { return request.generation == m_Generation; }
    bool Reconnect();
    bool TryToConnect();
    bool FinishConnecting();
    void LearnOfExport();
    void Close();
    bool Run(const Start_t& start);
    Request_t Start(const Start_t& start);
    bool IsLost() const;
    void NoteError();
    void NoteError(const std::string& text, int code);
    int PatienceMs() const { return static_cast<int>(m_Options.patience.count()); }

    using Clock_t = std::chrono::steady_clock;

    const std::string m_Uri;
    const NbdOptions_t m_Options;
    std::vector<std::string> m_Contexts;
    nbd_handle* m_Handle = nullptr;
    unsigned m_Generation = 0;
    unsigned m_Reconnections = 0;
    std::optional<Clock_t::time_point> m_LostSince;  // none while requests are answered
    uint64_t m_SizeBytes = 0;
    uint32_t m_SmallestBytes = 1;
    bool m_IsReadOnly = false;
    std::string m_ErrorText;
    int m_ErrorCode = 0;
};
