#include "foundation/HBPlatformInfo.h"

#include <charconv>
#include <fstream>
#include <system_error>

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
    if (!FindSetting(section, key, text))
        return 0;
    const bool isHexadecimal = text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X');
    const char* const begin = text.data() + (isHexadecimal ? 2 : 0);
    const char* const end = text.data() + text.size();
    unsigned long number = 0;
    const std::from_chars_result result = std::from_chars(begin, end, number, isHexadecimal ? 16 : 10);
    if (result.ec != std::errc() || result.ptr != end)
        return 0;
    *value = number;
    return 1;
}

int HBPlatformInfo::getString(const char* section, const char* key, std::string* value) {
    return FindSetting(section, key, *value) || FindDefault(section, key, *value) ? 1 : 0;
}
