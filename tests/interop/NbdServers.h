#pragma once

#include <string>
#include <vector>

#include "tests/interop/OtherPrograms.h"

// A program that serves an export on a socket, killed at the end of this at the latest.
class CNbdServer {
public:
    // `arguments` are those of the program, in which SOCKET stands for the socket's path.
    CNbdServer(const std::vector<std::string>& arguments, std::string exportName = std::string());
    CNbdServer(const CNbdServer&) = delete;
    CNbdServer& operator=(const CNbdServer&) = delete;
    ~CNbdServer();

    // Returns when the socket takes connections. False, and a failed test, when it never does.
    bool Start();

    // At once, as a machine that fails would end.
    void Kill();

    std::string Uri() const;
    const std::string& Socket() const { return m_Socket; }

private:
    bool TakesConnections() const;

    CTempDir m_Dir;
    const std::vector<std::string> m_Arguments;
    const std::string m_ExportName;
    std::string m_Socket;
    int m_Process = -1;
};

// `qemu-storage-daemon` with a qcow2 image, writable, and its bitmaps; the export is "disk".
std::vector<std::string> StorageDaemon(const std::string& image, const std::vector<std::string>& bitmaps);

// Runs commands of qemu-io on a URI or an image.
testing::AssertionResult RunsInQemuIo(const std::string& format, const std::string& target,
                                      const std::vector<std::string>& commands);
