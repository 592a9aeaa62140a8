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

constexpr uint64_t FirstSystemFrn = 6;  // the files from here to the first of the users make the volume itself
constexpr uint64_t FirstUserFrn = 16;

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

NtfsFileRecord_t HeadOf(CAutoMemory<char>& record) {
    NtfsFileRecord_t head{};
    std::memcpy(&head, record.GetPtr(), sizeof(head));
    return head;
}

NtfsFileName_t NameFieldsOf(const ATTR_RECORD_HEADER_t* attribute) {
    NtfsFileName_t fields{};
    return ResidentValueOf(attribute).Get(0, fields) ? fields : NtfsFileName_t{};
}

// Half a pair of surrogates becomes the character that stands for what is none.
std::string NameOf(const ATTR_RECORD_HEADER_t* attribute) {
    const CByteView characters = ResidentValueOf(attribute).From(sizeof(NtfsFileName_t));
    const uint32_t length = NameFieldsOf(attribute).nameLength;
    const auto unitAt = [&](uint32_t index) -> uint32_t {
        Le16_t unit{};
        return index < length && characters.Get(uint64_t{index} * sizeof(unit), unit) ? uint16_t{unit} : uint16_t{0};
    };
    std::string text;
    for (uint32_t index = 0; index < length && unitAt(index) != 0; ++index) {
        uint32_t unit = unitAt(index);
        if (IsHighSurrogate(unit) && IsLowSurrogate(unitAt(index + 1)))
            unit = CharacterOfPair(unit, unitAt(++index));
        else if (IsHighSurrogate(unit) || IsLowSurrogate(unit))
            unit = ReplacementCharacter;
        AppendUtf8(unit, text);
    }
    return text;
}

uint64_t UnnamedDataBytes(CAutoMemory<char>& record) {
    uint64_t bytes = 0;
    for (ATTR_RECORD_HEADER_t* data = CDRFileRecord::FindFirstAttr(record.GetPtr(), AttrData); data != nullptr;
         data = CDRFileRecord::FindNextAttr(AttrData, data)) {
        if (data->NameLength == 0)
            bytes += CDRFileRecord::GetAttributeDataSize(data);
    }
    return bytes;
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
                result = m_Associate.WriteAssociation(HeadOf(m_Record).baseReference & FrnMask, frn);
            else if (opened != NtfsNotInUse)
                result = opened;
            if (result != NtfsOk)
                return result;
        }
    }

private:
    int TakeFile(uint64_t frn) {
        ATTR_RECORD_HEADER_t* name = ChooseName();
        if (name == nullptr)
            return NtfsOk;
        m_IsFirstName = true;
        // Behind the chosen name only further POSIX names are looked at, from the first one on unless it is one itself.
        bool isAmongLinks = NameFieldsOf(name).nameKind == NameKindPosix;
        while (name != nullptr) {
            if (!isAmongLinks || NameFieldsOf(name).nameKind == NameKindPosix)
                NTFS_RETURN_IF_FAILED(TakeName(frn, name));
            name = isAmongLinks ? CDRFileRecord::FindNextAttr(AttrFileName, name)
                                : CDRFileRecord::FindFirstAttr(m_Record.GetPtr(), AttrFileName);
            isAmongLinks = true;
        }
        return IsQuitAsked() ? NtfsQuit : NtfsOk;
    }

    ATTR_RECORD_HEADER_t* ChooseName() {
        for (const uint32_t kind : {uint32_t{NameKindLong}, uint32_t{NameKindShort}, uint32_t{NameKindPosix}}) {
            ATTR_RECORD_HEADER_t* const name = m_Volume.GetFileNameAttribute(&m_Record, kind);
            if (name != nullptr)
                return name;
        }
        return nullptr;
    }

    // Callers rely on one entry for each file: its other names go into the log.
    int TakeName(uint64_t frn, const ATTR_RECORD_HEADER_t* attribute) {
        const NtfsFileName_t fields = NameFieldsOf(attribute);
        const bool isDirectory = (HeadOf(m_Record).flags & RecordIsDirectory) != 0;
        const bool isRoot = frn == RootFrn;
        const uint64_t parent = isRoot ? 0 : fields.parent & FrnMask;
        m_Name = isRoot && m_RootName != nullptr ? m_RootName : NameOf(attribute);
        uint64_t creation = 0;
        uint64_t access = 0;
        uint64_t write = 0;
        unsigned int attributes = 0;
        NTFS_RETURN_IF_FAILED(m_Volume.GetFileTimeAndAttribs(&m_Record, &creation, &access, &write, &attributes));
        if (!m_IsFirstName) {
            LgDebug().DebugLvl("CDRVolume::DumpMetadataInformation", 2,
                               "Skipping links FRN 0x%" PRIx64 ", PFRN 0x%" PRIx64 ", Name [%s], Type [%s]", frn,
                               parent, m_Name.c_str(), isDirectory ? "Dir" : "File");
            return NtfsOk;
        }
        m_IsFirstName = false;
        const int added = m_Tree.Add(parent, frn, UnnamedDataBytes(m_Record), UnixTime(write), isDirectory ? 1 : 0,
                                     m_Name.data(), attributes, UnixTime(access), UnixTime(creation));
        return added == 0 ? NtfsOk : NtfsTreeInsertFailed;
    }

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
    bool m_IsFirstName = true;
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
