#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <iterator>
#include <optional>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "agent/ErrorText.h"
#include "agent/NtfsVolume.h"
#include "agent/VolumeSet.h"
#include "tests/interop/OtherPrograms.h"
#include "tests/support/ErrorAssertions.h"

// Files of NTFS volumes, as we read them and as other programs tell of them.

using Names_t = std::set<std::string>;

// Disks and the one of their volumes that is meant.
struct VolumeAt_t {
    std::vector<std::string> disks;
    std::string volume = "Volume1";
    std::optional<DiskType_t> type{};
};

// The arguments of the command up to the volume's name.
inline std::string WordsOf(const VolumeAt_t& at) {
    std::string words = at.type ? std::string(" --type ") + DiskTypeName(*at.type) : std::string();
    for (const std::string& disk : at.disks)
        words += " " + Quoted(disk);
    return words + " --volume " + Quoted(at.volume);
}

// A line of the shell that runs the command on a volume.
inline std::string CommandOn(const VolumeAt_t& at, const std::string& name, const std::string& arguments = "") {
    return std::string(DISKSTREAM_COMMAND) + " " + name + WordsOf(at) + " " + arguments;
}

// A volume that is open in this process. One that doesn't open fails the test.
class COpenNtfs {
public:
    explicit COpenNtfs(const VolumeAt_t& at) {
        ImageOptions_t options;
        options.type = at.type;
        options.rawUnlessKnown = true;
        EXPECT_OK(m_Set.Open(at.disks, options));
        m_Info = m_Set.Find(at.volume);
        EXPECT_NE(nullptr, m_Info) << at.volume;
        m_IsOpen = m_Info != nullptr && !Fails(m_Volume.Open(m_Set, *m_Info));
    }

    bool IsOpen() const { return m_IsOpen; }
    CNtfsVolume& Volume() { return m_Volume; }
    CVolumeSet& Disks() { return m_Set; }
    const VolumeInfo_t& Info() const { return *m_Info; }

    // All ones for a path that leads to no file.
    uint64_t Find(const std::string& path) {
        uint64_t frn = 0;
        return m_Volume.Find(path, frn).IsErrorSet() ? ~uint64_t{0} : frn;
    }

private:
    static bool Fails(const CZuError& error) {
        EXPECT_OK(error);
        return error.IsErrorSet();
    }

    CVolumeSet m_Set;
    CNtfsVolume m_Volume;
    const VolumeInfo_t* m_Info = nullptr;
    bool m_IsOpen = false;
};

// The SHA-256 of what is put in, worked out by another program while it comes.
class CSha256 {
public:
    CSha256() : m_Pipe(popen(("sha256sum > " + Quoted(m_Dir.File("sum"))).c_str(), "w")) {}
    CSha256(const CSha256&) = delete;
    CSha256& operator=(const CSha256&) = delete;
    ~CSha256() { Close(); }

    bool Put(const char* bytes, uint32_t size) { return std::fwrite(bytes, 1, size, m_Pipe) == size; }

    std::string Text() {
        Close();
        return m_Dir.Read("sum").substr(0, 64);
    }

private:
    void Close() {
        if (m_Pipe != nullptr)
            pclose(m_Pipe);
        m_Pipe = nullptr;
    }

    CTempDir m_Dir;
    std::FILE* m_Pipe;
};

// The SHA-256 of a stream; the error's text where it can't be read.
inline std::string SumOfStream(INtfsFiles& volume, uint64_t frn, const std::string& name) {
    CSha256 sum;
    const CZuError error =
        volume.ReadStream(frn, name, [&](const char* bytes, uint32_t size) { return sum.Put(bytes, size); });
    return error.IsErrorSet() ? DescribeError(error) : sum.Text();
}

// A stream's bytes. One that can't be read fails the test.
inline std::string StreamBytes(INtfsFiles& volume, uint64_t frn, const std::string& name = {}) {
    std::string all;
    EXPECT_OK(volume.ReadStream(frn, name,
                                [&](const char* bytes, uint32_t size) {
                                    all.append(bytes, size);
                                    return true;
                                }))
        << frn << ":" << name;
    return all;
}

inline std::vector<std::string> LinesOf(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream all(text);
    for (std::string line; std::getline(all, line);)
        lines.push_back(line);
    return lines;
}

// What a program prints on its standard output.
inline std::string OutputOf(const std::string& command) {
    std::string output;
    EXPECT_TRUE(RunProgram(command + " 2>/dev/null", &output)) << command << ": " << output;
    return output;
}

// The paths that `ls` prints, without the slashes behind directories.
inline Names_t NamesOfLs(const VolumeAt_t& at, const std::string& options) {
    Names_t names;
    for (const std::string& line : LinesOf(OutputOf(CommandOn(at, "ls", "/ -r " + options))))
        names.insert(line.substr(0, line.find_last_not_of('/') + 1));
    return names;
}

// The paths that `fls` finds in the indexes: not what was deleted (behind an asterisk), nor what it makes up of records
// that no name leads to (a dash in front, or below a name of its own). It tells of each stream; one name is left of
// them.
inline Names_t NamesOfFls(const std::string& image, uint64_t firstSector) {
    Names_t names;
    for (const std::string& line : LinesOf(OutputOf("fls -r -p -o " + std::to_string(firstSector) + " " + image))) {
        const size_t tab = line.find('\t');
        const std::string front = line.substr(0, tab);
        const std::string path = line.substr(tab + 1, line.find(':', tab) - tab - 1);
        const bool isFound = front[0] != '-' && front[0] != 'V' && front.find('*') == std::string::npos;
        const bool isMadeUp = path.rfind("$OrphanFiles", 0) == 0 || std::filesystem::path(path).filename() == "..";
        if (isFound && !isMadeUp)
            names.insert(path);
    }
    return names;
}

// The same names. What differs is told, not all of them.
inline testing::AssertionResult AreSameNames(const Names_t& expected, const Names_t& actual) {
    Names_t missing;
    Names_t surplus;
    std::set_difference(expected.begin(), expected.end(), actual.begin(), actual.end(),
                        std::inserter(missing, missing.end()));
    std::set_difference(actual.begin(), actual.end(), expected.begin(), expected.end(),
                        std::inserter(surplus, surplus.end()));
    if (missing.empty() && surplus.empty())
        return testing::AssertionSuccess();
    testing::AssertionResult result = testing::AssertionFailure();
    result << missing.size() << " are missing, " << surplus.size() << " too many of " << expected.size();
    if (!missing.empty())
        result << "; missing: " << *missing.begin();
    if (!surplus.empty())
        result << "; too many: " << *surplus.begin();
    return result;
}
