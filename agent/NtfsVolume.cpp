#include "agent/NtfsVolume.h"

#include <algorithm>
#include <cstdio>

#include "agent/detail/NtfsBackupStream.h"
#include "agent/detail/NtfsIndex.h"
#include "agent/detail/NtfsListing.h"
#include "agent/detail/NtfsMappedVolume.h"
#include "agent/detail/NtfsNames.h"
#include "agent/detail/NtfsRecordFacts.h"
#include "agent/detail/NtfsStream.h"
#include "foundation/detail/ErrorHandling.h"

namespace {

constexpr char OutOfMemory[] = "Out of memory";
constexpr char Separators[] = "/\\";
constexpr uint32_t PieceBytes = 1U << 20U;

CZuError NoSuchFile(const std::string& volume, const std::string& path) {
    return Refusal(volume + ": there is no " + path + "; `diskstream ls` lists what there is");
}

CZuError DeliverStream(CNtfsStream& stream, const TakeBytes_t& take) {
    CAutoMemory<char> buffer;
    if (stream.Bytes() != 0 &&
        buffer.Alloc(static_cast<uint32_t>(std::min<uint64_t>(stream.Bytes(), PieceBytes))) == nullptr)
        return Refusal(OutOfMemory);
    for (uint64_t done = 0; done < stream.Bytes();) {
        const auto piece = static_cast<uint32_t>(std::min<uint64_t>(stream.Bytes() - done, PieceBytes));
        ZU_RETURN_IF_ERROR(stream.Read(done, buffer.GetPtr(), piece));
        if (!take(buffer.GetPtr(), piece))
            return CZuError();
        done += piece;
    }
    return CZuError();
}

// The contents of some files are kept elsewhere, on another machine or in another form, and a reparse point tells a
// driver of Windows where. What lies here in their place is holes.
CZuError CheckContentsAreHere(CAutoMemory<char>& record, const std::string& where) {
    NtfsFileInfo_t info;
    DescribeNtfsRecord(record, info);
    if (!IsKeptElsewhere(info.reparseTag))
        return CZuError();
    char tag[16];
    std::snprintf(tag, sizeof(tag), "0x%08X", info.reparseTag);
    return Refusal(where + ": its contents are kept elsewhere (reparse point " + tag + ") and can't be read");
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
        for (size_t at = 0; at < path.size();) {
            const size_t end = std::min(path.find_first_of(Separators, at), path.size());
            const std::string part = path.substr(at, end - at);
            at = end + 1;
            if (part.empty() || part == ".")
                continue;
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

CZuError CNtfsVolume::Describe(uint64_t frn, NtfsFileInfo_t& info) {
    return WithinMemory(OutOfMemory, [&]() -> CZuError {
        CAutoMemory<char> record;
        ZU_RETURN_IF_ERROR(m_Volume->ReadRecord(frn, record));
        info = NtfsFileInfo_t();
        info.frn = frn;
        DescribeNtfsRecord(record, info);
        return CZuError();
    });
}

CZuError CNtfsVolume::List(uint64_t directory, NtfsListing_t& listing, const TakeNtfsEntry_t& take) {
    return WithinMemory(OutOfMemory, [&] { return CNtfsListing(*m_Volume, listing, take).Run(directory); });
}

CZuError CNtfsVolume::ReadStream(uint64_t frn, const std::string& name, const TakeBytes_t& take) {
    return WithinMemory(OutOfMemory, [&]() -> CZuError {
        CAutoMemory<char> record;
        ZU_RETURN_IF_ERROR(m_Volume->ReadRecord(frn, record));
        CNtfsStream stream;
        const std::string where = CZuString::Format("{1}: file record {2}", m_Info->name, frn).c_str();
        ZU_RETURN_IF_ERROR(stream.Open(*m_Volume, record, AttrData, NtfsNameOfText(name), where));
        if (stream.Attribute().isEncrypted)
            return Refusal(where + ": is encrypted; its bytes can't be read without the key");
        if (name.empty())
            ZU_RETURN_IF_ERROR(CheckContentsAreHere(record, where));
        return DeliverStream(stream, take);
    });
}

CZuError CNtfsVolume::ReadBackupStream(uint64_t frn, const TakeBytes_t& take) {
    return WithinMemory(OutOfMemory, [&] { return CNtfsBackupStream(*m_Volume, take).Write(frn); });
}

CZuError CNtfsVolume::ReadSecurity(uint64_t frn, std::string& descriptor) {
    return WithinMemory(OutOfMemory, [&]() -> CZuError {
        CAutoMemory<char> record;
        ZU_RETURN_IF_ERROR(m_Volume->ReadRecord(frn, record));
        return ReadNtfsSecurity(*m_Volume, frn, record, descriptor);
    });
}
