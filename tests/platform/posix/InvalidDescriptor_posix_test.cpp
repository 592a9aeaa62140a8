#include <gtest/gtest.h>

#include <cerrno>

#include "platform/InvalidDescriptor.h"

TEST(InvalidDescriptor, IsAnInvalidArgumentToPosix) {
    EXPECT_EQ(InvalidDescriptorError(), EINVAL);
}
