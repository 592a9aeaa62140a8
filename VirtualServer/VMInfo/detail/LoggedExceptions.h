#pragma once

#include "VirtualServer/VMInfo/VIDALinuxDiskParser.h"
#include "foundation/LgDebug.h"

// Does one level of the Linux parser's work. What is thrown through it is told to the log there and
// goes on, so that the log shows the levels from the failure upwards.
template <typename Work> auto Logged(Work work) {
    try {
        return work();
    } catch (VIDALinuxDiskParserException& exception) {
        LgDebug().Error("VIDALinuxDiskParser", "%s", exception.GetErrorMsg());
        throw;
    }
}
