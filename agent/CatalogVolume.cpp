#include "agent/CatalogVolume.h"

#include <algorithm>
#include <cstring>
#include <optional>

#include "agent/detail/CatalogListing.h"
#include "agent/detail/CatalogRecords.h"
#include "agent/detail/NtfsNames.h"
#include "agent/detail/OutOfMemory.h"
#include "agent/detail/SetSchema.h"
#include "foundation/ByteOrder.h"
#include "foundation/ZuFile.h"
#include "foundation/detail/ErrorHandling.h"
#include "ntfs/detail/NtfsFormat.h"

bool IsBackupSet(const std::string& path) {
    static constexpr char beginning[] = "SQLite format 3";
    constexpr size_t applicationIdOffset = 68;
    char head[applicationIdOffset + sizeof(Be32_t)] = {};
    CZuFile file;
    unsigned int got = 0;
    if (file.Open(path.c_str(), OpenAsBinary | OpenNotInherited, 0).IsErrorSet() ||
        file.Read(head, sizeof(head), &got).IsErrorSet() || got != sizeof(head))
        return false;
    Be32_t application{};
    std::memcpy(&application, head + applicationIdOffset, sizeof(application));
    return std::memcmp(head, beginning, sizeof(beginning)) == 0 && application == SetApplicationId;
}

CCatalogVolume::CCatalogVolume() = default;
CCatalogVolume::~CCatalogVolume() = default;

CZuError CCatalogVolume::Open(CBackupSetReader& set, const SetVolume_t& volume) {
    m_Set = &set;
    m_Info = &volume;
    m_Records.reset();
    return CZuError();
}

CZuError CCatalogVolume::Find(const std::string& path, uint64_t& frn) {
    SetEntry_t found;
    ZU_RETURN_IF_ERROR(FindEntry(path, found));
    frn = found.frn;
    return CZuError();
}

CZuError CCatalogVolume::FindFile(const std::string& path, NtfsFileInfo_t& info) {
    SetEntry_t found;
    ZU_RETURN_IF_ERROR(FindEntry(path, found));
    info = NtfsFileInfo_t();
    DescribeCatalogEntry(found, info);
    return CZuError();
}

CZuError CCatalogVolume::FindEntry(const std::string& path, SetEntry_t& current) {
    return WithinMemory(OutOfMemory, [&]() -> CZuError {
        current = SetEntry_t();
        current.frn = RootFrn;
        current.isDirectory = true;
        std::string reached;
        for (const std::string& part : NamesOfPath(path)) {
            const std::string parent = reached.empty() ? "/" : reached;
            if (!current.isDirectory)
                return Refusal(m_Info->name + ": " + parent + " is no directory");
            reached += "/" + part;
            ZU_RETURN_IF_ERROR(FindInDirectory(current.frn, reached, part, current));
        }
        return CZuError();
    });
}

// A name that is the same to the letter goes before one that differs in case.
CZuError CCatalogVolume::FindInDirectory(uint64_t directory, const std::string& where, const std::string& name,
                                         SetEntry_t& found) {
    const std::u16string wanted = NtfsNameOfText(name);
    std::optional<SetEntry_t> entry;
    ZU_RETURN_IF_ERROR(m_Set->FindEntry(m_Info->id, directory, TextOfNtfsName(wanted), entry));
    if (!entry.has_value()) {
        ZU_RETURN_IF_ERROR(m_Set->ForEachEntry(m_Info->id, directory, [&](SetEntry_t& each) {
            if (IsSameNtfsName(NtfsNameOfText(each.name), wanted))
                entry = std::move(each);
            return !entry.has_value();
        }));
    }
    if (!entry.has_value())
        return Refusal(m_Info->name + ": there is no " + where + "; `diskstream ls` lists what there is");
    found = std::move(*entry);
    return CZuError();
}

CZuError CCatalogVolume::OpenRecords(CCatalogRecords*& records) {
    if (m_Records == nullptr) {
        auto opened = std::make_unique<CCatalogRecords>();
        ZU_RETURN_IF_ERROR(opened->Open(*m_Set, *m_Info));
        m_Records = std::move(opened);
    }
    records = m_Records.get();
    return CZuError();
}

CZuError CCatalogVolume::Describe(uint64_t frn, NtfsFileInfo_t& info) {
    CCatalogRecords* records = nullptr;
    ZU_RETURN_IF_ERROR(OpenRecords(records));
    return DescribeNtfsFile(*records, frn, info);
}

CZuError CCatalogVolume::List(uint64_t directory, NtfsListing_t& listing, const TakeNtfsEntry_t& take) {
    const CSetHold hold(*m_Set);
    return WithinMemory(OutOfMemory, [&]() -> CZuError {
        CCatalogRecords* records = nullptr;
        if (listing.withStreams)
            ZU_RETURN_IF_ERROR(OpenRecords(records));
        return CCatalogListing(*m_Set, *m_Info, records, listing, take).Run(directory);
    });
}

CZuError CCatalogVolume::ReadStream(uint64_t frn, const std::string& name, const TakeBytes_t& take) {
    const CSetHold hold(*m_Set);
    CCatalogRecords* records = nullptr;
    ZU_RETURN_IF_ERROR(OpenRecords(records));
    return ReadNtfsStream(*records, frn, name, take);
}

CZuError CCatalogVolume::ReadBackupStream(uint64_t frn, const TakeBytes_t& take) {
    const CSetHold hold(*m_Set);
    CCatalogRecords* records = nullptr;
    ZU_RETURN_IF_ERROR(OpenRecords(records));
    return ReadNtfsBackupStream(*records, frn, take);
}

CZuError CCatalogVolume::ReadSecurity(uint64_t frn, std::string& descriptor) {
    CCatalogRecords* records = nullptr;
    ZU_RETURN_IF_ERROR(OpenRecords(records));
    return ReadNtfsSecurity(*records, frn, descriptor);
}
