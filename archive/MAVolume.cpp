#include "archive/MAVolume.h"

#include <cerrno>
#include <cinttypes>
#include <cstdarg>
#include <cstdlib>
#include <cstring>

#include "archive/detail/ArchiveTexts.h"
#include "foundation/detail/CheckedMath.h"
#include "ntfs/detail/MetadataFormat.h"
#include "ntfs/detail/NtfsFormat.h"
#include "ntfs/detail/VolumeSteps.h"
#include "ntfs/detail/WithinMemory.h"
#include "platform/StandardFile.h"

// Opening of the files of a metadata collection, and reading of their records.

namespace {

constexpr char CorruptMetadata[] = "Meta data file is corrupt";
constexpr uint32_t AssociationStep = 10;  // entries by which the list grows

// A short read is a failure too, which the system has no number for.
int ErrorNumber() {
    return errno != 0 ? errno : EIO;
}

bool ReadWhole(std::FILE* file, void* target, size_t bytes) {
    errno = 0;
    return std::fread(target, 1, bytes, file) == bytes;
}

void CloseStandardFile(std::FILE*& file) {
    if (file != nullptr)
        std::fclose(file);
    file = nullptr;
}

// An open file for the time of a step.
class CMetaFile {
public:
    CMetaFile() = default;
    CMetaFile(const CMetaFile&) = delete;
    CMetaFile& operator=(const CMetaFile&) = delete;
    ~CMetaFile() { CloseStandardFile(m_File); }

    int Open(const char* path, const char* mode) { return OpenStandardFile(path, mode, m_File); }
    std::FILE* File() { return m_File; }

private:
    std::FILE* m_File = nullptr;
};

}  // namespace

CMAVolume::~CMAVolume() {
    CloseVolume();
    CloseDirFile();
}

void CMAVolume::SetLastErrorStr(const char* format, ...) {
    constexpr size_t room = sizeof(m_LastError) - 1;
    m_LastError[0] = 0;
    if (format != nullptr) {
        va_list arguments;
        va_start(arguments, format);
        std::vsnprintf(m_LastError, room, format, arguments);
        va_end(arguments);
    }
    m_LastError[room] = 0;
}

void CMAVolume::ClearLastErrorStr() {
    m_LastError[0] = 0;
}

int CMAVolume::Fail(int result, const char* text) {
    SetLastErrorStr("%s", text);
    return result;
}

int CMAVolume::FailByResult(int result) {
    const char* const text = NtfsErrorText(result);
    return Fail(result, text != nullptr ? text : "");
}

int CMAVolume::SystemFail(const char* text) {
    return Fail(ErrorNumber(), text);
}

int CMAVolume::OpenVolume(const char* volumeInfoPath, const char* mftPath, const char* associatePath,
                          const char* securityPath) {
    if (volumeInfoPath == nullptr || mftPath == nullptr || associatePath == nullptr || securityPath == nullptr)
        return Fail(NtfsInvalidParameter, InvalidParameterText);
    CloseVolume();
    const auto refuse = [this](int result, const char* text) {
        CloseVolume();
        return Fail(result, text);
    };
    int result = OpenStandardFile(mftPath, "rb", m_MftFile);
    if (result != 0)
        return refuse(result, "Failed to open MFT File");
    result = OpenStandardFile(securityPath, "rb", m_SecurityFile);
    if (result != 0)
        return refuse(result, "Failed to open security File");
    if (!CheckMetaFileSignature(m_SecurityFile))
        return refuse(NtfsInvalidMftRecord, CorruptMetadata);
    uint32_t value = 0;
    CAutoMemory<char> extents;
    result = ReadVIFile(volumeInfoPath, &value, &m_VolumeData, m_ParentObjId, &extents);
    if (result == NtfsOk)
        result = ReadAFFile(associatePath, &m_AssocList, &m_AssocCount);
    if (result != NtfsOk)
        return refuse(result, CorruptMetadata);
    ClearLastErrorStr();
    return NtfsOk;
}

int CMAVolume::CloseVolume() {
    CloseStandardFile(m_MftFile);
    CloseStandardFile(m_SecurityFile);
    m_AssocList.Free();
    m_AssocCount = 0;
    ClearLastErrorStr();
    return NtfsOk;
}

int CMAVolume::OpenDirFile(const char* path) {
    if (path == nullptr)
        return Fail(NtfsInvalidParameter, InvalidParameterText);
    CloseDirFile();
    const int result = OpenStandardFile(path, "rb", m_DirFile);
    if (result != 0)
        return Fail(result, "Failed to open directory structure File");
    if (!CheckMetaFileSignature(m_DirFile)) {
        CloseDirFile();
        return Fail(NtfsInvalidMftRecord, CorruptMetadata);
    }
    ClearLastErrorStr();
    return NtfsOk;
}

int CMAVolume::CloseDirFile() {
    CloseStandardFile(m_DirFile);
    ClearLastErrorStr();
    return NtfsOk;
}

// The name's bytes are taken as they come: a file that ends inside them shows at the next record.
int CMAVolume::ReadDirFileRecord(unsigned char* kind, uint64_t* a, uint64_t* b, uint64_t* c, unsigned int* d,
                                 char* name) {
    if (m_DirFile == nullptr || kind == nullptr || a == nullptr || b == nullptr || c == nullptr || d == nullptr ||
        name == nullptr)
        return Fail(NtfsInvalidParameter, InvalidParameterText);
    constexpr int fields = 6;
    char first = 0;
    unsigned long number = 0;
    unsigned int nameBytes = 0;
    if (std::fscanf(m_DirFile, "%c%" SCNx64 " %" SCNx64 " %" SCNx64 " %lx %x|", &first, a, b, c, &number, &nameBytes) !=
        fields) {
        ClearLastErrorStr();
        return NtfsEndOfRun;
    }
    if (nameBytes > MostDirFileNameBytes)
        return Fail(NtfsInvalidMftRecord, CorruptMetadata);
    *kind = static_cast<unsigned char>(first);
    *d = static_cast<unsigned int>(number);
    ReadWhole(m_DirFile, name, nameBytes);
    ClearLastErrorStr();
    return NtfsOk;
}

bool CMAVolume::CheckMetaFileSignature(std::FILE* file) {
    char found[sizeof(MetadataSignature)] = {};
    return ReadWhole(file, found, sizeof(found)) && std::memcmp(found, MetadataSignature, sizeof(found)) == 0;
}

int CMAVolume::ReadVIFile(const char* path, uint32_t* value, NTFS_VOLUME_DATA_BUFFER* data, char* parentObjId,
                          CAutoMemory<char>* extents) {
    if (path == nullptr || value == nullptr || data == nullptr || extents == nullptr)
        return Fail(NtfsInvalidParameter, InvalidParameterText);
    CMetaFile file;
    const int result = file.Open(path, "rb");
    if (result != 0)
        return Fail(result, "Failed to open volume information File");
    return ReadVISteps(file.File(), value, data, parentObjId, extents);
}

int CMAVolume::ReadVISteps(std::FILE* file, uint32_t* value, NTFS_VOLUME_DATA_BUFFER* data, char* parentObjId,
                           CAutoMemory<char>* extents) {
    if (!CheckMetaFileSignature(file))
        return Fail(NtfsInvalidMftRecord, "Volume information file is corrupt. CheckMetaFileSignature failed.");
    Le32_t stored{};
    if (!ReadWhole(file, &stored, sizeof(stored)))
        return SystemFail("Volume information file is corrupt. Error in reading extent file.");
    *value = stored;
    if (!ReadWhole(file, data, sizeof(*data)))
        return SystemFail("Volume information file is corrupt. Error in reading VolInfo.");
    char objectId[sizeof(m_ParentObjId)] = {};
    if (!ReadWhole(file, objectId, sizeof(objectId)))
        return SystemFail("Volume information file is corrupt. Error in reading ParentObjId");
    if (parentObjId != nullptr)
        std::memcpy(parentObjId, objectId, sizeof(objectId));
    int64_t position = 0;
    int result = TellStandardFile(file, position);
    if (result != 0)
        return Fail(result, "Volume information file is corrupt. Error in reading rest of the file as MFTExt");
    result = SeekStandardFile(file, 0, SEEK_END);
    if (result != 0)
        return Fail(result, "Volume information file is corrupt. Error in seeking end of file.");
    int64_t end = 0;
    result = TellStandardFile(file, end);
    if (result != 0)
        return Fail(result, "Volume information file is corrupt. File end position returned -1.");
    // An empty rest is refused too: it lacks the head of the extents.
    const int64_t bytes = end - position;
    const bool fits = bytes > 0 && static_cast<uint64_t>(bytes) <= NtfsCeilingBytes;
    if (!fits || extents->Alloc(static_cast<uint32_t>(bytes)) == nullptr)
        return Fail(NtfsOutOfMemory, OutOfMemoryText);
    result = SeekStandardFile(file, position, SEEK_SET);
    if (result != 0)
        return Fail(result, "Volume information file is corrupt. Error in seeking to current position.");
    if (!ReadWhole(file, extents->GetPtr(), extents->GetSize()))
        return SystemFail("Volume information file is corrupt.");
    ClearLastErrorStr();
    return NtfsOk;
}

int CMAVolume::ReadAFFile(const char* path, CAutoMemory<char>* list, uint32_t* count) {
    if (path == nullptr || list == nullptr || count == nullptr)
        return Fail(NtfsInvalidParameter, InvalidParameterText);
    CMetaFile file;
    const int result = file.Open(path, "rt");
    if (result != 0)
        return Fail(result, "Failed to open associate information File");
    if (!CheckMetaFileSignature(file.File()))
        return Fail(NtfsInvalidMftRecord, "Associate file is corrupt");
    return ReadAssociations(file.File(), list, count);
}

int CMAVolume::ReadAssociations(std::FILE* file, CAutoMemory<char>* list, uint32_t* count) {
    list->Alloc(0);
    *count = 0;
    for (;;) {
        constexpr uint64_t entryBytes = 2 * sizeof(Le64_t);
        if (list->GetSize() / entryBytes <= *count &&
            !GrowBuffer(*list, (uint64_t{*count} + AssociationStep) * entryBytes))
            return Fail(NtfsOutOfMemory, OutOfMemoryText);
        uint64_t base = 0;
        uint64_t extension = 0;
        errno = 0;
        if (std::fscanf(file, "%" SCNx64 " %" SCNx64 "\n", &base, &extension) != 2)
            break;
        auto* const entry = reinterpret_cast<Le64_t*>(list->GetPtr() + *count * entryBytes);
        entry[0] = base;
        entry[1] = extension;
        ++*count;
    }
    if (std::feof(file) == 0)
        return SystemFail("Failed to read Associate File records");
    if (*count != 0)
        std::qsort(list->GetPtr(), *count, 2 * sizeof(Le64_t), AssocListCompare);
    ClearLastErrorStr();
    return NtfsOk;
}

// The order of a base's extension records is left to the sort: attributes are found by searching.
int CMAVolume::AssocListCompare(const void* left, const void* right) {
    const uint64_t leftBase = *static_cast<const Le64_t*>(left);
    const uint64_t rightBase = *static_cast<const Le64_t*>(right);
    if (leftBase == rightBase)
        return 0;
    return leftBase < rightBase ? -1 : 1;
}

int CMAVolume::ReadMFTRecord(uint64_t frn, char* buffer) {
    if (m_MftFile == nullptr || buffer == nullptr)
        return Fail(NtfsInvalidParameter, InvalidParameterText);
    constexpr char failure[] = "Failed to read MFT record";
    uint64_t position = 0;
    if (!CheckedMul(frn, RecordBytes(), position) || position > uint64_t{INT64_MAX})
        return Fail(EINVAL, failure);
    const int result = SeekStandardFile(m_MftFile, static_cast<int64_t>(position), SEEK_SET);
    if (result != 0)
        return Fail(result, failure);
    if (ReadWhole(m_MftFile, buffer, RecordBytes()))
        return NtfsOk;
    if (std::feof(m_MftFile) != 0)
        return Fail(NtfsOutOfRange, "FRN out of range");
    return SystemFail("Failed to read MFT file");
}
