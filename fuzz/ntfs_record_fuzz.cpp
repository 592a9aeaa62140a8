// The input is a file record, an index record and a run list. What mends, checks and walks records may look at no byte
// behind the input, and what was taken for sound has to be walked inside it.
#include <algorithm>
#include <cstdint>
#include <vector>

#include "fuzz/support/Demand.h"
#include "ntfs/DRFileRecord.h"

namespace {

constexpr uint32_t SectorBytes = 512;
constexpr uint32_t EndMarker = 0xFFFFFFFF;
constexpr size_t LargestRecord = 65536;
constexpr size_t MostSearched = 100;  // each attribute is searched for among all of them

// In a block of exactly its size.
using Bytes_t = std::vector<char>;

uint32_t SizeOf(const Bytes_t& bytes) {
    return static_cast<uint32_t>(bytes.size());
}

size_t PlaceIn(const Bytes_t& record, const ATTR_RECORD_HEADER_t* attribute) {
    const char* const place = reinterpret_cast<const char*>(attribute);
    Demand(place >= record.data() && place <= record.data() + record.size(), "an attribute lies in its record");
    return static_cast<size_t>(place - record.data());
}

void CheckExtents(const CAutoMemory<char>& block, uint64_t startVcn) {
    Demand(block.GetSize() >= sizeof(DATARUN_EXTENTS), "a decoded list has its head");
    const auto* const extents = reinterpret_cast<const DATARUN_EXTENTS*>(block.GetPtr());
    Demand(block.GetSize() == sizeof(DATARUN_EXTENTS) + uint64_t{extents->Count} * sizeof(DATARUN_EXTENT_t),
           "a decoded list is as long as its count says");
    uint64_t vcn = startVcn;
    for (uint32_t index = 0; index < extents->Count; ++index) {
        const DATARUN_EXTENT_t& run = extents->Runs()[index];
        Demand(run.NextVcn >= vcn && run.NextVcn - vcn == run.RunLength, "runs lie one behind the other");
        Demand(run.StartLcn != HoleLcn || run.EndLcn == HoleLcn || run.EndLcn == run.StartLcn + run.RunLength - 1,
               "a run ends where its length says");
        vcn = run.NextVcn;
    }
}

void CheckRunList(Bytes_t list, uint64_t startVcn) {
    CAutoMemory<char> extents;
    const int result = CDRFileRecord::ConvertDataRunToExtent(list.data(), SizeOf(list), &extents, startVcn);
    Demand(result == NtfsOk || result == NtfsRunTooWide || result == NtfsRecordCorrupted, "a list has few ends");
    CheckExtents(extents, startVcn);
}

// Nothing but the ends of sectors may change, and both kinds of record are mended alike.
void CheckFixups(const Bytes_t& record) {
    Bytes_t file = record;
    Bytes_t index = record;
    const int ofFile = CDRFileRecord::DoFILESectorFixup(file.data(), SizeOf(file), SectorBytes);
    const int ofIndex = CDRFileRecord::DoINDXSectorFixup(index.data(), SizeOf(index), SectorBytes);
    Demand(ofFile == NtfsOk || ofFile == NtfsRecordCorrupted, "a file record is mended or corrupted");
    Demand(ofIndex == (ofFile == NtfsOk ? NtfsOk : NtfsIndexCorrupted), "an index record ends as a file record does");
    Demand(file == index, "both are mended alike");
    for (size_t offset = 0; offset < record.size(); ++offset)
        Demand(file[offset] == record[offset] || offset % SectorBytes >= SectorBytes - 2, "only sectors' ends change");
}

void CheckAttribute(const Bytes_t& record, ATTR_RECORD_HEADER_t* attribute) {
    CDRFileRecord::GetCompressionUnit(attribute);
    const uint64_t dataSize = CDRFileRecord::GetAttributeDataSize(attribute);
    char* const runList = CDRFileRecord::GetDataRunFromAttr(attribute);
    Demand((runList == nullptr) == (attribute->IsNonResident == 0), "only clusters have a run list");
    if (runList == nullptr) {
        Demand(dataSize <= record.size(), "a value lies in its record");
        return;
    }
    const size_t begin = static_cast<size_t>(runList - record.data());
    Demand(begin < record.size(), "a run list begins in its record");
    const uint32_t bytes = CDRFileRecord::GetDataRunBytes(attribute);
    Demand(bytes <= record.size() - begin, "a run list has to end in its record");
    CheckRunList(Bytes_t(runList, runList + bytes), 0);
}

void CheckSearches(Bytes_t& record, const std::vector<ATTR_RECORD_HEADER_t*>& attributes) {
    for (ATTR_RECORD_HEADER_t* const attribute : attributes) {
        const uint32_t type = attribute->Type;
        const auto isOfType = [&](const ATTR_RECORD_HEADER_t* other) { return other->Type == type; };
        const auto first = std::find_if(attributes.begin(), attributes.end(), isOfType);
        Demand(CDRFileRecord::FindFirstAttr(record.data(), type) == *first, "the first of a type is found");
        const auto behind = std::find_if(first + 1, attributes.end(), isOfType);
        ATTR_RECORD_HEADER_t* const next = CDRFileRecord::FindNextAttr(type, *first);
        Demand(next == (behind == attributes.end() || type >= EndMarker - 1 ? nullptr : *behind),
               "the next of a type is found");
    }
}

void CheckWalk(Bytes_t record) {
    if (CDRFileRecord::CheckAttributes(record.data(), SizeOf(record)) != NtfsOk)
        return;
    std::vector<ATTR_RECORD_HEADER_t*> attributes;
    for (ATTR_RECORD_HEADER_t* attribute = CDRFileRecord::GetFirstAttr(record.data()); attribute != nullptr;
         attribute = CDRFileRecord::GetNextAttr(attribute)) {
        Demand(attributes.empty() || attribute > attributes.back(), "a walk moves on");
        Demand(PlaceIn(record, attribute) + sizeof(ATTR_RECORD_HEADER_t) <= record.size(), "a head lies in its record");
        CheckAttribute(record, attribute);
        attributes.push_back(attribute);
    }
    ATTR_RECORD_HEADER_t* const marker = CDRFileRecord::FindFirstAttr(record.data(), EndMarker);
    Demand(marker != nullptr, "a sound record has an end marker");
    Demand(PlaceIn(record, marker) + 4 <= record.size(), "the end marker lies in its record");

    if (attributes.size() < MostSearched)
        CheckSearches(record, attributes);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const Bytes_t input(data, data + std::min(size, LargestRecord));
    CheckFixups(input);
    CheckWalk(input);
    Bytes_t mended = input;
    if (CDRFileRecord::DoFILESectorFixup(mended.data(), SizeOf(mended), SectorBytes) == NtfsOk)
        CheckWalk(mended);
    CheckRunList(input, 0);
    CheckRunList(input, ~uint64_t{0} - 1000);
    return 0;
}
