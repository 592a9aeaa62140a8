#include <cerrno>
#include <cinttypes>
#include <cstring>
#include <string>

#include "archive/CreateMFTTree.h"
#include "foundation/LgDebug.h"
#include "foundation/detail/UnicodeText.h"
#include "ntfs/DRVolume.h"
#include "ntfs/detail/MetadataFormat.h"
#include "ntfs/detail/NtfsFormat.h"
#include "ntfs/detail/VolumeSteps.h"
#include "ntfs/detail/WithinMemory.h"
#include "platform/StandardFile.h"

namespace {

// An open file of the C library. Its operations answer 0 or the system's error number.
class CMetadataFile {
public:
    CMetadataFile() = default;
    CMetadataFile(const CMetadataFile&) = delete;
    CMetadataFile& operator=(const CMetadataFile&) = delete;
    ~CMetadataFile() { Close(); }

    // Opens a new file, which begins with the signature.
    int Begin(const char* path, const char* mode) {
        const int error = OpenStandardFile(path, mode, m_File);
        return error != 0 ? error : Write(MetadataSignature, sizeof(MetadataSignature));
    }

    int Write(const void* bytes, size_t size) {
        errno = 0;
        return std::fwrite(bytes, 1, size, m_File) == size ? 0 : Failure();
    }

    int WriteAssociation(uint64_t baseFrn, uint64_t frn) {
        errno = 0;
        return std::fprintf(m_File, "%" PRIx64 " %" PRIx64 "\n", baseFrn, frn) > 0 ? 0 : Failure();
    }

    int Close() {
        if (m_File == nullptr)
            return 0;
        errno = 0;
        const int result = std::fclose(m_File);
        m_File = nullptr;
        return result == 0 ? 0 : Failure();
    }

    std::FILE* File() { return m_File; }

private:
    static int Failure() { return errno != 0 ? errno : EIO; }

    std::FILE* m_File = nullptr;
};

// Seconds since 1970 of a time of Windows.
unsigned int UnixTime(uint64_t time) {
    constexpr int64_t start = 0x19DB1DED53E8000;
    constexpr int64_t ticksPerSecond = 10'000'000;
    return static_cast<unsigned int>((static_cast<int64_t>(time) - start) / ticksPerSecond);
}

NtfsFileName_t NameFieldsOf(const ATTR_RECORD_HEADER_t* attribute) {
    NtfsFileName_t fields{};
    return ResidentValueOf(attribute).Get(0, fields) ? fields : NtfsFileName_t{};
}

// Half a pair of surrogates becomes the character that stands for what is none.
void ReadName(const ATTR_RECORD_HEADER_t* attribute, std::string& text) {
    const CByteView characters = ResidentValueOf(attribute).From(sizeof(NtfsFileName_t));
    const uint32_t length = NameFieldsOf(attribute).nameLength;
    const auto unitAt = [&](uint32_t index) -> uint32_t {
        Le16_t unit{};
        return index < length && characters.Get(uint64_t{index} * sizeof(unit), unit) ? uint16_t{unit} : uint16_t{0};
    };
    // Most names are nothing but ASCII.
    uint32_t unit = 0;
    uint32_t index = 0;
    text.resize(length);
    for (; (unit = unitAt(index)) != 0 && unit < 0x80; ++index)
        text[index] = static_cast<char>(unit);
    text.resize(index);
    for (; (unit = unitAt(index)) != 0; ++index) {
        if (IsHighSurrogate(unit) && IsLowSurrogate(unitAt(index + 1)))
            unit = CharacterOfPair(unit, unitAt(++index));
        else if (IsHighSurrogate(unit) || IsLowSurrogate(unit))
            unit = ReplacementCharacter;
        AppendUtf8(unit, text);
    }
}

// What one walk over a file's attributes finds.
struct FileFacts_t {
    ATTR_RECORD_HEADER_t* firstName = nullptr;
    ATTR_RECORD_HEADER_t* longName = nullptr;  // this and the next two are the first of their kind
    ATTR_RECORD_HEADER_t* shortName = nullptr;
    ATTR_RECORD_HEADER_t* posixName = nullptr;
    uint32_t posixNames = 0;  // those too that have no room for a kind, and so none
    uint64_t dataBytes = 0;   // of all data without a name

    ATTR_RECORD_HEADER_t* ChosenName() const {
        if (longName != nullptr)
            return longName;
        return shortName != nullptr ? shortName : posixName;
    }
};

void TakeNameInto(FileFacts_t& facts, ATTR_RECORD_HEADER_t* name) {
    const auto keepFirst = [name](ATTR_RECORD_HEADER_t*& first) { first = first != nullptr ? first : name; };
    keepFirst(facts.firstName);
    NtfsFileName_t fields{};
    const bool isWhole = ResidentValueOf(name).Get(0, fields);
    if (!isWhole || fields.nameKind == NameKindPosix)
        ++facts.posixNames;
    if (!isWhole)
        return;
    if (fields.nameKind == NameKindPosix)
        keepFirst(facts.posixName);
    if ((fields.nameKind & NameKindLong) != 0)
        keepFirst(facts.longName);
    if ((fields.nameKind & NameKindShort) != 0)
        keepFirst(facts.shortName);
}

FileFacts_t FactsOf(CAutoMemory<char>& record) {
    FileFacts_t facts;
    for (ATTR_RECORD_HEADER_t* attribute = CDRFileRecord::GetFirstAttr(record.GetPtr()); attribute != nullptr;
         attribute = CDRFileRecord::GetNextAttr(attribute)) {
        if (attribute->Type == AttrFileName)
            TakeNameInto(facts, attribute);
        else if (attribute->Type == AttrData && attribute->NameLength == 0)
            facts.dataBytes += CDRFileRecord::GetAttributeDataSize(attribute);
    }
    return facts;
}

}  // namespace

// One pass over the records, which puts each file into the tree and each extension record into the associate file.
class CDRVolume::CMetadataScan {
public:
    CMetadataScan(CDRVolume& volume, const char* rootName, CCreateMFTTree& tree, CMetadataFile& associate)
        : m_Volume(volume), m_RootName(rootName), m_Tree(tree), m_Associate(associate) {}

    // NtfsQuit when the callback asked for it.
    int Run() {
        for (uint64_t frn = RootFrn;; frn = frn + 1 == FirstSystemFrn ? FirstUserFrn : frn + 1) {
            const int opened = m_Volume.OpenFile(frn, &m_Record, 0, &m_Context);
            if (opened == NtfsOutOfRange)
                return NtfsOk;
            int result = NtfsOk;
            if (opened == NtfsOk)
                result = TakeFile(frn);
            else if (opened == NtfsNotBaseRecord)
                result = m_Associate.WriteAssociation(HeadOf(m_Record.GetPtr()).baseReference & FrnMask, frn);
            else if (opened != NtfsNotInUse)
                result = opened;
            if (result != NtfsOk)
                return result;
        }
    }

private:
    int TakeFile(uint64_t frn) {
        const FileFacts_t facts = FactsOf(m_Record);
        const ATTR_RECORD_HEADER_t* const name = facts.ChosenName();
        if (name == nullptr)
            return NtfsOk;
        NTFS_RETURN_IF_FAILED(AddFile(frn, name, facts.dataBytes));
        const bool isPosix = name == facts.posixName;
        if (facts.posixNames > (isPosix ? 1U : 0U))
            LogLinks(frn, isPosix ? CDRFileRecord::FindNextAttr(AttrFileName, facts.posixName) : facts.firstName);
        return IsQuitAsked() ? NtfsQuit : NtfsOk;
    }

    // Callers rely on one entry for each file.
    int AddFile(uint64_t frn, const ATTR_RECORD_HEADER_t* name, uint64_t dataBytes) {
        uint64_t creation = 0;
        uint64_t access = 0;
        uint64_t write = 0;
        unsigned int attributes = 0;
        NTFS_RETURN_IF_FAILED(m_Volume.GetFileTimeAndAttribs(&m_Record, &creation, &access, &write, &attributes));
        ReadNameOf(frn, name);
        const int added = m_Tree.Add(ParentOf(frn, name), frn, dataBytes, UnixTime(write), IsDirectory() ? 1 : 0,
                                     m_Name.data(), attributes, UnixTime(access), UnixTime(creation));
        return added == 0 ? NtfsOk : NtfsTreeInsertFailed;
    }

    // The file's other names, from `name` on. Callers rely on seeing those of the POSIX kind alone.
    void LogLinks(uint64_t frn, ATTR_RECORD_HEADER_t* name) {
        for (; name != nullptr; name = CDRFileRecord::FindNextAttr(AttrFileName, name)) {
            if (NameFieldsOf(name).nameKind != NameKindPosix)
                continue;
            ReadNameOf(frn, name);
            LgDebug().DebugLvl("CDRVolume::DumpMetadataInformation", 2,
                               "Skipping links FRN 0x%" PRIx64 ", PFRN 0x%" PRIx64 ", Name [%s], Type [%s]", frn,
                               ParentOf(frn, name), m_Name.c_str(), IsDirectory() ? "Dir" : "File");
        }
    }

    void ReadNameOf(uint64_t frn, const ATTR_RECORD_HEADER_t* name) {
        if (frn == RootFrn && m_RootName != nullptr)
            m_Name = m_RootName;
        else
            ReadName(name, m_Name);
    }

    static uint64_t ParentOf(uint64_t frn, const ATTR_RECORD_HEADER_t* name) {
        return frn == RootFrn ? 0 : NameFieldsOf(name).parent & FrnMask;
    }

    bool IsDirectory() { return (HeadOf(m_Record.GetPtr()).flags & RecordIsDirectory) != 0; }

    static bool IsQuitAsked() {
        char isAsked = 0;
        if (CheckQuitFlag != nullptr)
            CheckQuitFlag(checkQuitFlagCallbackFirstArg, checkQuitFlagCallbackSecondArg, &isAsked);
        return isAsked != 0;
    }

    CDRVolume& m_Volume;
    const char* m_RootName;
    CCreateMFTTree& m_Tree;
    CMetadataFile& m_Associate;
    CAutoMemory<char> m_Record;
    READFILECONTEXT m_Context;
    std::string m_Name;  // kept for its room
};

int CDRVolume::DumpMetadataInformation(char* rootName, char* volumeInfoPath, char* treeTablePath, char* associatePath,
                                       char* securityPath, uint32_t value) {
    if (volumeInfoPath == nullptr || treeTablePath == nullptr || associatePath == nullptr || securityPath == nullptr)
        return NtfsInvalidParameter;
    return NtfsWithinMemory([&]() -> int {
        NTFS_RETURN_IF_FAILED(DumpVolumeInformation(volumeInfoPath, value));
        CCreateMFTTree tree;
        if (tree.Init() != 0 || tree.Open(treeTablePath) != 0)
            return NtfsTreeOpenFailed;
        CMetadataFile associate;
        NTFS_RETURN_IF_FAILED(associate.Begin(associatePath, "wt"));
        const int scanned = CMetadataScan(*this, rootName, tree, associate).Run();
        if (scanned != NtfsOk && scanned != NtfsQuit)
            return scanned;
        const int treeClosed = tree.Close();
        const int associateClosed = associate.Close();
        if (treeClosed != 0)
            return NtfsTreeCloseFailed;
        if (associateClosed != 0)
            return associateClosed;
        return scanned == NtfsOk ? DumpSecurityFile(securityPath) : scanned;
    });
}

int CDRVolume::DumpVolumeInformation(const char* path, uint32_t value) {
    MetadataVolumeInformation_t head{};
    std::memcpy(head.signature, MetadataSignature, sizeof(head.signature));
    head.value = value;
    head.volumeData = m_VolumeData;
    std::memcpy(head.objectId, m_ParentObjId, sizeof(head.objectId));
    CMetadataFile file;
    NTFS_RETURN_IF_FAILED(file.Begin(path, "wb"));
    constexpr size_t signed_ = sizeof(head.signature);
    NTFS_RETURN_IF_FAILED(file.Write(reinterpret_cast<const char*>(&head) + signed_, sizeof(head) - signed_));
    NTFS_RETURN_IF_FAILED(file.Write(m_MftExtents.GetPtr(), m_MftExtents.GetSize()));
    return file.Close();
}

int CDRVolume::DumpSecurityFile(const char* path) {
    CMetadataFile file;
    NTFS_RETURN_IF_FAILED(file.Begin(path, "wb"));
    NTFS_RETURN_IF_FAILED(DumpSecuirtyInformation(file.File()));
    return file.Close();
}
