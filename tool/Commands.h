#pragma once

#include <CLI/CLI.hpp>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "agent/DiskImage.h"
#include "agent/VolumeSet.h"
#include "tool/Output.h"

// Each command adds its arguments to the program and, when it was chosen, runs and leaves the exit
// code in `exitCode`.
void AddInfoCommand(CLI::App& program, int& exitCode);
void AddBackupCommand(CLI::App& program, int& exitCode);
void AddRestoreCommand(CLI::App& program, int& exitCode);
void AddVerifyCommand(CLI::App& program, int& exitCode);
void AddConsolidateCommand(CLI::App& program, int& exitCode);
void AddListCommand(CLI::App& program, int& exitCode);
void AddPartitionsCommand(CLI::App& program, int& exitCode);
void AddVolumesCommand(CLI::App& program, int& exitCode);
void AddReadCommand(CLI::App& program, int& exitCode);
void AddCreateDiskCommand(CLI::App& program, int& exitCode);
void AddLsCommand(CLI::App& program, int& exitCode);
void AddStatCommand(CLI::App& program, int& exitCode);
void AddFindCommand(CLI::App& program, int& exitCode);
void AddCatCommand(CLI::App& program, int& exitCode);
void AddCpCommand(CLI::App& program, int& exitCode);
void AddStreamsCommand(CLI::App& program, int& exitCode);
void AddExportStreamCommand(CLI::App& program, int& exitCode);
void AddSecurityCommand(CLI::App& program, int& exitCode);

// What the arguments say of an image, until it is turned into the agent's terms.
struct ImageArguments_t {
    std::string typeName;
    bool allowOutside = false;
    std::vector<std::string> parents;
    std::optional<unsigned> patienceSeconds;

    ImageOptions_t Options() const;
};

// An argument that names a file: its place in the command line, or an option before the name.
CLI::Option* AddNameArgument(CLI::App& command, const std::string& argument, std::string& name,
                             const std::string& description);

// Disks that are looked into. One of no known kind is a raw disk.
void AddDiskArguments(CLI::App& command, std::vector<std::string>& disks, ImageArguments_t& arguments);

// Opens them with their volumes, and prints the warnings about them.
CZuError OpenDisks(const std::vector<std::string>& disks, const ImageArguments_t& arguments, CVolumeSet& set);

// A number of bytes: digits, perhaps with K, M, G or T for powers of 1024 behind them.
CLI::Option* AddBytesOption(CLI::App& command, const std::string& option, std::optional<uint64_t>& bytes,
                            const std::string& description);

void AddImageArguments(CLI::App& command, ImageArguments_t& arguments);

// How long a server may take to answer, and a connection that was lost is tried again.
void AddPatienceOption(CLI::App& command, std::optional<unsigned>& seconds);

// Where the sets are on which a set builds.
void AddBasesOption(CLI::App& command, std::vector<std::string>& bases);
void AddOutputArguments(CLI::App& command, OutputOptions_t& output);
