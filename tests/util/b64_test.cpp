#include <gtest/gtest.h>

#include "util/b64.h"

TEST(Base64, EncodesWithPadding)
{
    EXPECT_EQ(base64_encode("Man"), "TWFu");
    EXPECT_EQ(base64_encode("Ma"), "TWE=");
    EXPECT_EQ(base64_encode("M"), "TQ==");
    EXPECT_EQ(base64_encode(""), "");
    EXPECT_EQ(base64_encode("\xFF\xFF\xFF"), "////");
    EXPECT_EQ(base64_encode(std::string("\0\0", 2)), "AAA=");
    EXPECT_EQ(base64_encode("\xFB\xEF"), "++8=");
}

TEST(Base64, LongInputStaysOnOneLine)
{
    const std::string encoded = base64_encode(std::string(300, 'x'));
    EXPECT_EQ(encoded.size(), 400u);
    EXPECT_EQ(encoded.find('\n'), std::string::npos);
    EXPECT_EQ(encoded.find('\r'), std::string::npos);
}

TEST(Base64, RoundTripsEveryByteValueAtEveryAlignment)
{
    std::string all;
    for (int value = 0; value < 256; ++value)
        all.push_back(static_cast<char>(value));
    for (size_t cut = 0; cut < 3; ++cut) {
        const std::string bytes = all.substr(cut);
        const std::string encoded = base64_encode(bytes);
        EXPECT_EQ(encoded.size() % 4, 0u);
        EXPECT_EQ(base64_decode(encoded), bytes) << "cut " << cut;
    }
}

TEST(Base64, DecodesLenientlyUpToTheFirstForeignByte)
{
    EXPECT_EQ(base64_decode("TWE="), "Ma");
    EXPECT_EQ(base64_decode("TWE"), "Ma");
    EXPECT_EQ(base64_decode("TWFu"), "Man");
    EXPECT_EQ(base64_decode("TW Fu"), "M");
    EXPECT_EQ(base64_decode("TWFu\nTWFu"), "Man");
    EXPECT_EQ(base64_decode("=AAA"), "");
    EXPECT_EQ(base64_decode("TW-_"), "M");
    EXPECT_EQ(base64_decode(std::string("TW\0Fu", 5)), "M");
    EXPECT_EQ(base64_decode("\xFFTWFu"), "");
    EXPECT_EQ(base64_decode("T"), "");
}
