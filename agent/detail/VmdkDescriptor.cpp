#include "agent/detail/VmdkDescriptor.h"

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <filesystem>
#include <sstream>

#include "VirtualServer/VMInfo/ArchiveVirtualDiskFile.h"
#include "VirtualServer/VMInfo/UtilityFunctions.h"
#include "agent/ErrorText.h"
#include "foundation/ZuPath.h"
#include "foundation/detail/ErrorHandling.h"
#include "foundation/detail/ScopeGuard.h"
#include "platform/PrivateDirectory.h"

namespace {

constexpr const char* Blanks = " \t\r";
constexpr const char* CoreKeys[] = {"version", "cid", "parentcid", "createtype"};
constexpr unsigned long NoParentCid = 0xFFFFFFFF;

struct KeyAndValue_t {
    std::string key;  // lower case; empty for a line of another form
    std::string value;
};

std::string Trimmed(const std::string& text) {
    const size_t first = text.find_first_not_of(Blanks);
    if (first == std::string::npos)
        return {};
    return text.substr(first, text.find_last_not_of(Blanks) - first + 1);
}

// A key is a word; an extent line has a blank or a quote in front of any equals sign.
KeyAndValue_t SplitKey(const std::string& line) {
    const size_t equals = line.find('=');
    if (equals == std::string::npos)
        return {};
    KeyAndValue_t split{Trimmed(line.substr(0, equals)), Trimmed(line.substr(equals + 1))};
    if (split.key.find_first_of(" \t\"") != std::string::npos)
        return {};
    std::transform(split.key.begin(), split.key.end(), split.key.begin(),
                   [](unsigned char character) { return static_cast<char>(std::tolower(character)); });
    return split;
}

std::string Unquoted(const std::string& value) {
    const bool isQuoted = value.size() >= 2 && value.front() == '"' && value.back() == '"';
    return isQuoted ? value.substr(1, value.size() - 2) : value;
}

bool IsForTheCore(const std::string& key) {
    return key.empty() || key.rfind("ddb.", 0) == 0 ||
           std::find(std::begin(CoreKeys), std::end(CoreKeys), key) != std::end(CoreKeys);
}

// Calls `take(line, key and value)` for each line in front of the text's end.
template <typename Take> void ForEachLine(const std::string& text, Take take) {
    std::istringstream lines(text.substr(0, text.find('\0')));
    for (std::string line; std::getline(lines, line);)
        take(line, SplitKey(line));
}

// The lines that the core's parser knows.
std::string CutToTheCore(const std::string& text) {
    std::string kept;
    ForEachLine(text, [&](const std::string& line, const KeyAndValue_t& split) {
        if (IsForTheCore(split.key))
            kept += line + "\n";
    });
    return kept;
}

CZuError WriteText(const std::string& name, const std::string& text) {
    constexpr int ownerReadsAndWrites = 384;
    CZuFile file;
    ZU_RETURN_IF_ERROR(
        file.Open(name.c_str(), OpenAsBinary | OpenNotInherited | OpenCreating | OpenForWriting, ownerReadsAndWrites));
    ZU_RETURN_IF_ERROR(WriteFileAt(file, 0, 0, text.data(), static_cast<unsigned int>(text.size()), nullptr));
    return file.Close();
}

// The core puts the descriptor's directory and a backslash in front.
CZuString WithoutDirectory(const CZuString& fileName, const std::string& directory) {
    return fileName.SubStr(directory.size() + 1, fileName.Length());
}

bool LeavesDirectory(const std::string& name) {
    const std::filesystem::path path(name);
    const bool hasDrive = name.size() >= 2 && name[1] == ':';
    return hasDrive || path.is_absolute() ||
           std::any_of(path.begin(), path.end(), [](const auto& part) { return part == ".."; });
}

// Where links lead counts, for what is there of the path.
bool LiesBelow(const std::string& directory, const std::string& path) {
    std::error_code error;
    const std::filesystem::path base = std::filesystem::weakly_canonical(directory, error);
    const std::filesystem::path file = std::filesystem::weakly_canonical(path, error);
    return !error && std::mismatch(base.begin(), base.end(), file.begin(), file.end()).first == base.end();
}

}  // namespace

CZuError ParseVmdkDescriptor(const std::string& name, const std::string& text, VmdkDescriptor_t& descriptor) {
    const std::string directory = MakePrivateDirectory();
    if (directory.empty())
        return Refusal(name + ": no temporary directory can be made for its descriptor; set TMPDIR to one that can be "
                              "written to");
    const ScopeGuard removeDirectory([&] {
        std::error_code ignored;  // a temporary text is all that is left
        std::filesystem::remove_all(directory, ignored);
    });

    const std::string cutName = directory + "/descriptor.vmdk";
    ZU_RETURN_IF_ERROR(ErrorAt(name, WriteText(cutName, CutToTheCore(text))));
    ZU_RETURN_IF_ERROR(
        ErrorAt(name, CArchiveVirtualDiskFile::ParseVmdkDescriptorFile(cutName.c_str(), descriptor.file, NoDiskType)));
    for (VmdkExtentDescriptor_t& extent : descriptor.file.extents)
        extent.fileName = WithoutDirectory(extent.fileName, directory);
    ReadVmdkParent(text, descriptor);
    return CZuError();
}

void ReadVmdkParent(const std::string& text, VmdkDescriptor_t& descriptor) {
    ForEachLine(text, [&](const std::string& /*line*/, const KeyAndValue_t& split) {
        if (split.key == "parentfilenamehint")
            descriptor.parentHint = Unquoted(split.value);
        if (split.key == "parentcid")
            descriptor.hasParent = std::strtoul(split.value.c_str(), nullptr, 16) != NoParentCid;
    });
}

CZuError ResolveExtentName(const std::string& directory, const std::string& name, bool allowOutside,
                           std::string& path) {
    std::string portable = name;
    std::replace(portable.begin(), portable.end(), '\\', '/');
    if (portable.empty() || portable.back() == '/' || portable == ".")
        return Refusal("\"" + name + "\" is no name for a file of a disk");
    if (LeavesDirectory(portable) && !allowOutside)
        return Refusal("\"" + name + "\" leads out of the directory " + directory +
                       "; if that is what you want, say --allow-outside");
    path = (std::filesystem::path(directory) / portable).string();
    if (!allowOutside && !LiesBelow(directory, path))
        return Refusal("\"" + name + "\" is a link that leads out of the directory " + directory +
                       "; if that is what you want, say --allow-outside");
    return CZuError();
}
