#include "agent/detail/VmdkDescriptor.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <sstream>

#include "VirtualServer/VMInfo/ArchiveVirtualDiskFile.h"
#include "agent/ErrorText.h"
#include "agent/detail/PrivateDirectoryGuard.h"
#include "agent/detail/SmallFileWrite.h"
#include "foundation/ZuPath.h"
#include "foundation/detail/ErrorHandling.h"

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

unsigned long CidOf(const std::string& value) {
    return std::strtoul(value.c_str(), nullptr, 16) & NoParentCid;
}

std::string CidText(unsigned long cid) {
    char text[16];
    std::snprintf(text, sizeof(text), "CID %08lx", cid);
    return text;
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
    const CPrivateDirectory directory;
    if (!directory.IsMade())
        return Refusal(name + ": no temporary directory can be made for its descriptor; set TMPDIR to one that can be "
                              "written to");
    const std::string cutName = directory.File("descriptor.vmdk");
    ZU_RETURN_IF_ERROR(ErrorAt(name, WriteSmallFile(cutName, CutToTheCore(text))));
    ZU_RETURN_IF_ERROR(
        ErrorAt(name, CArchiveVirtualDiskFile::ParseVmdkDescriptorFile(cutName.c_str(), descriptor.file, NoDiskType)));
    for (VmdkExtentDescriptor_t& extent : descriptor.file.extents)
        extent.fileName = WithoutDirectory(extent.fileName, directory.Path());
    ReadVmdkIdentity(text, descriptor.identity);
    return CZuError();
}

void ReadVmdkIdentity(const std::string& text, VmdkIdentity_t& identity) {
    ImageParent_t parent;
    bool hasParent = false;
    ForEachLine(text, [&](const std::string& /*line*/, const KeyAndValue_t& split) {
        if (split.key == "parentfilenamehint")
            parent.names = {Unquoted(split.value)};
        if (split.key == "cid")
            identity.own = CidText(CidOf(split.value));
        if (split.key == "parentcid") {
            hasParent = CidOf(split.value) != NoParentCid;
            parent.identity = CidText(CidOf(split.value));
        }
    });
    if (hasParent)
        identity.parent = parent;
}

std::string CoreDescriptorText(const std::vector<CoreExtentLine_t>& extents) {
    std::string text = std::string(DescriptorBeginning) + "\nversion=1\nCID=0\nparentCID=ffffffff\n";
    for (const CoreExtentLine_t& extent : extents)
        text += "RW " + std::to_string(extent.sectors) + (extent.isSparse ? " SPARSE \"" : " FLAT \"") + extent.name +
                "\"" + (extent.isSparse ? "" : " 0") + "\n";
    return text;
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
