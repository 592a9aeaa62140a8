#pragma once

#include <gtest/gtest.h>

#include <initializer_list>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "agent/VolumeSet.h"
#include "tests/agent/AgentAssertions.h"
#include "tests/agent/WholeDisks.h"
#include "tests/support/HardDisks.h"
#include "tests/support/SameBytes.h"

// Disks with managed volumes, the same ones for the agent and for the core.
class CManagedVolumesTest : public testing::Test {
protected:
    using Texts_t = std::vector<std::string>;

    void AddDisk(const CImageFile& image) {
        const std::string name = "disk" + std::to_string(m_Paths.size());
        m_CoreDisks.push_back(FlatHardDisk(m_Dir, image, name));
        m_Paths.push_back(m_Dir.File(name + "-flat"));
    }

    void Open() { OpenPaths(m_Paths); }

    // The disks of these indexes alone, in this order.
    void OpenOnly(const std::vector<size_t>& disks) {
        Texts_t paths;
        for (const size_t disk : disks)
            paths.push_back(m_Paths.at(disk));
        OpenPaths(paths);
    }

    Texts_t Names() const {
        Texts_t names;
        for (const VolumeInfo_t& volume : m_Set->Volumes())
            names.push_back(volume.name);
        return names;
    }

    const VolumeInfo_t& Volume(const std::string& name) const {
        static const VolumeInfo_t none;
        const VolumeInfo_t* const found = m_Set->Find(name);
        EXPECT_NE(nullptr, found) << name;
        return found != nullptr ? *found : none;
    }

    std::string Read(const VolumeInfo_t& volume, uint64_t offset, uint64_t length) {
        std::string bytes(length, '?');
        EXPECT_OK(m_Set->Read(volume, offset, bytes.data(), static_cast<uint32_t>(length)))
            << length << " at " << offset;
        return bytes;
    }

    // The whole volume at once, pieces that begin and end anywhere, and nothing behind it.
    void ExpectHolds(const std::string& name, const std::string& content) {
        SCOPED_TRACE(name);
        const VolumeInfo_t& volume = Volume(name);
        EXPECT_EQ("", volume.problem);
        ASSERT_EQ(content.size(), volume.sectors * 512);
        EXPECT_SAME_BYTES(content, Read(volume, 0, content.size()));
        std::mt19937_64 random(content.size());
        for (int turn = 0; turn < 40; ++turn) {
            const uint64_t offset = random() % content.size();
            const uint64_t length = random() % (content.size() - offset) + 1;
            EXPECT_SAME_BYTES(content.substr(offset, length), Read(volume, offset, length))
                << length << " at " << offset;
        }
        char bytes[2] = {};
        EXPECT_FAILS_SAYING(m_Set->Read(volume, content.size(), bytes, 1), name);
        EXPECT_FAILS_SAYING(m_Set->Read(volume, content.size() - 1, bytes, 2), name);
    }

    // Nothing of the volume is read, and its problem holds these texts.
    void ExpectRefused(const std::string& name, std::initializer_list<std::string> texts) {
        SCOPED_TRACE(name);
        const VolumeInfo_t& volume = Volume(name);
        for (const std::string& text : texts)
            EXPECT_NE(std::string::npos, volume.problem.find(text)) << text << " isn't in: " << volume.problem;
        EXPECT_NE("", volume.problem);
        char byte = '?';
        EXPECT_FAILS_SAYING(m_Set->Read(volume, 0, &byte, 1), name, volume.problem);
        EXPECT_EQ('?', byte);
    }

    // There is one warning, and it holds these texts.
    void ExpectOneWarning(std::initializer_list<std::string> texts) const {
        const Texts_t warnings = m_Set->Warnings();
        ASSERT_EQ(1U, warnings.size()) << testing::PrintToString(warnings);
        for (const std::string& text : texts)
            EXPECT_NE(std::string::npos, warnings[0].find(text)) << text << " isn't in: " << warnings[0];
    }

    // "id (name)" of each.
    static Texts_t MissingOf(const VolumeInfo_t& volume) {
        Texts_t texts;
        for (const MissingDisk_t& disk : volume.missing)
            texts.push_back(disk.id + " (" + disk.name + ")");
        return texts;
    }

    // One sector of the volume as the core reads it. A read inside of one sector crosses no boundary.
    static std::string CoreSector(const CLVM& core, const LVM_Volume_t& volume, uint64_t sector) {
        std::string bytes(512, '?');
        EXPECT_OK(core.ReadVolumeData(volume, sector * 512, bytes.data(), 512, nullptr)) << sector;
        return bytes;
    }

    CTempDir m_Dir;
    Texts_t m_Paths;
    std::vector<LVM_HardDisk_t> m_CoreDisks;
    std::unique_ptr<CVolumeSet> m_Set;

private:
    void OpenPaths(const Texts_t& paths) {
        m_Set = std::make_unique<CVolumeSet>();
        ASSERT_OK(m_Set->Open(paths, RawUnlessKnown()));
    }
};
