#include <gtest/gtest.h>

#include <string>

#include "tests/support/NtfsTestVolume.h"
#include "tests/support/posix/ChildProcess.h"

// What the log tells where a result says that it does.

namespace {

using Attribute = CNtfsAttributeBuilder;
using Volume = CNtfsVolumeBuilder;

class DRVolumeLogOnPosix : public CNtfsVolumeTest {
protected:
    // The log of the child, or nothing in the child itself.
    static std::string LogOfChild() {
        const ChildOutcome_t child = RunThisTestInChild({{"DISKSTREAM_LOG", "-"}});
        EXPECT_TRUE(child.passed) << child.output;
        return child.errorOutput;
    }

    static void ExpectLine(const std::string& log, const std::string& function, const std::string& text) {
        const size_t at = log.find(text);
        ASSERT_NE(std::string::npos, at) << log;
        const size_t lineStart = log.rfind('\n', at) + 1;
        EXPECT_NE(std::string::npos, log.substr(lineStart, at - lineStart).find(function)) << log;
    }
};

TEST_F(DRVolumeLogOnPosix, TellsWhyTheVolumesFactsCannotBeRead) {
    if (InChildProcess()) {
        EXPECT_EQ(NtfsSeeLog, Open(Volume().Boot(Volume().SoundBoot().OemName("MSDOS5.0"))));
        return;
    }
    ExpectLine(LogOfChild(), "CDRVolume::OpenVolume", "Failed to read volume information. Error ");
}

TEST_F(DRVolumeLogOnPosix, TellsThePlaceAndTheCauseOfAFailedRead) {
    if (InChildProcess()) {
        EXPECT_EQ(NtfsOk, Open(Volume()));
        std::string bytes(1000, '?');
        EXPECT_EQ(NtfsSeeLog, m_Ntfs.ReadDisk(3'000'000'000'123, bytes.data(), 1000));
        return;
    }
    const std::string log = LogOfChild();
    ExpectLine(log, "CDRVolume::ReadDisk", "Failed to read volume at offset 3000000000123, size 1000. Error ");
    EXPECT_NE(std::string::npos, log.find("Offset out of range")) << log;
}

TEST_F(DRVolumeLogOnPosix, IsSilentAboutResultsThatSayItThemselves) {
    if (InChildProcess()) {
        EXPECT_EQ(NtfsUnsupportedCluster, Open(Volume().SectorsPerCluster(1)));
        EXPECT_EQ(NtfsNotInUse, Open(Volume().Record(0, "")));
        EXPECT_EQ(NtfsOk, Open(Volume()));
        return;
    }
    EXPECT_EQ(std::string::npos, LogOfChild().find("CDRVolume"));
}

Attribute NameOf(const std::u16string& name, uint8_t kind) {
    NtfsFileNameFields_t fields;
    fields.name = name;
    fields.kind = kind;
    return Attribute::Resident(NtfsFileNameType, NtfsFileNameValue(fields));
}

TEST_F(DRVolumeLogOnPosix, TellsOfTheFurtherPosixNamesOfACollectedFile) {
    if (InChildProcess()) {
        const CNtfsFileRecordBuilder file =
            CNtfsFileRecordBuilder()
                .Add(Attribute::Resident(NtfsStandardInformationType, NtfsStandardInformationValue({})))
                .Add(NameOf(u"kept", 1))
                .Add(NameOf(u"further", 0))
                .Add(NameOf(u"dropped", 1));
        EXPECT_EQ(NtfsOk, Open(Volume().Record(40, file)));
        std::string paths[4];
        for (std::string& path : paths)
            path = m_Dir.File("file" + std::to_string(&path - paths));
        EXPECT_EQ(NtfsOk, m_Ntfs.DumpMetadataInformation(nullptr, paths[0].data(), paths[1].data(), paths[2].data(),
                                                         paths[3].data(), 0));
        return;
    }
    const std::string log = LogOfChild();
    ExpectLine(log, "CDRVolume::DumpMetadataInformation",
               "Skipping links FRN 0x28, PFRN 0x5, Name [further], Type [File]");
    EXPECT_EQ(std::string::npos, log.find("dropped")) << log;
}

}  // namespace
