#include "foundation/HBPlatformInfo.h"

#include <cerrno>
#include <cstdlib>
#include <fstream>

#include "foundation/ZuString.h"
#include "platform/Environment.h"
#include "platform/ProcessDirectory.h"

namespace {

std::string Trimmed(const std::string& text) {
    CZuString trimmed(text);
    trimmed.LTrimAll();
    trimmed.RTrimAll();
    return trimmed.c_str();
}

std::string SettingsFile() {
    std::string name;
    return EnvironmentVariable("DISKSTREAM_CONFIG", name) ? name : UsualSettingsFile();
}

bool IsComment(const std::string& line) {
    return line.empty() || line[0] == '#' || line[0] == ';';
}

bool FindInSettings(std::istream& settings, const std::string& section, const std::string& key, std::string& value) {
    const std::string wantedSection = "[" + section + "]";
    bool inSection = false;
    for (std::string raw; std::getline(settings, raw);) {
        const std::string line = Trimmed(raw);
        if (IsComment(line))
            continue;
        if (line[0] == '[') {
            inSection = line == wantedSection;
            continue;
        }
        const size_t equals = line.find('=');
        if (inSection && equals != std::string::npos && Trimmed(line.substr(0, equals)) == key) {
            value = Trimmed(line.substr(equals + 1));
            return true;
        }
    }
    return false;
}

bool FindSetting(const std::string& section, const std::string& key, std::string& value) {
    if (EnvironmentVariable(("DISKSTREAM_" + section + "_" + key).c_str(), value))
        return true;
    std::ifstream settings(SettingsFile());
    return FindInSettings(settings, section, key, value);
}

bool FindDefault(const std::string& section, const std::string& key, std::string& value) {
    if (section != "Base" || key != "dORBISTEMPDIR")
        return false;
    const std::string directory = ProcessDirectory();
    if (directory.empty())
        return false;
    value = directory;
    return true;
}

}  // namespace

int HBPlatformInfo::getNumber(const char* section, const char* key, unsigned long* value) {
    std::string text;
    if (!FindSetting(section, key, text) || text.empty() || text[0] == '-')
        return 0;
    const bool isHexadecimal = text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X');
    char* end = nullptr;
    errno = 0;
    const unsigned long number = std::strtoul(text.c_str(), &end, isHexadecimal ? 16 : 10);
    if (errno != 0 || *end != '\0')
        return 0;
    *value = number;
    return 1;
}

int HBPlatformInfo::getString(const char* section, const char* key, std::string* value) {
    return FindSetting(section, key, *value) || FindDefault(section, key, *value) ? 1 : 0;
}
