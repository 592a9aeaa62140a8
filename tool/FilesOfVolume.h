#pragma once

#include <CLI/CLI.hpp>
#include <functional>
#include <string>
#include <vector>

#include "agent/NtfsVolume.h"
#include "agent/VolumeSet.h"
#include "tool/Commands.h"
#include "tool/Output.h"

// What the commands for the files of a volume have in common: `DISK... --volume NAME`, and what they take behind it.

struct FileArguments_t {
    std::vector<std::string> words;  // disks, and behind `--volume` the rest
    size_t disks = 0;                // of them
    std::string volume;
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
void CheckFileArguments(const FileArguments_t& arguments, const FileWords_t& words);

// Opens the disks and the volume, prints warnings, and runs `step`. Gives the exit code.
using FileStep_t = std::function<CZuError(CNtfsVolume& volume)>;
int RunOnVolume(const FileArguments_t& arguments, const FileStep_t& step);

// The same for the file of the first word behind the volume's name.
using OneFileStep_t = std::function<CZuError(CNtfsVolume& volume, const NtfsFileInfo_t& file)>;
int RunOnFile(const FileArguments_t& arguments, const OneFileStep_t& step);

// "file", "directory" or "link".
const char* FileKind(const NtfsFileInfo_t& file);

// Of Windows, a letter each: read-only, hidden, system, archive, sparse, reparse point, compressed, encrypted.
std::string AttributeLetters(const NtfsFileInfo_t& file);

// Null for a time that isn't known.
Json_t TimeJson(uint64_t time);

// The members that a file has in every JSON object.
void PutFileFacts(const NtfsFileInfo_t& file, Json_t& object);
