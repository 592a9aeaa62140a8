#include "agent/NtfsVolume.h"

#include <algorithm>

#include "agent/detail/NtfsIndex.h"
#include "agent/detail/NtfsListing.h"
#include "agent/detail/NtfsMappedVolume.h"
#include "agent/detail/NtfsNames.h"
#include "agent/detail/NtfsRecordFacts.h"
#include "agent/detail/OutOfMemory.h"
#include "foundation/detail/ErrorHandling.h"

namespace {

CZuError NoSuchFile(const std::string& volume, const std::string& path) {
    return Refusal(volume + ": there is no " + path + "; `diskstream ls` lists what there is");
}

}  // namespace

CNtfsVolume::CNtfsVolume() = default;
CNtfsVolume::~CNtfsVolume() = default;

CZuError CNtfsVolume::Open(CVolumeSet& set, const VolumeInfo_t& volume) {
    return WithinMemory(OutOfMemory, [&]() -> CZuError {
        if (!volume.problem.empty())
            return Refusal(volume.name + ": " + volume.problem);
        m_Info = &volume;
        m_Volume = std::make_unique<CNtfsMappedVolume>();
        return m_Volume->Open(set, volume);
    });
}

std::vector<std::string> CNtfsVolume::Warnings() const {
    if (m_Volume->SecurityProblem().empty())
        return {};
    return {m_Volume->SecurityProblem() + "; security descriptors can't be read"};
}

CZuError CNtfsVolume::Find(const std::string& path, uint64_t& frn) {
    return WithinMemory(OutOfMemory, [&]() -> CZuError {
        uint64_t current = RootFrn;
        std::string reached;
        for (const std::string& part : NamesOfPath(path)) {
            const std::string parent = reached.empty() ? "/" : reached;
            reached += "/" + part;
            ZU_RETURN_IF_ERROR(FindInDirectory(current, parent, NtfsNameOfText(part), current));
        }
        frn = current;
        return CZuError();
    });
}

// A name that is the same to the letter goes before one that differs in case. A record that was given to another file
// since the name was made is no file of that name.
CZuError CNtfsVolume::FindInDirectory(uint64_t directory, const std::string& where, const std::u16string& name,
                                      uint64_t& frn) {
    const std::string path = (where == "/" ? where : where + "/") + TextOfNtfsName(name);
    CAutoMemory<char> record;
    ZU_RETURN_IF_ERROR(m_Volume->ReadRecord(directory, record));
    if ((NtfsHeadOf(record).flags & RecordIsDirectory) == 0)
        return Refusal(m_Info->name + ": " + where + " is no directory");
    NtfsIndexName_t found;
    bool isFound = false;
    CNtfsDirectory names(*m_Volume, m_Info->name + ": " + where);
    ZU_RETURN_IF_ERROR(names.Walk(record, [&](NtfsIndexName_t&& each) {
        const bool isExact = each.name == name;
        if (isExact || (!isFound && IsSameNtfsName(each.name, name))) {
            found = std::move(each);
            isFound = true;
        }
        return !isExact;
    }));
    if (!isFound && !names.Problems().empty())
        return Refusal(names.Problems().front() + ", and " + TextOfNtfsName(name) + " isn't in the rest of it");
    if (!isFound)
        return NoSuchFile(m_Info->name, path);
    ZU_RETURN_IF_ERROR(m_Volume->ReadRecord(found.frn, record));
    if (found.reuseCount != 0 && found.reuseCount != NtfsHeadOf(record).reuseCount)
        return Refusal(m_Info->name + ": " + path + ": its file record belongs to another file by now");
    frn = found.frn;
    return CZuError();
}

CZuError CNtfsVolume::FindFile(const std::string& path, NtfsFileInfo_t& info) {
    uint64_t frn = 0;
    ZU_RETURN_IF_ERROR(Find(path, frn));
    return Describe(frn, info);
}

CZuError CNtfsVolume::Describe(uint64_t frn, NtfsFileInfo_t& info) {
    return DescribeNtfsFile(*m_Volume, frn, info);
}

CZuError CNtfsVolume::List(uint64_t directory, NtfsListing_t& listing, const TakeNtfsEntry_t& take) {
    return WithinMemory(OutOfMemory, [&] { return CNtfsListing(*m_Volume, listing, take).Run(directory); });
}

CZuError CNtfsVolume::ReadStream(uint64_t frn, const std::string& name, const TakeBytes_t& take) {
    return ReadNtfsStream(*m_Volume, frn, name, take);
}

CZuError CNtfsVolume::ReadBackupStream(uint64_t frn, const TakeBytes_t& take) {
    return ReadNtfsBackupStream(*m_Volume, frn, take);
}

CZuError CNtfsVolume::ReadSecurity(uint64_t frn, std::string& descriptor) {
    return ReadNtfsSecurity(*m_Volume, frn, descriptor);
}
