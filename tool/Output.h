#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "foundation/ZuError.h"

// How the command speaks: results to the standard output, everything else to the error output.

constexpr int ExitSuccess = 0;
constexpr int ExitFailure = 1;
constexpr int ExitUsage = 2;

// What every command has for its output.
struct OutputOptions_t {
    bool json = false;   // one JSON object in the place of text
    bool quiet = false;  // neither progress nor a summary
};

using Json_t = nlohmann::ordered_json;

// "1.5 GiB", and "512 B" for small ones.
std::string SizeText(uint64_t bytes);

// The size of so many sectors, for people and for programs. A table may claim more bytes than 64 bits
// count: that is null in JSON.
std::string SectorsText(uint64_t sectors);
Json_t SectorsJson(uint64_t sectors);

// The text with its control characters spelled out ("\x1B"). Names come from disks and sets that
// somebody else wrote, and a terminal obeys what it is shown.
std::string Printable(const std::string& text);

// Prints one object and ends the line. Bytes that aren't UTF-8 are replaced.
void PrintJson(const Json_t& object);

// Prints a column of "name: value" lines with the values below each other.
void PrintFacts(const std::vector<std::pair<std::string, std::string>>& facts);

// Prints rows below a head, in columns that are as wide as what stands in them.
void PrintTable(const std::vector<std::string>& head, const std::vector<std::vector<std::string>>& rows);

// One line to the error output, behind the program's name.
void PrintComplaint(const std::string& text);

// Tells of a failure and gives the exit code for it.
int Fail(const OutputOptions_t& output, const CZuError& error);

// The exit code when all output is out: `exitCode`, or that of a failure where a result didn't get
// where it was sent.
int AfterOutput(int exitCode);

// Warnings go to the error output, also when the output is quiet: they are about the result.
void PrintWarnings(const std::vector<std::string>& warnings);
