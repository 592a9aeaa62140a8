#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "tests/support/Bytes.h"
#include "tests/support/TempDir.h"
#include "tests/support/VmdkDescriptorBuilder.h"
#include "tests/support/VmdkSparseBuilder.h"
#include "tests/tool/RunCommand.h"

// Success with its output, failure and misuse with their words: nothing goes to both outputs.
#define EXPECT_SUCCEEDS(outcome)                               \
    do {                                                       \
        const CommandOutcome_t& checked = (outcome);           \
        EXPECT_EQ(checked.exitCode, 0) << checked.errorOutput; \
        EXPECT_EQ(checked.errorOutput, "");                    \
    } while (false)

#define EXPECT_FAILS_WITH(outcome, exitStatus, words)                          \
    do {                                                                       \
        const CommandOutcome_t& checked = (outcome);                           \
        EXPECT_EQ(checked.exitCode, exitStatus) << checked.errorOutput;        \
        EXPECT_EQ(checked.output, "");                                         \
        EXPECT_THAT(checked.errorOutput, testing::StartsWith("diskstream: ")); \
        EXPECT_THAT(checked.errorOutput, testing::HasSubstr(words));           \
    } while (false)

// A directory with a disk image in it, and the command that runs there.
class CCommandFixture : public testing::Test {
protected:
    CommandOutcome_t Run(const std::vector<std::string>& arguments) const {
        return RunCommand(arguments, m_Dir.Path());
    }

    // The object that the command prints, and nothing beside it. Null when it isn't one.
    nlohmann::json RunForJson(const std::vector<std::string>& arguments, int exitCode = 0) const {
        const CommandOutcome_t outcome = Run(arguments);
        EXPECT_EQ(outcome.exitCode, exitCode) << outcome.errorOutput;
        nlohmann::json object = nlohmann::json::parse(outcome.output, nullptr, false);
        EXPECT_TRUE(object.is_object()) << outcome.output;
        return object.is_object() ? object : nlohmann::json();
    }

    // A sparse disk of 128 KiB with three grains of 4 KiB, one of them zeros.
    void MakeSparse(const std::string& name = "disk.vmdk") const {
        CVmdkSparseBuilder().Grain(0, 'A').Grain(7, PatternedBytes(4096)).Grain(9, '\0').WriteTo(m_Dir, name);
    }

    // A flat disk of 100 KiB, its descriptor "flat.vmdk" and its extent `extentName`.
    void MakeFlat(const std::string& extentName = "flat-flat.vmdk") const {
        CVmdkDescriptorBuilder()
            .CreateType("monolithicFlat")
            .Extent(200, "FLAT", extentName)
            .WriteTo(m_Dir, "flat.vmdk");
    }
    std::string FlatBytes() const { return PatternedBytes(100 * 1024, 7); }

    // A disk whose backup, restore and verification take a moment: 512 MiB of data, for which the
    // file needs 1 MiB.
    void MakeLong(const std::string& name = "long.vmdk") const {
        constexpr uint64_t grainSectors = 128;
        CVmdkSparseBuilder builder;
        builder.Capacity(512 * 512 * grainSectors).GrainSize(grainSectors).OneTableForAll();
        for (uint64_t grain = 0; grain < 16; ++grain)
            builder.Grain(grain, static_cast<char>('a' + grain));
        builder.WriteTo(m_Dir, name);
    }

    void MakeSet() const {
        MakeSparse();
        ASSERT_EQ(Run({"backup", "disk.vmdk", "disk.dset"}).exitCode, 0);
    }

    // Turns one bit over, in the middle of a block's bytes.
    void DamageSet() const {
        std::string bytes = m_Dir.Read("disk.dset");
        const size_t at = bytes.find(PatternedBytes(4096).substr(2000, 64));
        ASSERT_NE(at, std::string::npos);
        bytes[at] = static_cast<char>(bytes[at] ^ 1);
        m_Dir.Write("disk.dset", bytes);
    }

    CTempDir m_Dir;
};
