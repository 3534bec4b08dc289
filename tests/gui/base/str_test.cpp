#include <gtest/gtest.h>

#include "str.h"

TEST(StrSmoke, AssignAndAppend) {
    Str s("abc");
    EXPECT_EQ(s.Length(), 3u);
    s.Append("def");
    EXPECT_STREQ(s.Text(), "abcdef");
}
