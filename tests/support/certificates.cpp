#include "support/certificates.h"
#include "support/openssl_owned.h"

#include <openssl/bn.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/pkcs12.h>
#include <openssl/provider.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <stdexcept>
#include <system_error>
#include <vector>

namespace {

void free_certificate_stack(STACK_OF(X509)* stack) { sk_X509_pop_free(stack, X509_free); }
void unload_provider(OSSL_PROVIDER* provider) { OSSL_PROVIDER_unload(provider); }

using CertificateStack = Owned<STACK_OF(X509), free_certificate_stack>;
using Extension = Owned<X509_EXTENSION, X509_EXTENSION_free>;
using LibraryContext = Owned<OSSL_LIB_CTX, OSSL_LIB_CTX_free>;
using Pkcs12 = Owned<PKCS12, PKCS12_free>;
using Provider = Owned<OSSL_PROVIDER, unload_provider>;

constexpr long seconds_per_day = 24L * 60 * 60;


Bio memory_bio()
{
    return Bio(check(BIO_new(BIO_s_mem()), "BIO_new"));
}

Bio memory_bio(const std::string& bytes)
{
    return Bio(check(BIO_new_mem_buf(bytes.data(), static_cast<int>(bytes.size())), "BIO_new_mem_buf"));
}

std::string contents(BIO* bio)
{
    char* data = nullptr;
    const long size = BIO_get_mem_data(bio, &data);
    return std::string(data, static_cast<size_t>(size));
}

void add_extension(X509* certificate, int nid, const char* value)
{
    X509V3_CTX context;
    X509V3_set_ctx(&context, certificate, certificate, nullptr, nullptr, 0);
    Extension extension(check(X509V3_EXT_conf_nid(nullptr, &context, nid, value), "X509V3_EXT_conf_nid"));
    check(X509_add_ext(certificate, extension.get(), -1), "X509_add_ext");
}

void set_random_serial(X509* certificate)
{
    BigNumber serial(check(BN_new(), "BN_new"));
    check(BN_rand(serial.get(), 63, BN_RAND_TOP_ANY, BN_RAND_BOTTOM_ANY), "BN_rand");
    check(BN_to_ASN1_INTEGER(serial.get(), X509_get_serialNumber(certificate)), "BN_to_ASN1_INTEGER");
}

void set_validity(X509* certificate, long valid_days)
{
    // An expired certificate still needs notBefore <= notAfter to look like a real one.
    const long not_after = (valid_days - 1) * seconds_per_day;
    const long not_before = valid_days > 0 ? -seconds_per_day : not_after - seconds_per_day;
    check(X509_gmtime_adj(X509_getm_notBefore(certificate), not_before) != nullptr, "notBefore");
    check(X509_gmtime_adj(X509_getm_notAfter(certificate), not_after) != nullptr, "notAfter");
}

PrivateKey read_key(const std::string& pem)
{
    Bio bio = memory_bio(pem);
    return PrivateKey(check(PEM_read_bio_PrivateKey(bio.get(), nullptr, nullptr, nullptr), "reading key PEM"));
}

Certificate read_certificate(const std::string& pem)
{
    Bio bio = memory_bio(pem);
    return Certificate(check(PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr), "reading certificate PEM"));
}

// Every certificate in a PEM text, in order (a bundle may hold several).
void append_certificates(const std::string& pem, STACK_OF(X509)* stack)
{
    Bio bio = memory_bio(pem);
    int added = 0;
    while (X509* certificate = PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr)) {
        if (sk_X509_push(stack, certificate) <= 0) {
            X509_free(certificate);
            fail_with_openssl_errors("sk_X509_push");
        }
        ++added;
    }
    if (added == 0)
        fail_with_openssl_errors("no certificate in extra CA PEM");
    ERR_clear_error(); // the end of the text reads as "no start line"
}

std::string to_der(PKCS12* pkcs12)
{
    Bio bio = memory_bio();
    check(i2d_PKCS12_bio(bio.get(), pkcs12), "i2d_PKCS12_bio");
    return contents(bio.get());
}

} // namespace

TestIdentity make_self_signed_identity(const std::string& common_name, int rsa_bits, long valid_days)
{
    PrivateKey key(check(EVP_RSA_gen(static_cast<unsigned int>(rsa_bits)), "RSA key generation"));
    Certificate certificate(check(X509_new(), "X509_new"));
    X509* cert = certificate.get();

    check(X509_set_version(cert, X509_VERSION_3), "X509_set_version");
    set_random_serial(cert);
    set_validity(cert, valid_days);
    X509_NAME* name = X509_get_subject_name(cert);
    check(X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_UTF8,
                                     reinterpret_cast<const unsigned char*>(common_name.c_str()), -1, -1, 0),
          "subject CN");
    check(X509_set_issuer_name(cert, name), "X509_set_issuer_name");
    check(X509_set_pubkey(cert, key.get()), "X509_set_pubkey");
    add_extension(cert, NID_basic_constraints, "critical,CA:TRUE");
    add_extension(cert, NID_subject_key_identifier, "hash");
    check(X509_sign(cert, key.get(), EVP_sha256()), "X509_sign");

    Bio key_bio = memory_bio();
    check(PEM_write_bio_PrivateKey(key_bio.get(), key.get(), nullptr, nullptr, 0, nullptr, nullptr), "key PEM");
    Bio cert_bio = memory_bio();
    check(PEM_write_bio_X509(cert_bio.get(), cert), "certificate PEM");
    return TestIdentity{contents(key_bio.get()), contents(cert_bio.get())};
}

std::string make_pkcs12(const TestIdentity& identity, const std::string& password,
                        const std::vector<std::string>& extra_ca_pems, bool legacy_algorithms)
{
    PrivateKey key = read_key(identity.key_pem);
    Certificate certificate = read_certificate(identity.cert_pem);
    CertificateStack extra(check(sk_X509_new_null(), "sk_X509_new_null"));
    for (const std::string& pem : extra_ca_pems)
        append_certificates(pem, extra.get());
    STACK_OF(X509)* ca = extra_ca_pems.empty() ? nullptr : extra.get();

    if (!legacy_algorithms) {
        Pkcs12 pkcs12(check(PKCS12_create(password.c_str(), nullptr, key.get(), certificate.get(), ca, 0, 0, 0, 0, 0),
                            "PKCS12_create"));
        return to_der(pkcs12.get());
    }

    // RC2-40 lives in the legacy provider; declared before the PKCS#12 so they outlive it.
    LibraryContext context(check(OSSL_LIB_CTX_new(), "OSSL_LIB_CTX_new"));
    Provider legacy(check(OSSL_PROVIDER_load(context.get(), "legacy"), "loading the legacy provider"));
    Provider standard(check(OSSL_PROVIDER_load(context.get(), "default"), "loading the default provider"));
    Pkcs12 pkcs12(check(PKCS12_create_ex(password.c_str(), nullptr, key.get(), certificate.get(), ca,
                                         NID_pbe_WithSHA1And3_Key_TripleDES_CBC, NID_pbe_WithSHA1And40BitRC2_CBC,
                                         PKCS12_DEFAULT_ITER, -1, 0, context.get(), nullptr),
                        "PKCS12_create_ex (legacy)"));
    check(PKCS12_set_mac(pkcs12.get(), password.c_str(), -1, nullptr, 0, PKCS12_DEFAULT_ITER, EVP_sha1()),
          "PKCS12_set_mac");
    return to_der(pkcs12.get());
}

void write_file(const std::string& path, const std::string& bytes)
{
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    out.close();
    if (!out)
        throw std::runtime_error("cannot write " + path);
}

std::string read_file(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    if (!in)
        throw std::runtime_error("cannot read " + path);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

TempDir::TempDir()
{
    const char* base = std::getenv("TMPDIR");
    std::string pattern = std::string(base != nullptr && *base != '\0' ? base : "/tmp") + "/tarvo-test-XXXXXX";
    std::vector<char> buffer(pattern.begin(), pattern.end());
    buffer.push_back('\0');
    if (mkdtemp(buffer.data()) == nullptr)
        throw std::system_error(errno, std::generic_category(), "mkdtemp " + pattern);
    m_path = buffer.data();
}

TempDir::~TempDir()
{
    std::error_code ignored;
    std::filesystem::remove_all(m_path, ignored);
}

std::string TempDir::file(const std::string& name) const
{
    return m_path + "/" + name;
}
