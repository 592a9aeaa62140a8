// The input is pieces of a small NTFS volume, see NtfsImage.h. Everything that the core reads of it, it reads: records,
// contents, backup streams, names, descriptors. The volume's size bounds the memory that this takes.
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "VirtualServer/VMInfo/NtfsBootSector.h"
#include "VirtualServer/VMInfo/detail/NtfsVolumeFacts.h"
#include "fuzz/support/Demand.h"
#include "fuzz/support/MemoryCeiling.h"
#include "fuzz/support/NtfsImage.h"
#include "ntfs/DRVolume.h"

extern "C" __attribute__((weak)) size_t LLVMFuzzerMutate(uint8_t* data, size_t size, size_t maxSize);

namespace {

constexpr uint64_t MostMemory = 32 * NtfsImageBytes;
constexpr uint64_t MostBytesRead = 32 * NtfsImageBytes;  // of the volume, by one input
constexpr uint64_t MostRecords = 96;
constexpr uint64_t MostContents = 300000;
constexpr uint32_t PieceBytes = 70000;  // no divisor of a cluster, and larger than most streams' heads

const wchar_t* const Paths[] = {L"\\",
                                L"\\$MFT",
                                L"\\$Extend\\$ObjId",
                                L"\\many\\file with a long name 40.txt",
                                L"\\folder\\UPPER and lower.txt",
                                L"\\folder\\none"};

// A number that is of the system, not of NTFS, comes with a descriptor that can't be split.
bool IsKnownResult(int result) {
    return result >= NtfsQuit;
}

class CImageVolume : public CDRVolume {
public:
    explicit CImageVolume(std::string image) : m_Image(std::move(image)) {}

    void ReadAll() {
        LVM_Volume_t volume;
        const int opened = OpenVolume(nullptr, volume);
        Demand(IsKnownResult(opened), "a volume opens with a result that is known");
        if (MftSize() != 0) {
            for (uint64_t frn = 0; frn < MostRecords; ++frn)
                ReadOne(frn);
            FindPaths();
            ReadDescriptors();
        }
        CloseVolume();
    }

protected:
    int ReadVolumeInformation(NTFS_VOLUME_DATA_BUFFER* info) override {
        NtfsBootSector_t sector{};
        m_Image.copy(reinterpret_cast<char*>(&sector), sizeof(sector));
        if (!IsNtfs(sector))
            return NtfsSeeLog;
        FillNtfsVolumeFacts(sector, *info);
        return NtfsOk;
    }

    int ReadDisk(uint64_t offset, char* buffer, uint32_t size) override {
        if (offset > m_Image.size() || size > m_Image.size() - offset || m_BytesRead > MostBytesRead)
            return NtfsSeeLog;
        m_Image.copy(buffer, size, offset);
        m_BytesRead += size;
        return NtfsOk;
    }

private:
    void ReadOne(uint64_t frn) {
        CAutoMemory<char> record;
        READFILECONTEXT context;
        if (OpenFile(frn, &record, 1, &context) == NtfsOk) {
            ReadFacts(record);
            ReadToTheEnd(record, context, &CDRVolume::ReadFile);
            Demand(OpenFile(frn, &record, 1, &context) == NtfsOk || m_BytesRead > MostBytesRead, "a file opens again");
            ReadToTheEnd(record, context, &CDRVolume::BackupRead);
        }
        CloseFile(&record, &context);
        Demand(record.GetPtr() == nullptr || CDRFileRecord::IsValidFileRec(record.GetPtr()) == NtfsNotInUse,
               "a closed file's record is none");
    }

    void ReadFacts(CAutoMemory<char>& record) {
        uint64_t times[3];
        unsigned int attributes = 0;
        Demand(IsKnownResult(GetFileTimeAndAttribs(&record, &times[0], &times[1], &times[2], &attributes)),
               "times are told with a result that is known");
        for (uint32_t kind = 0; kind < 4; ++kind) {
            CAutoMemory<char> name;
            const int result = GetFileName(&record, &name, kind);
            Demand(result != NtfsOk || name.GetSize() <= 510, "a name has 255 characters at most");
        }
    }

    using Read_t = int (CDRVolume::*)(CAutoMemory<char>*, char*, uint32_t, uint32_t*, READFILECONTEXT*);

    void ReadToTheEnd(CAutoMemory<char>& record, READFILECONTEXT& context, Read_t step) {
        std::vector<char> buffer(PieceBytes);
        for (uint64_t done = 0; done < MostContents;) {
            uint32_t read = 0;
            const int result = (this->*step)(&record, buffer.data(), PieceBytes, &read, &context);
            Demand(read <= PieceBytes, "no more is read than there is room for");
            if (result != NtfsOk || read == 0)
                return;
            done += read;
        }
    }

    void FindPaths() {
        for (const wchar_t* const each : Paths) {
            std::wstring path(each);
            uint64_t frn = 0;
            const int result = CrackFileName(path.data(), &frn);
            Demand((result == NtfsOk) == (frn != ~uint64_t{0}), "a path that is found has a number");
        }
    }

    void ReadDescriptors() {
        for (uint32_t id = 0xFF; id < 0x108; ++id) {
            CAutoMemory<char> descriptor;
            const int result = GetSecurityInformation(id, &descriptor);
            Demand(result == NtfsOk || descriptor.GetSize() == 0, "a descriptor that isn't found is empty");
            Demand(result != NtfsOk || descriptor.GetSize() >= 20, "a descriptor has a head");
        }
        FILE* const nowhere = std::fopen("/dev/null", "wb");
        if (nowhere == nullptr)
            return;
        DumpSecuirtyInformation(nowhere);
        std::fclose(nowhere);
    }

    std::string m_Image;
    uint64_t m_BytesRead = 0;
};

}  // namespace

extern "C" size_t LLVMFuzzerCustomMutator(uint8_t* data, size_t size, size_t maxSize, unsigned int seed) {
    return CNtfsImageMutator(data, size, maxSize, seed, LLVMFuzzerMutate).Run();
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    CImageVolume volume(NtfsImageFrom(data, size));
    const CMemoryCeiling ceiling(MostMemory);
    volume.ReadAll();
    return 0;
}
