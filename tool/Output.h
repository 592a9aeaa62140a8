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

// Prints one object and ends the line. Bytes that aren't UTF-8 are replaced.
void PrintJson(const Json_t& object);

// Prints a column of "name: value" lines with the values below each other.
void PrintFacts(const std::vector<std::pair<std::string, std::string>>& facts);

// Tells of a failure and gives the exit code for it.
int Fail(const OutputOptions_t& output, const CZuError& error);

// Warnings go to the error output, also when the output is quiet: they are about the result.
void PrintWarnings(const std::vector<std::string>& warnings);
