#pragma once

#include <unistd.h>

#include <cstdint>
#include <string>
#include <vector>

#include "tests/interop/OtherPrograms.h"

// LVM2's own programs, on loop devices.

// Empty where they can be run here, else what is missing.
inline std::string WhatLvm2Lacks() {
    if (geteuid() != 0)
        return "loop devices need root";
    for (const char* const program : {"losetup", "pvcreate", "lvcreate"}) {
        if (!HasProgram(program))
            return std::string(program) + " isn't installed";
    }
    return {};
}

// A loop device for a file, or for the part of it that a partition is.
class CLosetup {
public:
    CLosetup(const std::string& file, uint64_t offset, uint64_t bytes) {
        std::string output;
        m_IsThere = RunProgram("losetup -f --show -o " + std::to_string(offset) + " --sizelimit " +
                                   std::to_string(bytes) + " " + Quoted(file),
                               &output);
        m_Path = output.substr(0, output.find('\n'));
    }
    CLosetup(const CLosetup&) = delete;
    CLosetup& operator=(const CLosetup&) = delete;
    ~CLosetup() {
        if (m_IsThere)
            RunProgram("losetup -d " + m_Path);
    }

    bool IsThere() const { return m_IsThere; }
    const std::string& Path() const { return m_Path; }

private:
    bool m_IsThere = false;
    std::string m_Path;
};

// A line of the shell that runs one of the programs on these devices alone. Nothing is activated.
inline std::string Lvm2Line(const std::string& command, const std::vector<std::string>& devices) {
    std::string filter;
    for (const std::string& device : devices)
        filter += "\"a|^" + device + "$|\",";
    const std::string config = "devices { use_devicesfile=0 scan_lvs=0 filter=[" + filter +
                               "\"r|.*|\"] } backup { backup=0 archive=0 } activation { udev_sync=0 udev_rules=0 }";
    const size_t space = command.find(' ');
    return command.substr(0, space) + " --driverloaded n --config '" + config + "'" + command.substr(space);
}
