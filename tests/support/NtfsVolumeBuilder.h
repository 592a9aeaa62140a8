#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/ImageFile.h"
#include "tests/support/NtfsRecordBuilder.h"
#include "tests/support/PartitionTableBuilder.h"

// A small NTFS volume on a disk of its own, put together from file records and clusters, and what lies in its clusters.

// The records that a volume has without a word.
constexpr uint64_t NtfsVolumeNumber = 3;
constexpr uint64_t NtfsRootNumber = 5;
constexpr uint64_t NtfsSecureNumber = 9;

// An entry of a directory. Without a word it is that of a read-only file with one name for both kinds: the reader opens
// the file of any other entry, to see its long name.
CNtfsIndexEntryBuilder NtfsDirectoryEntry(uint64_t frn, const std::u16string& name, uint8_t kind = 3,
                                          uint32_t attributes = 1);

// A record of $SDS: what stands in front of a descriptor, and the descriptor.
std::string NtfsSecurityRecord(uint32_t id, const std::string& descriptor);

// A self-relative descriptor whose parts, of different sizes, lie in the order of `order`: the letters O, G, S and D
// for owner, group, SACL and DACL. A letter that isn't there is a part that is absent. Its control word doesn't say
// that it is self-relative.
std::string SecurityDescriptorBytes(const std::string& order);

// Those of the same letters as the reader gives them: in its one order, and said to be self-relative.
std::string CanonicalDescriptorBytes(const std::string& letters);

// A chunk of LZNT1 that gives 4096 bytes: `fill` over and over, then `tail`, of at most 4092 bytes.
std::string CompressedChunk(char fill, const std::string& tail = "");

// What `CompressedChunk` gives.
std::string UncompressedChunk(char fill, const std::string& tail = "");

// Without a word the volume has 2 MiB in clusters of 4096 bytes and an MFT of 64 records of 1024 bytes. In it are $MFT,
// $Volume, the root directory with $Secure alone, and $Secure, whose descriptors `Descriptor` adds. Clusters from
// byte `FreeByte` on are the test's.
class CNtfsVolumeBuilder {
public:
    static constexpr uint64_t FreeByte = 0x40000;
    static constexpr uint64_t SecurityStreamByte = 0x20000;
    static constexpr uint64_t SecurityStreamBytes = 0x10000;
    static constexpr uint32_t RecordBytes = 1024;
    static constexpr uint64_t PartitionLba = 64;

    CNtfsVolumeBuilder& SectorsPerCluster(uint8_t sectors);
    CNtfsVolumeBuilder& Boot(const CNtfsBootBuilder& boot);  // instead of the volume's own, all of it
    CNtfsBootBuilder SoundBoot() const;

    // Where the MFT lies, in the order of its records. $MFT tells it in one attribute, unless it is replaced.
    CNtfsVolumeBuilder& MftRuns(const std::vector<NtfsRun_t>& runs);

    // Record `frn`, instead of the one that is there. An empty text stands for zeros.
    CNtfsVolumeBuilder& Record(uint64_t frn, const std::string& bytes);
    CNtfsVolumeBuilder& Record(uint64_t frn, const CNtfsFileRecordBuilder& record);

    // The root directory's index, instead of that with $Secure, and one more entry of it.
    CNtfsVolumeBuilder& Root(const CNtfsIndexRootBuilder& root);
    CNtfsVolumeBuilder& RootEntry(const CNtfsIndexEntryBuilder& entry);
    CNtfsVolumeBuilder& VolumeObjectId(const std::string& bytes);
    CNtfsVolumeBuilder& Descriptor(uint32_t id, const std::string& descriptor);

    CNtfsVolumeBuilder& Cluster(uint64_t lcn, const std::string& bytes);

    // The attributes that the volume's own records have.
    CNtfsAttributeBuilder SecurityIndexRoot() const;
    CNtfsAttributeBuilder SecurityStream() const;

    uint64_t FreeLcn() const { return FreeByte / ClusterBytes(); }
    uint32_t ClusterBytes() const { return m_SectorsPerCluster * 512; }
    uint64_t MftLcn() const;

    CImageFile Image() const;
    // The volume's own bytes, without the disk around them.
    CImageFile VolumeImage() const;

private:
    struct Descriptor_t {
        uint32_t id;
        uint64_t offset;
        std::string record;
    };

    void PutTo(CImageFile& image, uint64_t offset) const;
    std::vector<NtfsRun_t> RunsOfMft() const;
    uint64_t ByteOfRecord(uint64_t frn) const;
    std::map<uint64_t, std::string> Records() const;
    std::string MftRecord() const;
    std::string VolumeRecord() const;
    std::string RootRecord() const;
    std::string SecureRecord() const;

    uint32_t m_SectorsPerCluster = 8;
    std::optional<CNtfsBootBuilder> m_Boot;
    std::vector<NtfsRun_t> m_MftRuns;
    std::map<uint64_t, std::string> m_Records;
    CNtfsIndexRootBuilder m_Root = CNtfsIndexRootBuilder().Add(NtfsDirectoryEntry(NtfsSecureNumber, u"$Secure"));
    std::optional<std::string> m_ObjectId;
    std::vector<Descriptor_t> m_Descriptors;
    std::vector<std::pair<uint64_t, std::string>> m_Clusters;
};
