#pragma once

#include <cstdint>
#include <cstdio>

#include "VirtualServer/VMInfo/NtfsVolumeData.h"
#include "foundation/AutoMemory.h"
#include "foundation/LgDebug.h"
#include "ntfs/DRFileRecord.h"
#include "ntfs/NtfsResults.h"
#include "platform/Export.h"

struct NtfsStandardInformation_t;

// The most bytes that a name in the directory structure file may have.
constexpr uint32_t MostDirFileNameBytes = 1046;

// The position in the backup stream of an opened file. The caller owns it; `OpenFile` and `CloseFile` reset it.
struct MA_BACKUPREAD_CONTEXT {
    uint32_t tableIndex = 0;  // the place in the stream order
    CAutoMemory<char> name;   // of the stream in work
    CAutoMemory<char> data;
    CAutoMemory<char> header;  // with the stream's name behind it
    uint32_t needLoad = 1;     // 1: the next stream has to be loaded
    uint64_t position = 0;     // bytes delivered of header and data
    // Of an attribute: the last one that `BackupReadRA` gave, the next one that `BackupReadNRA` looks for. It may be
    // one beyond what a record can hold.
    uint32_t instance = 0;
};

// The files of an NTFS volume without its disk, from what a backup collected: the files that
// `CDRVolume::DumpMetadataInformation` leaves (docs/formats/ntfs-metadata.md) and a raw copy of the MFT.
//
// What the metadata holds of a file comes as bytes (`BackupReadRA`), what lies elsewhere on the volume as a description
// of where its clusters were (`BackupReadNRA`). Results are 0, those of ntfs/NtfsResults.h, or the system's error
// numbers, which are positive. Each failure leaves a text; success clears it. Not for use by two threads at once.
class DISKSTREAM_EXPORT CMAVolume {
public:
    CMAVolume() = default;
    CMAVolume(const CMAVolume&) = delete;
    CMAVolume& operator=(const CMAVolume&) = delete;
    virtual ~CMAVolume();

    // Closes what is open and opens the volume. A failure leaves it closed.
    int OpenVolume(const char* volumeInfoPath, const char* mftPath, const char* associatePath,
                   const char* securityPath);
    // The directory structure file stays open.
    int CloseVolume();

    // The directory structure file, which needs no open volume.
    int OpenDirFile(const char* path);
    int CloseDirFile();
    // The next record of it, as it stands. `name` has room for `MostDirFileNameBytes`, and gets no terminator.
    // NtfsEndOfRun, without a text, behind the last one.
    int ReadDirFileRecord(unsigned char* kind, uint64_t* a, uint64_t* b, uint64_t* c, unsigned int* d, char* name);

    // Of the last operation; empty after a success. Valid until the next one.
    char* GetLastErrorStr() { return m_LastError; }

    // Opens the file of that record into `record`: the base record, with the attributes of all extension records behind
    // its own, which the associate file tells. Without `withSecurity` the backup stream leaves the descriptor out.
    int OpenFile(uint64_t frn, CAutoMemory<char>* record, int withSecurity, MA_BACKUPREAD_CONTEXT* ctx);
    int CloseFile(CAutoMemory<char>* record, MA_BACKUPREAD_CONTEXT* ctx);

    // 16-bit characters without an end; `kind` is 1 long, 2 short, 0 POSIX. NtfsIndexNotFound when there is no such
    // name.
    int GetFileName(CAutoMemory<char>* record, CAutoMemory<char>* name, uint32_t kind);
    // Of Windows, 0x10 for a directory included.
    int GetFileAttribute(CAutoMemory<char>* record, uint32_t* attributes);
    // In units of 100 ns since 1601. `write` is the time of the data's change for a file, of the record's change for a
    // directory.
    int GetFileTime(CAutoMemory<char>* record, uint64_t* creation, uint64_t* access, uint64_t* write);

    // Delivers the next whole streams of the file's backup stream that the metadata holds: descriptor, resident data,
    // object id, reparse point, extended attributes. 0 bytes tell the end, as well as a buffer too small for the next
    // stream: the place in the stream order moves on before the end only. A stream that can't be loaded is passed over,
    // and its failure given.
    //
    // A file that was opened gives what its record holds of a closed volume too.
    //
    // Callers rely on a reparse point's going out under id 8 from here, on half of the name of a reparse point or an
    // EA, and on the attribute of instance 0 being left out.
    int BackupReadRA(CAutoMemory<char>* record, char* buffer, uint32_t size, uint32_t* read,
                     MA_BACKUPREAD_CONTEXT* ctx);

    // Describes the next attribute that isn't resident: its name in 16-bit characters, its sizes in bytes, its extents
    // as `DATARUN_EXTENTS`. NtfsEndOfRun, without a text, behind the last one, and at one that takes no room on the
    // disk. Callers rely on later segments being joined for an attribute without a name only.
    int BackupReadNRA(CAutoMemory<char>* record, CAutoMemory<char>* name, uint64_t* size, uint64_t* sizeOnDisk,
                      uint32_t* type, uint16_t* compressionUnit, CAutoMemory<char>* extents,
                      MA_BACKUPREAD_CONTEXT* ctx);

protected:
    // The step that reaches the copy of the MFT, for a class that has another way to it. NtfsOutOfRange behind its end.
    virtual int ReadMFTRecord(uint64_t frn, char* buffer);

    uint32_t RecordBytes() const { return m_VolumeData.BytesPerFileRecordSegment; }
    const NTFS_VOLUME_DATA_BUFFER& VolumeData() const { return m_VolumeData; }

    void SetLastErrorStr(const char* format, ...) DISKSTREAM_PRINTF(2, 3);

private:
    void ClearLastErrorStr();
    int Fail(int result, const char* text);
    int FailByResult(int result);
    int SystemFail(const char* text);

    bool CheckMetaFileSignature(std::FILE* file);
    int ReadVIFile(const char* path, uint32_t* value, NTFS_VOLUME_DATA_BUFFER* data, char* parentObjId,
                   CAutoMemory<char>* extents);
    int ReadVISteps(std::FILE* file, uint32_t* value, NTFS_VOLUME_DATA_BUFFER* data, char* parentObjId,
                    CAutoMemory<char>* extents);
    int ReadAFFile(const char* path, CAutoMemory<char>* list, uint32_t* count);
    int ReadAssociations(std::FILE* file, CAutoMemory<char>* list, uint32_t* count);
    static int AssocListCompare(const void* left, const void* right);
    const Le64_t* FindAssociation(uint64_t baseFrn) const;

    int ReadSoundRecord(uint64_t frn);
    int MergeScratch(CAutoMemory<char>& record, uint64_t& markerOffset);
    int ReadResidentAttribute(const ATTR_RECORD_HEADER_t* attribute, CAutoMemory<char>* value);
    int ReadStandardInformation(CAutoMemory<char>* record, NtfsStandardInformation_t& value);

    int ReadSecurityStream(CAutoMemory<char>* record, CAutoMemory<char>* data);
    int ReadSecurityFromFile(uint32_t id, CAutoMemory<char>* data);
    int ReadSecurityData(uint32_t bytes, CAutoMemory<char>* data);
    int ReadObjectIdStream(CAutoMemory<char>* record, CAutoMemory<char>* data);
    int ReadReparsePointStream(CAutoMemory<char>* record, CAutoMemory<char>* name, CAutoMemory<char>* data);
    int ReadEAStream(CAutoMemory<char>* record, CAutoMemory<char>* name, CAutoMemory<char>* data);
    int ReadNamedStream(CAutoMemory<char>* record, uint32_t type, CAutoMemory<char>* name, CAutoMemory<char>* data);
    int ReadRADataStream(CAutoMemory<char>* record, CAutoMemory<char>* name, CAutoMemory<char>* data,
                         uint32_t* instance);
    int LoadStream(uint32_t type, CAutoMemory<char>* record, MA_BACKUPREAD_CONTEXT& ctx, bool& isThere);
    int BuildHeader(uint32_t type, MA_BACKUPREAD_CONTEXT& ctx);
    int LoadNextStream(CAutoMemory<char>* record, MA_BACKUPREAD_CONTEXT& ctx, uint32_t& type);
    int JoinSegments(CAutoMemory<char>* record, const ATTR_RECORD_HEADER_t* first, const CAutoMemory<char>& name,
                     CAutoMemory<char>* extents);

    std::FILE* m_MftFile = nullptr;
    std::FILE* m_SecurityFile = nullptr;
    std::FILE* m_DirFile = nullptr;
    char m_LastError[1024] = {};
    CAutoMemory<char> m_RecordScratch;
    NTFS_VOLUME_DATA_BUFFER m_VolumeData{};
    char m_ParentObjId[16] = {};
    uint32_t m_AssocCount = 0;
    CAutoMemory<char> m_AssocList;  // pairs of Le64_t: base FRN, extension FRN
};
