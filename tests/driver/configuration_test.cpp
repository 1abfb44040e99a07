#include <gtest/gtest.h>

#include <cstring>
#include <stdexcept>

#include "support/library_loader.h"

namespace {

const char valid_request[] = "<a/>";

class Configuration : public ::testing::Test {
protected:
    DriverLibrary driver;
};

} // namespace

TEST_F(Configuration, VersionIsSixBytesWithItsNul)
{
    char buffer[16];
    std::memset(buffer, 'x', sizeof buffer);
    driver.GetAFIPVersion(buffer);
    EXPECT_EQ(std::memcmp(buffer, "1.0.0\0", 6), 0);
    EXPECT_EQ(buffer[6], 'x') << "wrote past the sixth byte";
}

TEST_F(Configuration, ChecksRunInTheirFixedOrder)
{
    EXPECT_EQ(driver.SendSOAP(valid_request), 7);
    driver.SetWSAA("http://127.0.0.1:1/wsaa");
    EXPECT_EQ(driver.SendSOAP(valid_request), 1);
    driver.SetWSAACredentials("cert.p12", "");
    EXPECT_EQ(driver.SendSOAP(valid_request), 8);
    driver.SetWSAAService("wsfe");
    EXPECT_EQ(driver.SendSOAP(valid_request), 12);
    driver.SetWSUrl("http://127.0.0.1:1/ws");
    EXPECT_EQ(driver.SendSOAP("not xml"), 13);
    EXPECT_EQ(driver.SendSOAP("<open>"), 13);
    EXPECT_EQ(driver.SendSOAP(""), 13) << "an empty text has no root element";
}

TEST_F(Configuration, EarlierMissingSettingWins)
{
    driver.SetWSAAService("wsfe");
    driver.SetWSUrl("http://127.0.0.1:1/ws");
    EXPECT_EQ(driver.SendSOAP("not xml"), 7);
    driver.SetWSAA("http://127.0.0.1:1/wsaa");
    EXPECT_EQ(driver.SendSOAP("not xml"), 1);
}

TEST_F(Configuration, EmptyValueUnsetsASetting)
{
    driver.SetWSAA("http://127.0.0.1:1/wsaa");
    driver.SetWSAACredentials("cert.p12", "secret");
    driver.SetWSAAService("wsfe");
    driver.SetWSUrl("http://127.0.0.1:1/ws");
    EXPECT_EQ(driver.SendSOAP("not xml"), 13);

    driver.SetWSUrl("");
    EXPECT_EQ(driver.SendSOAP("not xml"), 12);
    driver.SetWSAAService("");
    EXPECT_EQ(driver.SendSOAP("not xml"), 8);
    // The password is never checked; an empty path is.
    driver.SetWSAACredentials("", "secret");
    EXPECT_EQ(driver.SendSOAP("not xml"), 1);
    driver.SetWSAA("");
    EXPECT_EQ(driver.SendSOAP("not xml"), 7);
}

TEST_F(Configuration, EmptyBuffersBeforeAnyRequest)
{
    for (auto copy : {driver.ReceivedSOAP, driver.GetVerboseTransfer}) {
        uint32_t size = 1234;
        EXPECT_EQ(copy(nullptr, 0, &size), 0);
        EXPECT_EQ(size, 0u);

        char buffer[4] = {'x', 'x', 'x', 'x'};
        size = 1234;
        EXPECT_EQ(copy(buffer, sizeof buffer, &size), 0);
        EXPECT_EQ(size, 0u);
        EXPECT_EQ(std::memcmp(buffer, "xxxx", 4), 0);
    }
}

TEST_F(Configuration, NullHeaderRaisesAndQueuesNothing)
{
    try {
        driver.AddSOAPHeader(nullptr);
        FAIL() << "no exception";
    } catch (const std::logic_error& error) {
        EXPECT_STREQ(error.what(), "basic_string::_M_construct null not valid");
    }
}
