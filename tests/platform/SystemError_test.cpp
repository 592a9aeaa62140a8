#include "platform/SystemError.h"

#include <gtest/gtest.h>

#include <cerrno>

TEST(SystemError, HasTheSystemsOwnWords) {
    EXPECT_EQ(SystemErrorText(ENOENT), "No such file or directory");
    EXPECT_NE(SystemErrorText(EIO), SystemErrorText(ENOENT));
}

TEST(SystemError, ANumberOfNoErrorHasWordsToo) {
    EXPECT_FALSE(SystemErrorText(0xFFFFFFFF).empty());
    EXPECT_FALSE(SystemErrorText(99999).empty());
}
