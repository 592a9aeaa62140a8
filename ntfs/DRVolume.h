#pragma once

#include <cstdint>
#include <cstdio>

#include "VirtualServer/VMInfo/LVM.h"
#include "VirtualServer/VMInfo/NtfsVolumeData.h"
#include "foundation/AutoMemory.h"
#include "ntfs/DRFileRecord.h"
#include "platform/Export.h"

class CByteView;

// The position in an opened file. The caller owns it, with the record that was opened into; `OpenFile` and `CloseFile`
// reset it, `ReadFile` and `BackupRead` move it.
struct READFILECONTEXT {
    ATTR_RECORD_HEADER_t* currentAttr = nullptr;  // in the caller's record
    CAutoMemory<char> extents;                    // DATARUN_EXTENTS of it
    uint64_t vcn = 0;                             // the next one to read, counted from the attribute's start
    uint32_t offsetInCluster = 0;                 // bytes; of a resident attribute the offset in its value
    uint32_t attrIndex = 0;                       // the place in the stream order; 255 when all is written
    uint32_t sparseMode = 0;                      // 1 while the blocks of a sparse stream are written
    uint64_t sparseEndVcn = 0;
    CAutoMemory<char> pending;  // made and not yet delivered
};

// An entry of a directory's index.
struct INDEX_ENTRY_I30 {
    Le64_t Reference;       //  0  the low 48 bits are the FRN
    Le16_t Length;          //  8
    Le16_t KeyLength;       // 10
    Le16_t Flags;           // 12  1 has a sub-node, 2 last entry
    Le16_t Reserved;        // 14
    uint8_t FileName[56];   // 16  the front of a $FILE_NAME value
    Le32_t FileAttributes;  // 72
    Le32_t ReparseTag;      // 76
    U8_t NameLength;        // 80  16-bit characters
    U8_t NameKind;          // 81  1 long, 2 short, 3 both, 0 POSIX; the name follows
};
static_assert(sizeof(INDEX_ENTRY_I30) == 82);

// An entry of the index $SII of $Secure.
struct INDEX_ENTRY_SII {
    uint8_t Head[8];
    Le16_t Length;        //  8
    Le16_t KeyLength;     // 10
    Le16_t Flags;         // 12  2 last entry, without a key
    Le16_t Reserved;      // 14
    Le32_t Key;           // 16  the security id
    Le32_t Hash;          // 20
    Le32_t SecurityId;    // 24
    Le64_t Offset;        // 28  in $SDS
    Le32_t RecordLength;  // 36  with its head of 20 bytes
};
static_assert(sizeof(INDEX_ENTRY_SII) == 40);

// Reads NTFS itself, without a file system's driver, from a volume that `CLVM` presents.
//
// Open the volume, open a file by its record's number (FRN) into a buffer and a context of the caller's, read it
// (`ReadFile` or `BackupRead`), close it, close the volume. Several files may be open at once. Not for use by two
// threads at once: all reads share the object's buffers. Reading on a closed object answers NtfsOutOfRange.
//
// Results are those of ntfs/NtfsResults.h. NtfsSeeLog means that the line logged just before tells the cause.
class DISKSTREAM_EXPORT CDRVolume {
public:
    CDRVolume() = default;
    CDRVolume(const CDRVolume&) = delete;
    CDRVolume& operator=(const CDRVolume&) = delete;
    virtual ~CDRVolume() = default;

    // Kept for the process: set once, before work starts. The callback's third argument is a pointer to a byte that it
    // sets to ask for the stop.
    using QuitFlagCallback_t = int (*)(int, void*, void*);
    static void SetQuitFlagCallback(QuitFlagCallback_t callback, int firstArg, void* secondArg);

    // Closes what is open and opens `volume`, which is copied; `lvm` stays the caller's and outlives the open volume.
    // NtfsUnsupportedCluster below 1024 bytes per cluster. A failure behind the MFT's location leaves the volume half
    // open, and the caller closes it. A volume without $Volume or $Secure opens, without security.
    int OpenVolume(CLVM* lvm, LVM_Volume_t& volume);
    int CloseVolume();

    // Opens the file of that record into `record`: the base record, with the attributes of all extension records behind
    // its own. Without `withSecurity` the backup stream leaves the security descriptor out.
    // NtfsNotInUse, NtfsNotBaseRecord (the record stays in the buffer), NtfsTooManyRecords. After another failure the
    // record's state is undefined, and the caller closes it.
    int OpenFile(uint64_t frn, CAutoMemory<char>* record, int withSecurity, READFILECONTEXT* ctx);
    int CloseFile(CAutoMemory<char>* record, READFILECONTEXT* ctx);

    // Reads on in the unnamed data. NtfsEndOfRun at its end, with `*read` perhaps above 0. Callers rely on reading the
    // first segment alone where the data is split over several records.
    int ReadFile(CAutoMemory<char>* record, char* buffer, uint32_t size, uint32_t* read, READFILECONTEXT* ctx);

    // Delivers the next bytes of the file's backup stream. NtfsEndOfRun behind its end, and at an encrypted attribute.
    // `size` has to hold a stream's head with its name and a security descriptor, or the delivery doesn't complete.
    int BackupRead(CAutoMemory<char>* record, char* buffer, uint32_t size, uint32_t* read, READFILECONTEXT* ctx);

    // In units of 100 ns since 1601. `write` is the time of the data's change for a file, of the record's change for a
    // directory. `attributes` may be null.
    int GetFileTime(CAutoMemory<char>* record, uint64_t* creation, uint64_t* access, uint64_t* write);
    int GetFileTimeAndAttribs(CAutoMemory<char>* record, uint64_t* creation, uint64_t* access, uint64_t* write,
                              unsigned int* attributes);

    // Collects what lets a later machine, without the disk, list the volume's files and restore them: a file of the
    // volume's facts, a directory tree, a file of which records extend which, and one of all security descriptors. The
    // tree's root gets `rootName`; `value` is kept for the caller. Files that are there are written over; after a
    // failure the caller discards what was written. NtfsQuit when the quit callback asked for the stop: there is no
    // security file then. Besides the results of ntfs/NtfsResults.h the system's error numbers, which are positive.
    int DumpMetadataInformation(char* rootName, char* volumeInfoPath, char* treeTablePath, char* associatePath,
                                char* securityPath, uint32_t value);

protected:
    // The two steps that reach the volume, for a class that has another way to it. Errors are logged, and NtfsSeeLog.
    virtual int ReadVolumeInformation(NTFS_VOLUME_DATA_BUFFER* info);
    virtual int ReadDisk(uint64_t offset, char* buffer, uint32_t size);
    // Bytes per cluster below it are refused.
    virtual uint32_t SmallestCluster() const;

    int ReadMFTRecord(uint64_t frn, char* buffer);
    int GetMFTExtent();

    // Reads `size` bytes of an attribute at `*vcn` and `*offset`, which move on. `extents` are null for a resident one.
    int ReadAttribute(ATTR_RECORD_HEADER_t* attr, DATARUN_EXTENTS* extents, uint64_t* vcn, uint32_t* offset,
                      char* buffer, uint32_t size, uint32_t* read);
    // Decodes one LZNT1 chunk. A stored one gives 0 bytes.
    int UnCompress(char* source, char* target, uint32_t* size);

    // `path` has backslashes, and begins with one. NtfsIndexNotFound when there is no such file.
    int CrackFileName(wchar_t* path, uint64_t* frn);
    int SearchIndexBlock_I30(char* indexHeader, wchar_t* name, uint32_t nameLength, INDEX_ENTRY_I30** entry);
    int SearchIndexBlock_SII(char* indexHeader, uint32_t securityId, INDEX_ENTRY_SII** entry);
    int GetSecurityInformation(uint32_t securityId, CAutoMemory<char>* descriptor);
    int ReadSecurityData(INDEX_ENTRY_SII* entry, CAutoMemory<char>* descriptor);
    // 16-bit characters without an end. NtfsIndexNotFound when the record has no name of that kind.
    int GetFileName(CAutoMemory<char>* record, CAutoMemory<char>* name, uint32_t kind);
    ATTR_RECORD_HEADER_t* GetFileNameAttribute(CAutoMemory<char>* record, uint32_t kind);
    // Writes all descriptors: u32 security id, u32 length, the descriptor. A failed write gives the system's number.
    int DumpSecuirtyInformation(FILE* file);

    const NTFS_VOLUME_DATA_BUFFER& VolumeData() const { return m_VolumeData; }
    uint64_t MftSize() const { return m_MftSize; }  // bytes

private:
    struct Position_t;
    struct Request_t;
    struct Unit_t;
    class CExtentWalk;
    class CBackupStream;
    class CMetadataScan;

    // Opening, in steps.
    int OpenSteps();
    int ReadParentObjectId();
    int OpenSecure();
    int ReadSiiRoot();
    int CollectSiiSegments();
    int ReadFirstMftRecord(CAutoMemory<char>& record);
    int AddMftSegments(ATTR_RECORD_HEADER_t* list, uint64_t expectedVcn);
    int AddMftSegment(uint64_t frn, CAutoMemory<char>& record, uint64_t& expectedVcn);

    // Records.
    uint32_t RecordBytes() const { return m_VolumeData.BytesPerFileRecordSegment; }
    int FindRecord(uint64_t frn, uint64_t& offset, uint64_t& bytesTogether) const;
    int ReadRecordWindow(uint64_t frn, uint64_t offset, uint64_t bytesTogether);
    int ReadMendedRecord(uint64_t frn, CAutoMemory<char>& record);
    int ReadSoundRecord(uint64_t frn, CAutoMemory<char>& record);
    int MendRecord(char* record) const;
    int CheckRecord(const char* record) const;
    int MergeExtensions(uint64_t frn, ATTR_RECORD_HEADER_t* list, CAutoMemory<char>& record);
    int MergeRecord(uint64_t frn, CAutoMemory<char>& scratch, CAutoMemory<char>& record, uint64_t& markerOffset);

    // Attributes.
    int ReadValue(ATTR_RECORD_HEADER_t* attr, CAutoMemory<char>& extents, Position_t& position, uint64_t size,
                  CAutoMemory<char>& value);
    int ReadWholeValue(ATTR_RECORD_HEADER_t* attr, CAutoMemory<char>& value);
    void PassHole(const ATTR_RECORD_HEADER_t* attr, const DATARUN_EXTENTS* extents, uint32_t blockBytes,
                  Position_t& position) const;
    uint64_t StoredBytes(const DATARUN_EXTENTS& extents) const;
    int ReadNonResident(Request_t& request, const DATARUN_EXTENTS& extents);
    int DeliverRuns(Request_t& request, CExtentWalk& walk);
    int DeliverUnits(Request_t& request, CExtentWalk& walk, uint64_t unitClusters);
    int DeliverUnit(Request_t& request, const Unit_t& unit);
    int DeliverRun(Request_t& request, uint64_t lcn, uint64_t clusters);
    int DeliverStretch(Request_t& request, uint64_t lcn, uint64_t clusters);
    int DeliverByCluster(Request_t& request, uint64_t lcn, uint64_t clusters);
    int Fetch(uint64_t lcn, uint64_t skip, char* target, uint32_t bytes);
    int DeliverCompressed(Request_t& request, const Unit_t& unit);
    int DeliverChunk(Request_t& request, CByteView chunk);
    int ReadCompressedClusters(const Unit_t& unit);

    // Indexes and security.
    int FindInDirectory(uint64_t directory, const char16_t* name, uint32_t nameLength, uint64_t& frn);
    int FindInAllocation(CAutoMemory<char>& record, uint32_t blockBytes, const char16_t* name, uint32_t nameLength,
                         uint64_t& frn);
    int SearchNames(const char* indexHeader, uint64_t size, const char16_t* name, uint32_t nameLength,
                    INDEX_ENTRY_I30** entry);
    int HasLongName(uint64_t frn, const char16_t* name, uint32_t nameLength, bool& isHit);
    int ReadIndexBlock(ATTR_RECORD_HEADER_t* allocation, CAutoMemory<char>& extents, Position_t& position,
                       uint32_t blockBytes, CAutoMemory<char>& block);
    static CByteView NodeOf(const CAutoMemory<char>& block);
    int SearchSiiAllocation(uint32_t securityId, CAutoMemory<char>& block, INDEX_ENTRY_SII** entry);
    int DumpSiiNode(CByteView node, FILE* file);
    int DumpSiiEntry(INDEX_ENTRY_SII& entry, FILE* file);
    ATTR_RECORD_HEADER_t* FindSdsSegment(uint64_t vcn);

    // Collecting.
    int DumpVolumeInformation(const char* path, uint32_t value);
    int DumpSecurityFile(const char* path);

    LVM_Volume_t m_Volume;
    CLVM* m_Lvm = nullptr;
    uint64_t m_MftSize = 0;  // bytes
    CAutoMemory<char> m_MftExtents;
    CAutoMemory<char> m_ClusterBuffer;     // a decoded chunk, and room behind it
    CAutoMemory<char> m_CompressedBuffer;  // the clusters of one compression unit
    NTFS_VOLUME_DATA_BUFFER m_VolumeData{};
    uint8_t m_ParentObjId[16] = {};  // of the volume
    CAutoMemory<char> m_SecureRecord;
    ATTR_RECORD_HEADER_t* m_SiiAllocAttr = nullptr;  // in the record; reads as the whole index, with the extents
    CAutoMemory<char> m_SiiExtents;
    CAutoMemory<char> m_SiiRoot;  // from its index header on
    uint32_t m_SiiBlockSize = 0;
    CAutoMemory<char> m_SdsExtents;
    ATTR_RECORD_HEADER_t* m_SdsAttr = nullptr;  // the segment in use, in the record
    CAutoMemory<char> m_RecordWindow;           // records of the MFT that lie together
    uint64_t m_WindowFrn = 0;                   // the first of them
    uint64_t m_LastFrn = 0;                     // asked for last

    static QuitFlagCallback_t CheckQuitFlag;
    static int checkQuitFlagCallbackFirstArg;
    static void* checkQuitFlagCallbackSecondArg;
};
