#include "platform/Environment.h"

#include <cstdlib>

#include "platform/windows/WideText.h"

bool EnvironmentVariable(const char* name, std::string& value) {
    const wchar_t* const found = _wgetenv(WideFromUtf8(name).c_str());
    if (found == nullptr)
        return false;
    value = Utf8FromWide(found);
    return true;
}

std::string UsualSettingsFile() {
    std::string programData;
    if (!EnvironmentVariable("ProgramData", programData))
        programData = "C:\\ProgramData";
    return programData + "\\diskstream\\diskstream.conf";
}
