#include <gtest/gtest.h>

#include <type_traits>

#include "driver/afip_driver_exception.h"

TEST(AfipDriverException, CarriesItsCodeAndAnEmptyMessage)
{
    static_assert(std::is_base_of_v<std::runtime_error, afip_driver_exception>);
    static_assert(std::has_virtual_destructor_v<afip_driver_exception>);

    try {
        throw afip_driver_exception("", AFIP_TICKET_ALREADY_VALID);
    } catch (const std::exception& error) {
        EXPECT_STREQ(error.what(), "");
        const auto* driver_error = dynamic_cast<const afip_driver_exception*>(&error);
        ASSERT_NE(driver_error, nullptr);
        EXPECT_EQ(driver_error->get_error(), 9);
    }
}

TEST(AfipDriverException, CopiesKeepCodeAndMessage)
{
    const afip_driver_exception original("kept", AFIP_CRYPTO_ERROR);
    const afip_driver_exception copy(original);
    EXPECT_EQ(copy.get_error(), 5);
    EXPECT_STREQ(copy.what(), "kept");

    // A rethrown copy (as the signing step does) reaches a runtime_error handler intact.
    try {
        try {
            throw afip_driver_exception("", AFIP_CERTIFICATE_ERROR);
        } catch (const afip_driver_exception& inner) {
            throw afip_driver_exception(inner);
        }
    } catch (const std::runtime_error& outer) {
        EXPECT_EQ(dynamic_cast<const afip_driver_exception&>(outer).get_error(), 1);
    }
}

TEST(ResultCodes, KeepTheirNumbers)
{
    const int codes[] = {AFIP_OK, AFIP_CERTIFICATE_ERROR, AFIP_NOT_AUTHORIZED, AFIP_CERTIFICATE_EXPIRED,
                         AFIP_UNUSED_4, AFIP_CRYPTO_ERROR, AFIP_CERTIFICATE_EXPIRED_2, AFIP_WSAA_URL_NOT_SET,
                         AFIP_WSAA_SERVICE_NOT_SET, AFIP_TICKET_ALREADY_VALID, AFIP_BUFFER_TOO_SMALL,
                         AFIP_TICKET_TOO_OLD, AFIP_WS_URL_NOT_SET, AFIP_REQUEST_NOT_XML, AFIP_RESPONSE_NOT_XML,
                         AFIP_TIMEOUT, AFIP_WSAA_TLS_FAILURE, AFIP_WSAA_HTTP_FAILURE};
    for (int i = 0; i < 18; ++i)
        EXPECT_EQ(codes[i], i);
}
