#include <gtest/gtest.h>

#include "platform/Strings.h"

TEST(Strings, Placeholder) { EXPECT_EQ(skorva::narrow(L"abc"), "abc"); }
