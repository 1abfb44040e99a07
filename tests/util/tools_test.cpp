#include <gtest/gtest.h>

#include "util/tools.h"

TEST(ReplaceAll, RemovesEveryOccurrence)
{
    std::string text = "a\nb\n";
    replace_all(text, "\n", "");
    EXPECT_EQ(text, "ab");
}
