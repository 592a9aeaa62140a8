#include "tests/support/NtfsBitmapVolume.h"

#include <algorithm>

#include "tests/support/Bytes.h"

namespace {

constexpr uint64_t BytesPerMftRecord = 1024;
constexpr uint64_t MftRecords = 8;

uint64_t RoundedUp(uint64_t value, uint64_t unit) {
    return (value + unit - 1) / unit;
}

}  // namespace

CNtfsBitmapVolume::CNtfsBitmapVolume(uint64_t clusters, uint32_t sectorsPerCluster)
    : m_Clusters(clusters), m_SectorsPerCluster(sectorsPerCluster) {}

CNtfsBitmapVolume& CNtfsBitmapVolume::SectorBytes(uint32_t bytes) {
    m_SectorBytes = bytes;
    return *this;
}

CNtfsBitmapVolume& CNtfsBitmapVolume::Use(uint64_t firstLcn, uint64_t count) {
    m_Used.emplace_back(firstLcn, count);
    return *this;
}

CNtfsBitmapVolume& CNtfsBitmapVolume::Data(uint64_t lcn, const std::string& bytes) {
    Use(lcn, RoundedUp(bytes.size(), ClusterBytes()));
    return Stale(lcn, bytes);
}

CNtfsBitmapVolume& CNtfsBitmapVolume::Stale(uint64_t lcn, const std::string& bytes) {
    m_Data.emplace_back(lcn, bytes);
    return *this;
}

CNtfsBitmapVolume& CNtfsBitmapVolume::BitmapRuns(const std::vector<NtfsRun_t>& runs) {
    m_BitmapRuns = runs;
    return *this;
}

CNtfsBitmapVolume& CNtfsBitmapVolume::MftRuns(const std::vector<NtfsRun_t>& runs) {
    m_MftRuns = runs;
    return *this;
}

CNtfsBitmapVolume& CNtfsBitmapVolume::Boot(const CNtfsBootBuilder& boot) {
    m_Boot = boot;
    return *this;
}

CNtfsBitmapVolume& CNtfsBitmapVolume::Record(uint64_t frn, const CNtfsFileRecordBuilder& record) {
    m_Records.insert_or_assign(frn, record);
    return *this;
}

CNtfsBitmapVolume& CNtfsBitmapVolume::BitmapAttribute(const CNtfsAttributeBuilder& attribute) {
    m_BitmapAttribute = attribute;
    return *this;
}

// Beyond 128 sectors the size of a cluster is told by a negative power of two.
CNtfsBootBuilder CNtfsBitmapVolume::SoundBoot() const {
    uint32_t size = m_SectorsPerCluster;
    if (size > 128) {
        uint32_t power = 0;
        while ((1U << power) < size)
            ++power;
        size = 256 - power;
    }
    CNtfsBootBuilder boot;
    boot.BytesPerSector(static_cast<uint16_t>(m_SectorBytes)).SectorsPerCluster(static_cast<uint8_t>(size));
    boot.TotalSectors(Sectors()).MftCluster(RunsOfMft().front().lcn.value()).MirrorMftCluster(2);
    boot.ClustersPerRecord(0xF6);  // 2 to the power of 10
    return boot;
}

bool CNtfsBitmapVolume::IsUsed(uint64_t lcn) const {
    const auto holds = [lcn](uint64_t first, uint64_t count) { return lcn >= first && lcn - first < count; };
    return (m_BitmapRuns.empty() && holds(0, BitmapLcn + RunsOfBitmap().front().clusters)) ||
           std::any_of(m_Used.begin(), m_Used.end(), [&](const auto& each) { return holds(each.first, each.second); });
}

std::string CNtfsBitmapVolume::Bitmap() const {
    std::string bitmap(RoundedUp(m_Clusters, 64) * 8 + 8, '\0');
    const auto set = [&](uint64_t lcn) { bitmap[lcn / 8] = static_cast<char>(bitmap[lcn / 8] | 1 << lcn % 8); };
    const auto setAll = [&](uint64_t first, uint64_t count) {
        for (uint64_t lcn = first; lcn < first + count; ++lcn)
            set(lcn);
    };
    if (m_BitmapRuns.empty())
        setAll(0, BitmapLcn + RunsOfBitmap().front().clusters);
    for (const auto& [first, count] : m_Used)
        setAll(first, count);
    setAll(m_Clusters, bitmap.size() * 8 - m_Clusters);
    return bitmap;
}

std::vector<NtfsRun_t> CNtfsBitmapVolume::RunsOfBitmap() const {
    const uint64_t bytes = RoundedUp(m_Clusters, 64) * 8 + 8;
    return m_BitmapRuns.empty() ? std::vector<NtfsRun_t>{{BitmapLcn, RoundedUp(bytes, ClusterBytes())}} : m_BitmapRuns;
}

std::vector<NtfsRun_t> CNtfsBitmapVolume::RunsOfMft() const {
    return m_MftRuns.empty()
               ? std::vector<NtfsRun_t>{{MftLcn, RoundedUp(MftRecords * BytesPerMftRecord, ClusterBytes())}}
               : m_MftRuns;
}

void CNtfsBitmapVolume::PutInRuns(CImageFile& image, const std::vector<NtfsRun_t>& runs, uint64_t offset,
                                  const std::string& bytes) const {
    uint64_t firstByte = 0;
    for (const NtfsRun_t& run : runs) {
        const uint64_t endByte = firstByte + run.clusters * ClusterBytes();
        const uint64_t from = std::max(firstByte, offset);
        const uint64_t to = std::min<uint64_t>(endByte, offset + bytes.size());
        if (run.lcn.has_value() && from < to)
            image.Put(*run.lcn * ClusterBytes() + (from - firstByte), bytes.substr(from - offset, to - from));
        firstByte = endByte;
    }
}

CNtfsFileRecordBuilder CNtfsBitmapVolume::MftRecord() const {
    return CNtfsFileRecordBuilder().Add(
        CNtfsAttributeBuilder::NonResident(NtfsDataType, RunsOfMft(), MftRecords * BytesPerMftRecord));
}

CNtfsFileRecordBuilder CNtfsBitmapVolume::BitmapRecord() const {
    return CNtfsFileRecordBuilder().RecordNumber(BitmapFrn).Add(
        m_BitmapAttribute.value_or(CNtfsAttributeBuilder::NonResident(NtfsDataType, RunsOfBitmap(), Bitmap().size())));
}

CImageFile CNtfsBitmapVolume::Image() const {
    CImageFile image;
    const std::string boot = (m_Boot ? *m_Boot : SoundBoot()).Bytes();
    image.Put(0, boot);
    std::map<uint64_t, CNtfsFileRecordBuilder> records = m_Records;
    records.emplace(0, MftRecord());
    records.emplace(BitmapFrn, BitmapRecord());
    for (const auto& [frn, record] : records)
        PutInRuns(image, RunsOfMft(), frn * BytesPerMftRecord, record.Bytes());
    PutInRuns(image, RunsOfBitmap(), 0, Bitmap());
    for (const auto& [lcn, bytes] : m_Data)
        image.Put(lcn * ClusterBytes(), bytes);
    image.Put(Sectors() * m_SectorBytes, boot);
    image.Resize(VolumeBytes());
    return image;
}

std::string CNtfsBitmapVolume::WriteTo(const CTempDir& dir, const std::string& name) const {
    return Image().WriteTo(dir, name);
}
