#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "VirtualServer/VMInfo/LVM.h"
#include "foundation/ZuFile.h"
#include "platform/Export.h"

// What goes wrong while Linux volumes are looked for. Thrown and caught inside the parser alone.
class DISKSTREAM_EXPORT VIDALinuxDiskParserException {
public:
    static constexpr uint32_t System = 0;
    static constexpr uint32_t Lvm2 = 1;
    static constexpr uint32_t Application = 2;

    VIDALinuxDiskParserException(uint32_t category, const std::string& message);

    // The category's word and the message, in one line. Lives as long as the object.
    const char* GetErrorMsg();

private:
    uint32_t m_Category;
    std::string m_Message;  // at most 4095 characters
    std::string m_Text;
};

// A text file that is read by the line.
class DISKSTREAM_EXPORT FileIO {
public:
    // Throws where the file can't be opened. `mode` is that of the C library; only reading is served.
    FileIO(const char* name, const char* mode);
    FileIO(const FileIO&) = delete;
    FileIO& operator=(const FileIO&) = delete;
    ~FileIO();

    // Fills `line` with the next line, its line feed included, cut to `size` - 1 characters, the rest of
    // which come with the next call. Throws at the end of the file, and where it can't be read.
    void ReadLine(char* line, int size);

private:
    bool Fill();

    CZuFile m_File;
    std::string m_Buffer;
    size_t m_Next = 0;
    bool m_HasFailed = false;
};

// Tells which partitions and whole disks are LVM2 physical volumes, reads the text metadata of these,
// and makes a volume of each of their logical volumes. What is no physical volume becomes a plain
// volume of its own.
class DISKSTREAM_EXPORT VIDALinuxDiskParser {
public:
    // `lvm` has the disks, and stays the caller's.
    explicit VIDALinuxDiskParser(CLVM* lvm);

    // Appends to `volumes` what the components hold. `path` names the temporary file that takes each
    // physical volume's text in turn; it isn't removed. False when something was wrong, after the log
    // was told what.
    bool GenerateVolListFromPartitions(const std::vector<LVM_Component_t>& components,
                                       std::vector<LVM_Volume_t>& volumes, const char* path);

    // True, with the 32 characters of its id in `pvId` and its text in the file `path`, when the slice is
    // a physical volume. Throws `VIDALinuxDiskParserException`.
    bool IsDiskSliceLVM2PhysicalVolume(const LVM_Component_t& component, std::string& pvId, const char* path);

    // Reads `size` bytes at byte `offset` of the slice: `size`, or 0 on failure.
    uint32_t ReadFromDiskSlice(const LVM_Component_t& component, void* buffer, uint32_t size, uint64_t offset);

protected:
    enum class Token_t : int { Item = 0, Close = 3, Open = 4 };

    struct VolumeGroup_t {
        std::string id;
        std::string status;
        int seqno = 0;
        uint64_t extentSize = 0;  // sectors
        int maxLv = 0;
        int maxPv = 0;
    };
    struct PhysicalVolume_t {
        std::string id;
        std::string device;
        std::string status;
        uint64_t devSize = 0;  // sectors
        uint64_t peStart = 0;  // sectors
        uint64_t peCount = 0;  // extents
        LVM_Component_t slice;
    };
    struct Stripe_t {
        const PhysicalVolume_t* physicalVolume = nullptr;  // null for one that the text doesn't have
        uint64_t startExtent = 0;
    };
    struct Segment_t {
        uint64_t startExtent = 0;
        uint64_t extentCount = 0;
        std::string type;
        int stripeCount = 0;
        int stripeSize = 0;  // sectors
        std::vector<Stripe_t> stripes;
    };
    struct LogicalVolume_t {
        std::string group;
        std::string id;
        std::string status;
        int segmentCount = 0;
        std::vector<Segment_t> segments;
    };

    Token_t GetNextTokenValue(FileIO& file, std::string& name, std::string& value);
    void LinuxLVM2MetaDataParser(const char* path);
    void UpdatePVInfo(const std::string& pvId, const LVM_Component_t& component);
    void UpdateLogicalVolInfo(std::vector<LVM_Volume_t>& volumes);

private:
    void AddSlice(const LVM_Component_t& component, const char* path, unsigned& counter,
                  std::vector<LVM_Volume_t>& volumes);
    bool ReadPhysicalVolume(const LVM_Component_t& component, std::string& pvId, const char* path);
    bool FindLabel(const LVM_Component_t& component, char (&sector)[512]);
    void CopyMetadataArea(const LVM_Component_t& component, uint64_t areaOffset, CZuFile& file);
    void CopyText(const LVM_Component_t& component, uint64_t offset, uint64_t size, CZuFile& file);
    Token_t ReadToken(FileIO& file, std::string& name, std::string& value);
    void ParseText(const char* path);
    void ParseGroupItems(FileIO& file, VolumeGroup_t& group, std::string& blockName);
    void SkipToBlock(FileIO& file, std::string& name);
    bool NextBlock(FileIO& file, std::string& name);
    void ParsePhysicalVolume(FileIO& file, PhysicalVolume_t& volume);
    void ParseLogicalVolume(FileIO& file, const std::string& group, LogicalVolume_t& volume);
    void ParseSegment(FileIO& file, const std::string& group, Segment_t& segment);
    void ParseStripes(FileIO& file, const std::string& group, Segment_t& segment);
    static bool AddSegment(const Segment_t& segment, uint64_t extentSize, LVM_Volume_t& volume);
    LogicalVolume_t& NewLogicalVolume(const std::string& group, const std::string& name);
    std::string NewKey(const std::string& group, const std::string& name);
    void Charge(uint64_t bytes);

    CLVM* m_Lvm;
    uint64_t m_TakenBytes = 0;  // by what the texts tell
    std::map<std::string, VolumeGroup_t> m_Groups;
    std::map<std::string, PhysicalVolume_t> m_PhysicalVolumes;  // by group, "-" and name
    std::map<std::string, LogicalVolume_t> m_LogicalVolumes;    // the same
};
