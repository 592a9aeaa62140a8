#include "agent/detail/CatalogFacts.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>

#include "tests/agent/AgentAssertions.h"
#include "tests/support/ErrorAssertions.h"

namespace {

using Json_t = nlohmann::ordered_json;

Json_t Component(Json_t disk, uint64_t start, uint64_t volumeStart, uint64_t sectors) {
    return {{"start", start}, {"volume_start", volumeStart}, {"sectors", sectors}, {"disk", std::move(disk)}};
}

Json_t Layout() {
    const Json_t first{
        {"start", 0}, {"stripe", 0}, {"components", {Component(1, 63, 0, 100), Component(nullptr, 7, 100, 50)}}};
    const Json_t second{{"start", 150}, {"stripe", 16}, {"components", {Component(0, 2048, 150, 32)}}};
    return {{"raid5", false}, {"segments", {first, second}}};
}

Json_t Sound() {
    Json_t mirror = Layout();
    mirror["raid5"] = true;
    return {{"label", "Data"}, {"group", "The group"}, {"type", "spanned"},   {"file_system", "ntfs"},
            {"sectors", 182},  {"layout", Layout()},   {"mirrors", {mirror}}, {"is_in_dump", true}};
}

CZuError Read(const std::string& text, uint32_t disks = 2) {
    CatalogFacts_t facts;
    return ReadCatalogFacts(text, disks, facts);
}

TEST(CatalogFacts, AreReadAsTheyAreWritten) {
    CatalogFacts_t facts;
    ASSERT_OK(ReadCatalogFacts(Sound().dump(), 2, facts));
    const VolumeInfo_t& volume = facts.volume;
    EXPECT_EQ("Data The group spanned ntfs",
              volume.label + " " + volume.group + " " + volume.typeName + " " + volume.fileSystem);
    EXPECT_EQ(182U, volume.sectors);
    EXPECT_TRUE(facts.isInDump);
    ASSERT_EQ(2U, volume.layout.Segments.size());
    EXPECT_EQ(0, volume.layout.IsRaid5);
    EXPECT_EQ(1, volume.layout.AllDiskFound);
    const LVM_Segment_t& segment = volume.layout.Segments[0];
    EXPECT_EQ(0U, segment.LBAStart);
    EXPECT_EQ(149U, segment.LBAEnd);
    ASSERT_EQ(2U, segment.Components.size());
    EXPECT_EQ(1U, segment.Components[0].HardDiskIndex);
    EXPECT_EQ(63U, segment.Components[0].DiskLBAStart);
    EXPECT_EQ(162U, segment.Components[0].DiskLBAEnd);
    EXPECT_EQ(NoHardDisk, segment.Components[1].HardDiskIndex);
    EXPECT_EQ(100U, segment.Components[1].VolLBAStart);
    EXPECT_EQ(149U, segment.Components[1].VolLBAEnd);
    EXPECT_EQ(1, segment.Components[1].ColumnIndex);
    EXPECT_EQ(16U, volume.layout.Segments[1].StripeSize);
    EXPECT_EQ(181U, volume.layout.Segments[1].LBAEnd);
    ASSERT_EQ(1U, volume.mirrors.size());
    EXPECT_EQ(1, volume.mirrors[0].IsRaid5);
    EXPECT_EQ(Sound(), Json_t::parse(CatalogFactsText(facts)));
    facts.isInDump = false;
    facts.volume.label = "\xFF";  // no text of UTF-8
    EXPECT_OK(Read(CatalogFactsText(facts)));
    EXPECT_FALSE(Json_t::parse(CatalogFactsText(facts)).at("is_in_dump").get<bool>());
}

TEST(CatalogFacts, ThatLackAPartOrHaveAnotherTypeAreRefused) {
    const Json_t sound = Sound();
    for (const auto& [key, value] : sound.items()) {
        Json_t lacking = Sound();
        lacking.erase(key);
        EXPECT_FAILS_SAYING(Read(lacking.dump()), "its facts can't be read") << key;
        for (const Json_t& other : {Json_t(nullptr), Json_t(1.5), Json_t("text"), Json_t({{"a", 1}}), Json_t({1, 2})}) {
            if (other.type() == value.type())
                continue;
            Json_t wrong = Sound();
            wrong[key] = other;
            const bool isNumber = other.is_number() && value.is_number();
            const bool isEmptyList = key == "mirrors" && other.is_null();
            if (!isNumber && !isEmptyList) {
                EXPECT_FAILS_SAYING(Read(wrong.dump()), "its facts can't be") << key << " " << other;
            }
        }
    }
    for (const char* const text : {"", "{", "[]", "1", "null", "{}", "\xFF", "{\"label\":"})
        EXPECT_FAILS_SAYING(Read(text), "its facts can't be read") << text;
}

TEST(CatalogFacts, OfALayoutThatCannotBeAreRefused) {
    constexpr uint64_t tooFar = uint64_t{1} << 54U;
    const struct {
        const char* name;
        const char* place;
        Json_t value;
    } rows[] = {
        {"a disk behind the last", "/segments/0/components/0/disk", 2},
        {"a disk of all ones", "/segments/0/components/0/disk", 0xFFFFFFFFU},
        {"a component of no sectors", "/segments/0/components/0/sectors", 0},
        {"too many sectors", "/segments/0/components/0/sectors", tooFar},
        {"sectors that wrap", "/segments/0/components/0/sectors", ~uint64_t{0}},
        {"a start behind every disk", "/segments/0/components/0/start", tooFar},
        {"a place behind every volume", "/segments/0/components/1/volume_start", tooFar},
        {"a segment behind every volume", "/segments/1/start", tooFar},
        {"a stripe without end", "/segments/1/stripe", tooFar},
        {"segments in one place", "/segments/1/start", 0},
        {"no segments", "/segments", Json_t::array()},
        {"no components", "/segments/1/components", Json_t::array()},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        for (const char* const layout : {"/layout", "/mirrors/0"}) {
            Json_t facts = Sound();
            facts[Json_t::json_pointer(std::string(layout) + row.place)] = row.value;
            EXPECT_FAILS_SAYING(Read(facts.dump()), "its facts can't be");
        }
    }
    EXPECT_FAILS_SAYING(Read(Sound().dump(), 1), "its facts can't be: disk");
    Json_t far = Sound();
    far[Json_t::json_pointer("/layout/segments/0/components")] = {Component(0, 0, 0, tooFar - 1),
                                                                  Component(0, 0, 0, 1)};
    EXPECT_FAILS_SAYING(Read(far.dump()), "its facts can't be: components");
    Json_t largest = Sound();
    largest[Json_t::json_pointer("/layout/segments/1/components")] = {Component(0, tooFar - 1, tooFar - 1, tooFar - 1)};
    EXPECT_OK(Read(largest.dump()));
}

TEST(CatalogFacts, ThatAreNestedWithoutEndAreRefused) {
    EXPECT_FAILS_SAYING(Read(std::string(100000, '[')), "its facts can't be: depth");
    std::string objects;
    for (int level = 0; level < 100000; ++level)
        objects += "{\"a\":";
    EXPECT_FAILS_SAYING(Read(objects), "its facts can't be: depth");
}

}  // namespace
