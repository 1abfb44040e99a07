#include <gtest/gtest.h>
#include <sys/stat.h>

#include "crypto/cms.h"
#include "driver/afip_driver_exception.h"
#include "support/support.h"

namespace {

const char login_request[] = "<loginTicketRequest version=\"1.0\"><header><uniqueId>2261374686</uniqueId></header>"
                             "<service>wsfe</service></loginTicketRequest>";

// Puts the armour back around the signed body, checks the signature and returns the signed content
// and the subjects of the certificates carried.
std::pair<std::string, std::string> verify(const std::string& body)
{
    const std::string pem = "-----BEGIN CMS-----" + body.substr(0, body.size() - 1) + "-----END CMS-----\n";
    BiO input(pem.data(), static_cast<uint32_t>(pem.size()));
    CMS_ContentInfo* cms = PEM_read_bio_CMS(input.get(), nullptr, nullptr, nullptr);
    BiO output;
    if (cms == nullptr || CMS_verify(cms, nullptr, nullptr, nullptr, output.get(), CMS_NO_SIGNER_CERT_VERIFY | CMS_BINARY) != 1)
        throw std::runtime_error("the signature does not verify");
    std::string subjects;
    STACK_OF(X509)* certificates = CMS_get1_certs(cms);
    for (int i = 0; i < sk_X509_num(certificates); ++i) {
        char subject[256];
        subjects += X509_NAME_oneline(X509_get_subject_name(sk_X509_value(certificates, i)), subject, sizeof subject);
        subjects += ";";
    }
    sk_X509_pop_free(certificates, X509_free);
    CMS_ContentInfo_free(cms);
    char* data = nullptr;
    const long length = output.get_data_buffer(&data);
    return {std::string(data, static_cast<size_t>(length)), subjects};
}

} // namespace

TEST(CmsSigning, BundlesOfEveryPackingSignWithTheSignersCertificateOnly)
{
    const struct {
        const char* bundle;
        const char* password;
        std::string content;
    } cases[] = {
        {"signer.p12", "pw", login_request},
        {"legacy.p12", "pw", login_request},
        {"with-ca.p12", "pw", login_request},
        {"nopass.p12", "", login_request},
        {"signer.p12", "pw", ""},
        {"signer.p12", "pw", std::string("a\0b", 3)},
    };
    for (const auto& test : cases) {
        const std::string body = sign_cms(test.content, fixture(test.bundle), test.password);
        const auto [content, subjects] = verify(body);
        EXPECT_EQ(content, test.content) << test.bundle;
        EXPECT_EQ(subjects, "/serialNumber=CUIT 20111111112/CN=signer;") << test.bundle;
        // The bare PEM body: the begin line's line feed first, the last line's and the end line's last,
        // lines of 64 Base64 characters between.
        EXPECT_EQ(body.find_first_not_of("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/=\n"),
                  std::string::npos);
        EXPECT_EQ(body.substr(0, 66), "\n" + body.substr(1, 64) + "\n");
        EXPECT_EQ(body.substr(body.size() - 2), "\n\n");
        EXPECT_NE(body[body.size() - 3], '\n');
    }
}

TEST(CmsSigning, FailuresCarryTheirCodes)
{
    const struct {
        std::string path;
        const char* password;
        int32_t code;
    } cases[] = {
        {fixture("signer.p12"), "wrong", 5}, {fixture("empty.p12"), "pw", 5}, {fixture("garbage.p12"), "pw", 5},
        {fixture("pem.p12"), "pw", 5},       {fixture("truncated.p12"), "pw", 5},
        {fixture("missing.p12"), "pw", 1},   {TARVO_FIXTURES_DIR, "pw", 1}, // a directory has no file size
    };
    for (const auto& test : cases)
        EXPECT_EQ(code_of([&] { sign_cms(login_request, test.path, test.password); }), test.code) << test.path;

    Workspace workspace;
    write_file("locked.p12", read_file(fixture("signer.p12")));
    ASSERT_EQ(chmod("locked.p12", 0), 0);
    // Root reads it anyway; anybody else gets 1.
    EXPECT_EQ(code_of([] { sign_cms(login_request, "locked.p12", "pw"); }), geteuid() == 0 ? 0 : 1);
}
