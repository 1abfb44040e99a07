#include <gtest/gtest.h>

#include <stdexcept>

#include "util/tools.h"

using Fields = std::vector<std::string>;

TEST(ReplaceAll, ReplacesLeftToRightWithoutRescanning)
{
    std::string text = "a\nb\n";
    replace_all(text, "\n", "");
    EXPECT_EQ(text, "ab");

    // A replacement holding the pattern must neither loop nor be replaced again.
    text = "x";
    replace_all(text, "x", "xx");
    EXPECT_EQ(text, "xx");
    text = "xax";
    replace_all(text, "x", "xx");
    EXPECT_EQ(text, "xxaxx");

    text = "aaa";
    replace_all(text, "aa", "b");
    EXPECT_EQ(text, "ba");
    text = "aaaa";
    replace_all(text, "aa", "b");
    EXPECT_EQ(text, "bb");

    text = "-----BEGIN CMS-----\nAB\n-----END CMS-----\n";
    replace_all(text, "-----BEGIN CMS-----", "");
    replace_all(text, "-----END CMS-----", "");
    EXPECT_EQ(text, "\nAB\n\n");
}

TEST(ReplaceAll, LeavesTextWithoutPatternAlone)
{
    std::string text = "abc";
    replace_all(text, "z", "y");
    EXPECT_EQ(text, "abc");
    std::string empty;
    replace_all(empty, "z", "y");
    EXPECT_EQ(empty, "");
}

TEST(EraseSubStr, RemovesOnlyTheFirstOccurrence)
{
    std::string text = "abcabc";
    erase_sub_str(text, "bc");
    EXPECT_EQ(text, "aabc");
    erase_sub_str(text, "zz");
    EXPECT_EQ(text, "aabc");
    erase_sub_str(text, "");
    EXPECT_EQ(text, "aabc");
}

TEST(EndsWith, ComparesTheTailByteForByte)
{
    EXPECT_TRUE(ends_with("abc", "bc"));
    EXPECT_TRUE(ends_with("abc", ""));
    EXPECT_TRUE(ends_with("abc", "abc"));
    EXPECT_FALSE(ends_with("abc", "abcd"));
    EXPECT_FALSE(ends_with("abc", "Bc"));
    EXPECT_TRUE(ends_with(std::string("a\0b", 3), std::string("\0b", 2)));
}

TEST(CaseMapping, MapsAsciiAndKeepsLength)
{
    EXPECT_EQ(to_lower_case("Certificado EXPIRADO 12"), "certificado expirado 12");
    EXPECT_EQ(to_upper_case("abc-Xyz"), "ABC-XYZ");
    // Bytes outside ASCII pass through the C locale unchanged and the length never changes.
    const std::string high("\xC3\x89t\xE9", 4);
    EXPECT_EQ(to_lower_case(high), std::string("\xC3\x89t\xE9", 4));
    EXPECT_EQ(to_upper_case(high).size(), 4u);
}

TEST(FindCaseInsensitive, FindsFromTheStartPosition)
{
    EXPECT_EQ(find_case_insensitive("Certificado Expirado", "EXPIRADO", 0), 12u);
    EXPECT_EQ(find_case_insensitive("Certificado Expirado", "EXPIRADO", 13), std::string::npos);
    EXPECT_EQ(find_case_insensitive("abc", "", 2), 2u);
    EXPECT_EQ(find_case_insensitive("abc", "", 4), std::string::npos);
    EXPECT_EQ(find_case_insensitive("", "a", 0), std::string::npos);
}

TEST(Trim, RemovesTheSixWhitespaceBytesAtBothEnds)
{
    EXPECT_EQ(trim(" \t\r\n "), "");
    EXPECT_EQ(trim("\va b\f"), "a b");
    EXPECT_EQ(trim("  in  ner \n"), "in  ner");
    EXPECT_EQ(trim(""), "");
    // NUL and other control bytes are not whitespace here.
    EXPECT_EQ(trim(std::string("\0a\0", 3)), std::string("\0a\0", 3));
    EXPECT_EQ(trim("\x1f" "a"), "\x1f" "a");
}

TEST(SplitStr, FollowsLineReadingFieldRules)
{
    EXPECT_EQ(split_str("a,,b", ','), (Fields{"a", "", "b"}));
    EXPECT_EQ(split_str(",a", ','), (Fields{"", "a"}));
    EXPECT_EQ(split_str("a,b,", ','), (Fields{"a", "b"}));
    EXPECT_EQ(split_str("", ','), Fields{});
    EXPECT_EQ(split_str(",", ','), Fields{""});
    EXPECT_EQ(split_str(std::string("a;b"), ';'), (Fields{"a", "b"}));

    std::stringstream source("x|y||");
    EXPECT_EQ(split_str_base(source, '|'), (Fields{"x", "y", ""}));
}

TEST(SplitStr, NullTextRaisesTheStringLogicError)
{
    const char* null_text = nullptr;
    try {
        split_str(null_text, ',');
        FAIL() << "no exception";
    } catch (const std::logic_error& error) {
        EXPECT_STREQ(error.what(), "basic_string::_M_construct null not valid");
    }
}
