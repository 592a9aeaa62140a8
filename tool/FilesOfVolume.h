#pragma once

#include <CLI/CLI.hpp>
#include <functional>
#include <string>
#include <vector>

#include "agent/INtfsFiles.h"
#include "tool/Commands.h"
#include "tool/Output.h"

// What the commands for the files of a volume have in common: `DISK... --volume NAME` or `SET`, which may do without
// the volume's name, and what they take behind it.

struct FileArguments_t {
    std::vector<std::string> words;  // disks or a set, and the rest behind them
    size_t disks = 0;                // of them, a set counts as one
    bool isSet = false;
    std::string volume;
    std::vector<std::string> bases;
    ImageArguments_t imageArguments;
    OutputOptions_t output;

    // What stands behind the volume, by its place; empty for what isn't there.
    std::string Rest(size_t index) const { return disks + index < words.size() ? words[disks + index] : ""; }
};

// How many words stand behind the volume's name: "PATH", "PATH TARGET" and so on for the usage line.
struct FileWords_t {
    std::string names;
    size_t least = 0;
    size_t most = 1;
};

void AddFileArguments(CLI::App& command, FileArguments_t& arguments, const FileWords_t& words);

// Complains, as a failure of usage, when too few or too many words stand where they shouldn't.
void CheckFileArguments(FileArguments_t& arguments, const FileWords_t& words);

// Opens the disks or the set, and the volume, prints warnings, and runs `step`. Gives the exit code.
using FileStep_t = std::function<CZuError(INtfsFiles& volume)>;
int RunOnVolume(const FileArguments_t& arguments, const FileStep_t& step);

// The same for the file of the first word behind the volume's name.
using OneFileStep_t = std::function<CZuError(INtfsFiles& volume, const NtfsFileInfo_t& file)>;
int RunOnFile(const FileArguments_t& arguments, const OneFileStep_t& step);

// What can't be read of a listing is told when it is out, and makes it a failure. Gives the exit code.
int EndListing(int exitCode, const std::vector<std::string>& problems);

// A listing's line for people: the path, and before it what there is to know where it is a long one.
void PrintEntry(const NtfsEntry_t& entry, bool isLong);

// An object of many thousand files, which goes out file by file.
class CJsonListing {
public:
    CJsonListing(const std::string& volume, const std::string& path);
    CJsonListing(const CJsonListing&) = delete;
    CJsonListing& operator=(const CJsonListing&) = delete;

    void Put(const NtfsEntry_t& entry);
    void End(const std::vector<std::string>& problems);

private:
    bool m_IsFirst = true;
};

// "file", "directory" or "link".
const char* FileKind(const NtfsFileInfo_t& file);

// Of Windows, a letter each: read-only, hidden, system, archive, sparse, reparse point, compressed, encrypted.
std::string AttributeLetters(const NtfsFileInfo_t& file);

// Null for a time that isn't known.
Json_t TimeJson(uint64_t time);

// The members that a file has in every JSON object.
void PutFileFacts(const NtfsFileInfo_t& file, Json_t& object);
