#include "VirtualServer/VMInfo/detail/VmdkDescriptorText.h"

#include <cctype>
#include <cstdlib>
#include <cstring>
#include <string>

#include "VirtualServer/VMInfo/UtilityFunctions.h"
#include "foundation/ZuPath.h"
#include "foundation/detail/ErrorHandling.h"

namespace {

constexpr size_t MostTokens = 5;

template <typename Value> struct Word_t {
    const char* word;
    Value value;
};

// The double quotes are part of the words.
constexpr Word_t<DiskType_t> CreateTypes[] = {
    {"\"monolithicSparse\"", DiskType_MonolithicSparse},
    {"\"vmfsSparse\"", DiskType_VmfsSparse},
    {"\"monolithicFlat\"", DiskType_MonolithicFlat},
    {"\"vmfs\"", DiskType_Vmfs},
    {"\"twoGbMaxExtentSparse\"", DiskType_TwoGbMaxExtentSparse},
    {"\"twoGbMaxExtentFlat\"", DiskType_TwoGbMaxExtentFlat},
    {"\"fullDevice\"", DiskType_FullDevice},
    {"\"vmfsRaw\"", DiskType_VmfsRaw},
    {"\"partitionedDevice\"", DiskType_PartitionedDevice},
    {"\"vmfsRawDeviceMap\"", DiskType_VmfsRawDeviceMap},
    {"\"vmfsPassthroughRawDeviceMap\"", DiskType_VmfsPassthroughRawDeviceMap},
};

constexpr Word_t<VmdkAccess_t> AccessWords[] = {
    {"RW", VmdkAccessReadWrite},
    {"RDONLY", VmdkAccessReadOnly},
    {"NOACCESS", VmdkAccessNone},
};

constexpr Word_t<VwExtentType> ExtentTypeWords[] = {
    {"FLAT", VwExtentTypeFlat},       {"SPARSE", VwExtentTypeSparse},         {"ZERO", VwExtentTypeZero},
    {"VMFS", VwExtentTypeVmfs},       {"VMFSSPARSE", VwExtentTypeVmfsSparse}, {"VMFSRDM", VwExtentTypeVmfsRdm},
    {"VMFSRAW", VwExtentTypeVmfsRaw},
};

template <typename Value, size_t Count>
bool FindWord(const Word_t<Value> (&table)[Count], const char* word, Value& value) {
    for (const Word_t<Value>& row : table) {
        if (std::strcmp(row.word, word) == 0) {
            value = row.value;
            return true;
        }
    }
    return false;
}

bool BeginsWith(const CZuString& line, const char* upperCaseWord) {
    const char* at = line.c_str();
    for (; *upperCaseWord != '\0'; ++upperCaseWord, ++at) {
        if (std::toupper(static_cast<unsigned char>(*at)) != *upperCaseWord)
            return false;
    }
    return true;
}

// What stands behind the line's equals sign; nothing without one.
CZuString ValueOf(const CZuString& line) {
    const char* const equals = std::strchr(line.c_str(), '=');
    CZuString value(equals != nullptr ? equals + 1 : "");
    value.LTrimAll();
    return value;
}

CZuString WordOf(const CZuString& line) {
    CZuString word = ValueOf(line);
    word.ChopAt(std::strcspn(word.c_str(), " \t\r"));
    return word;
}

uint32_t HexadecimalOf(const CZuString& line) {
    return static_cast<uint32_t>(std::strtoul(ValueOf(line).c_str(), nullptr, 16));
}

CZuError ParseCreateType(const CZuString& line, VmdkDescriptorFile_t& out) {
    const CZuString word = WordOf(line);
    if (!FindWord(CreateTypes, word.c_str(), out.createType))
        return Refusal("Unknown CreateType " + word);
    return CZuError();
}

// The lines of one descriptor, all in the same directory.
class CExtentLineParser {
public:
    explicit CExtentLineParser(const char* descriptorName) : m_Directory(CZuPath::GetParent(descriptorName)) {}

    CZuError Parse(const CZuString& line, VmdkExtentDescriptor_t& extent) {
        line.Tokenize(m_Tokens, '"', '"', '\\', ' ', false);
        if (m_Tokens.size() > MostTokens)
            return Refusal("Error while processing line " + line);
        if (!FindWord(AccessWords, Token(0), extent.access))
            return Refusal("Unknown Access in line " + line);
        const long long size = std::strtoll(Token(1), nullptr, 10);
        if (size <= 0)
            return Refusal("Unknown size in line " + line);
        if (!FindWord(ExtentTypeWords, Token(2), extent.type))
            return Refusal("Unknown extent type in line " + line);
        if (m_Tokens.size() <= 3)
            return Refusal("Error while processing line " + line);
        ZU_RETURN_IF_ERROR(RefuseOffset(line));
        extent.size = static_cast<uint64_t>(size);
        extent.fileName = m_Directory + "\\" + m_Tokens[3];
        return CZuError();
    }

private:
    // A missing token is as bad as an empty one.
    const char* Token(size_t index) const { return index < m_Tokens.size() ? m_Tokens[index].c_str() : ""; }

    CZuError RefuseOffset(const CZuString& line) const {
        const long long offset = m_Tokens.size() == MostTokens ? std::strtoll(Token(4), nullptr, 10) : 0;
        if (offset < 0)
            return Refusal("Unknown offset in line " + line);
        if (offset != 0)
            return Refusal("Offset is non zero. I have not coded for this.. Yet!!! " + line);
        return CZuError();
    }

    const CZuString m_Directory;
    std::vector<CZuString> m_Tokens;
};

// "CID" doesn't match a line of the parent's CID, which begins with other letters.
CZuError ParseLine(const CZuString& line, CExtentLineParser& extentLines, VmdkDescriptorFile_t& out) {
    if (line[0] == '#' || BeginsWith(line, "DDB."))
        return CZuError();
    if (BeginsWith(line, "VERSION")) {
        out.version = std::atoi(ValueOf(line).c_str());
        return CZuError();
    }
    if (BeginsWith(line, "CID")) {
        out.CID = HexadecimalOf(line);
        return CZuError();
    }
    if (BeginsWith(line, "PARENTCID")) {
        out.parentCID = HexadecimalOf(line);
        return CZuError();
    }
    if (BeginsWith(line, "CREATETYPE"))
        return ParseCreateType(line, out);
    VmdkExtentDescriptor_t extent;
    ZU_RETURN_IF_ERROR(extentLines.Parse(line, extent));
    out.extents.push_back(extent);
    return CZuError();
}

CZuError ReadText(const char* name, CZuString& text) {
    CZuFile file;
    ZU_RETURN_IF_ERROR(file.Open(name, OpenAsText | OpenNotInherited, 0));
    uint64_t sizeBytes = 0;
    ZU_RETURN_IF_ERROR(file.Size(sizeBytes));
    if (sizeBytes > LargestDescriptorBytes)
        return Refusal(CZuString::Format("Vmdk description file seems to be larger than 20KB. Size {1}", sizeBytes));
    text.AllocateBuffer(static_cast<size_t>(sizeBytes));
    ZU_RETURN_IF_ERROR(ReadFileAt(file, 0, 0, text.GetBuffer(), static_cast<unsigned int>(sizeBytes), nullptr));
    text.ReCalculateLength();
    return CZuError();
}

}  // namespace

CZuError ReadVmdkDescriptor(const char* name, VmdkDescriptorFile_t& out) {
    CZuString text;
    ZU_RETURN_IF_ERROR(ReadText(name, text));
    std::vector<CZuString> lines;
    text.Tokenize(lines, 0, 0, 0, '\n', false);
    CExtentLineParser extentLines(name);
    for (CZuString& line : lines) {
        line.RTrimAll();  // the carriage return of a text from elsewhere; nothing is left of a line of blanks
        if (!line.IsEmpty())
            ZU_RETURN_IF_ERROR(ParseLine(line, extentLines, out));
    }
    return CZuError();
}
