#include <gtest/gtest.h>

#include <string>

#include "platform/Environment.h"
#include "tests/support/posix/ScopedEnvironment.h"

TEST(EnvironmentOnPosix, AVariableThatIsNotThereLeavesTheValueAlone) {
    const CScopedEnvironment unset("DISKSTREAM_TEST_VARIABLE");
    std::string value = "untouched";
    EXPECT_FALSE(EnvironmentVariable("DISKSTREAM_TEST_VARIABLE", value));
    EXPECT_EQ(value, "untouched");
}

TEST(EnvironmentOnPosix, AnEmptyVariableIsThere) {
    const CScopedEnvironment empty("DISKSTREAM_TEST_VARIABLE", "");
    std::string value = "replaced";
    EXPECT_TRUE(EnvironmentVariable("DISKSTREAM_TEST_VARIABLE", value));
    EXPECT_EQ(value, "");
    const CScopedEnvironment set("DISKSTREAM_TEST_VARIABLE", "a = b");
    EXPECT_TRUE(EnvironmentVariable("DISKSTREAM_TEST_VARIABLE", value));
    EXPECT_EQ(value, "a = b");
}

TEST(EnvironmentOnPosix, TheSettingsFileHasItsUsualPlace) {
    EXPECT_EQ(UsualSettingsFile(), "/etc/diskstream.conf");
}
