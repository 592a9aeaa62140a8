#include "tests/interop/NbdServers.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstring>
#include <thread>

CNbdServer::CNbdServer(const std::vector<std::string>& arguments, std::string exportName)
    : m_Arguments(arguments), m_ExportName(std::move(exportName)), m_Socket(m_Dir.File("s")) {}

CNbdServer::~CNbdServer() {
    Kill();
}

bool CNbdServer::Start() {
    std::filesystem::remove(m_Socket);
    std::vector<std::string> words = m_Arguments;
    for (std::string& word : words) {
        const size_t at = word.find("SOCKET");
        if (at != std::string::npos)
            word.replace(at, std::strlen("SOCKET"), m_Socket);
    }
    std::vector<char*> pointers;
    for (std::string& word : words)
        pointers.push_back(word.data());
    pointers.push_back(nullptr);
    m_Process = fork();
    if (m_Process == 0) {
        const int nothing = open("/dev/null", O_RDWR | O_CLOEXEC);
        dup2(nothing, STDOUT_FILENO);
        dup2(nothing, STDERR_FILENO);
        execvp(pointers.front(), pointers.data());
        _exit(127);
    }
    for (int tries = 0; tries < 1000; ++tries) {
        if (TakesConnections())
            return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    ADD_FAILURE() << m_Arguments.front() << " takes no connections";
    return false;
}

void CNbdServer::Kill() {
    if (m_Process <= 0)
        return;
    kill(m_Process, SIGKILL);
    waitpid(m_Process, nullptr, 0);
    m_Process = -1;
}

std::string CNbdServer::Uri() const {
    return "nbd+unix:///" + m_ExportName + "?socket=" + m_Socket;
}

bool CNbdServer::TakesConnections() const {
    const int probe = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::copy_n(m_Socket.data(), std::min(m_Socket.size(), sizeof(address.sun_path) - 1), address.sun_path);
    const bool takes = connect(probe, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0;
    close(probe);
    return takes;
}

std::vector<std::string> StorageDaemon(const std::string& image, const std::vector<std::string>& bitmaps) {
    std::string options = "type=nbd,id=export,node-name=disk,name=disk,writable=on";
    for (size_t index = 0; index < bitmaps.size(); ++index)
        options += ",bitmaps." + std::to_string(index) + "=" + bitmaps[index];
    return {"qemu-storage-daemon",
            "--blockdev",
            "driver=file,node-name=file,filename=" + image + ",discard=unmap",
            "--blockdev",
            "driver=qcow2,node-name=disk,file=file,discard=unmap",
            "--nbd-server",
            "addr.type=unix,addr.path=SOCKET,max-connections=0",
            "--export",
            options};
}

testing::AssertionResult RunsInQemuIo(const std::string& format, const std::string& target,
                                      const std::vector<std::string>& commands) {
    std::string line = "qemu-io -f " + format;
    for (const std::string& command : commands)
        line += " -c " + Quoted(command);
    return Runs(line + " " + Quoted(target));
}
