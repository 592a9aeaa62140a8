#include "agent/detail/CatalogFacts.h"

#include <algorithm>
#include <cstdio>
#include <nlohmann/json.hpp>

#include "agent/detail/OutOfMemory.h"
#include "foundation/detail/CheckedMath.h"
#include "foundation/detail/ErrorHandling.h"

namespace {

using Json_t = nlohmann::ordered_json;

constexpr uint64_t SectorEnd = uint64_t{1} << 54U;  // bytes of such a place fit 63 bits

Json_t ComponentJson(const LVM_Component_t& component) {
    Json_t json{{"start", component.DiskLBAStart},
                {"volume_start", component.VolLBAStart},
                {"sectors", component.VolLBAEnd - component.VolLBAStart + 1}};
    json["disk"] = component.HardDiskIndex != NoHardDisk ? Json_t(component.HardDiskIndex) : Json_t();
    return json;
}

Json_t LayoutJson(const LVM_Volume_t& layout) {
    Json_t segments = Json_t::array();
    for (const LVM_Segment_t& segment : layout.Segments) {
        Json_t components = Json_t::array();
        for (const LVM_Component_t& component : segment.Components)
            components.push_back(ComponentJson(component));
        segments.push_back({{"start", segment.LBAStart}, {"stripe", segment.StripeSize}, {"components", components}});
    }
    return {{"raid5", layout.IsRaid5 != 0}, {"segments", segments}};
}

// Reading. Whatever the text lacks, or has in another form, ends it.

uint64_t SectorOf(const Json_t& json, const char* key) {
    const uint64_t sector = json.at(key).get<uint64_t>();
    if (sector >= SectorEnd)
        throw std::out_of_range(key);
    return sector;
}

LVM_Component_t ComponentOf(const Json_t& json, int32_t column, uint32_t diskCount) {
    LVM_Component_t component;
    const uint64_t sectors = SectorOf(json, "sectors");
    if (sectors == 0)
        throw std::out_of_range("sectors");
    component.DiskLBAStart = SectorOf(json, "start");
    component.DiskLBAEnd = component.DiskLBAStart + sectors - 1;
    component.VolLBAStart = SectorOf(json, "volume_start");
    component.VolLBAEnd = component.VolLBAStart + sectors - 1;
    component.ColumnIndex = column;
    const Json_t& disk = json.at("disk");
    component.HardDiskIndex = disk.is_null() ? NoHardDisk : disk.get<uint32_t>();
    if (!disk.is_null() && component.HardDiskIndex >= diskCount)
        throw std::out_of_range("disk");
    return component;
}

LVM_Volume_t LayoutOf(const Json_t& json, uint32_t diskCount) {
    LVM_Volume_t layout;
    layout.AllDiskFound = 1;
    layout.IsRaid5 = json.at("raid5").get<bool>() ? 1 : 0;
    for (const Json_t& each : json.at("segments")) {
        LVM_Segment_t segment;
        segment.LBAStart = SectorOf(each, "start");
        segment.StripeSize = SectorOf(each, "stripe");
        uint64_t sectors = 0;
        for (const Json_t& component : each.at("components")) {
            segment.Components.push_back(
                ComponentOf(component, static_cast<int32_t>(segment.Components.size()), diskCount));
            const LVM_Component_t& added = segment.Components.back();
            sectors += added.VolLBAEnd - added.VolLBAStart + 1;
            if (sectors >= SectorEnd)
                throw std::out_of_range("components");
        }
        if (segment.Components.empty() ||
            (!layout.Segments.empty() && segment.LBAStart <= layout.Segments.back().LBAStart))
            throw std::out_of_range("segments");
        segment.LBAEnd = segment.LBAStart + sectors - 1;
        layout.Segments.push_back(std::move(segment));
    }
    if (layout.Segments.empty())
        throw std::out_of_range("segments");
    return layout;
}

CatalogFacts_t FactsOf(const Json_t& json, uint32_t diskCount) {
    CatalogFacts_t facts;
    facts.volume.label = json.at("label").get<std::string>();
    facts.volume.group = json.at("group").get<std::string>();
    facts.volume.typeName = json.at("type").get<std::string>();
    facts.volume.fileSystem = json.at("file_system").get<std::string>();
    facts.volume.sectors = SectorOf(json, "sectors");
    facts.volume.layout = LayoutOf(json.at("layout"), diskCount);
    for (const Json_t& mirror : json.at("mirrors"))
        facts.volume.mirrors.push_back(LayoutOf(mirror, diskCount));
    facts.isInDump = json.at("is_in_dump").get<bool>();
    return facts;
}

}  // namespace

std::string CatalogFactsText(const CatalogFacts_t& facts) {
    const VolumeInfo_t& volume = facts.volume;
    Json_t mirrors = Json_t::array();
    for (const LVM_Volume_t& mirror : volume.mirrors)
        mirrors.push_back(LayoutJson(mirror));
    const Json_t json{{"label", volume.label},     {"group", volume.group},
                      {"type", volume.typeName},   {"file_system", volume.fileSystem},
                      {"sectors", volume.sectors}, {"layout", LayoutJson(volume.layout)},
                      {"mirrors", mirrors},        {"is_in_dump", facts.isInDump}};
    return json.dump(-1, ' ', false, Json_t::error_handler_t::replace);
}

CZuError ReadCatalogFacts(const std::string& text, uint32_t diskCount, CatalogFacts_t& facts) {
    return WithinMemory(OutOfMemory, [&]() -> CZuError {
        constexpr int mostDepth = 16;
        try {
            const auto tooDeep = [](int depth, Json_t::parse_event_t /*event*/, Json_t& /*parsed*/) {
                if (depth > mostDepth)
                    throw std::out_of_range("depth");
                return true;
            };
            facts = FactsOf(Json_t::parse(text, tooDeep), diskCount);
            return CZuError();
        } catch (const Json_t::exception& error) {
            return Refusal(std::string("its facts can't be read: ") + error.what());
        } catch (const std::out_of_range& error) {
            return Refusal(std::string("its facts can't be: ") + error.what());
        }
    });
}
