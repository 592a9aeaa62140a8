#pragma once

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <string>

#include "tests/interop/OtherPrograms.h"

// What a program prints on its standard output, as JSON; null, and a failed test, when it fails or
// prints none.
inline nlohmann::json JsonFrom(const std::string& command) {
    std::string output;
    EXPECT_TRUE(RunProgram(command + " 2>/dev/null", &output)) << command << ": " << output;
    const nlohmann::json parsed = nlohmann::json::parse(output, nullptr, false);
    EXPECT_FALSE(parsed.is_discarded()) << command << ": " << output;
    return parsed.is_discarded() ? nlohmann::json() : parsed;
}
