#include "crypto/cms.h"

#include <openssl/err.h>
#include <openssl/pem.h>

#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <vector>

#include "driver/afip_driver_exception.h"
#include "util/tools.h"

namespace {

OpenSSLStartUp startup;

// Signer's certificate included, default signed attributes, content treated as text.
constexpr unsigned int sign_flags = CMS_DETACHED | CMS_STREAM;
static_assert(sign_flags == 4160, "signing flags are part of the wire format");

[[noreturn]] void crypto_failure()
{
    throw afip_driver_exception("", AFIP_CRYPTO_ERROR);
}

// The certificate file's bytes; unread bytes stay zero, as the size query decided the length.
std::vector<unsigned char> read_certificate(const std::string& path)
{
    // Sized as the filesystem library's file_size query would, failing as it does.
    struct stat info;
    if (stat(path.c_str(), &info) != 0)
        throw std::filesystem::filesystem_error("cannot get file size", path,
                                                std::error_code(errno, std::generic_category()));
    if (!S_ISREG(info.st_mode))
        throw std::filesystem::filesystem_error("cannot get file size", path,
                                                std::make_error_code(S_ISDIR(info.st_mode) ? std::errc::is_a_directory
                                                                                            : std::errc::not_supported));
    const std::uintmax_t size = static_cast<std::uintmax_t>(info.st_size);
    std::vector<unsigned char> buffer(static_cast<size_t>(size), 0);
    FILE* file = std::fopen(path.c_str(), "rb");
    if (file == nullptr)
        throw afip_driver_exception("", AFIP_CERTIFICATE_ERROR);
    if (!buffer.empty())
        std::fread(buffer.data(), 1, buffer.size(), file);
    std::fclose(file);
    return buffer;
}

} // namespace

BiO::BiO() : m_bio(BIO_new(BIO_s_mem())) {}

BiO::BiO(const void* bytes, uint32_t count) : m_bio(BIO_new_mem_buf(bytes, static_cast<int>(count))) {}

BiO::~BiO()
{
    if (m_bio != nullptr)
        BIO_free(m_bio);
}

long BiO::length() const
{
    char* data = nullptr;
    return get_data_buffer(&data);
}

long BiO::get_data_buffer(char** out_data) const
{
    if (m_bio == nullptr) {
        *out_data = nullptr;
        return 0;
    }
    return BIO_get_mem_data(m_bio, out_data);
}

PFX::~PFX()
{
    if (m_p12 != nullptr)
        PKCS12_free(m_p12);
    if (m_key != nullptr)
        EVP_PKEY_free(m_key);
    if (m_cert != nullptr)
        X509_free(m_cert);
}

CMS::~CMS()
{
    if (m_key != nullptr)
        EVP_PKEY_free(m_key);
    if (m_cert != nullptr)
        X509_free(m_cert);
    if (m_content_info != nullptr)
        CMS_ContentInfo_free(m_content_info);
}

OpenSSLStartUp::OpenSSLStartUp()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    OPENSSL_add_all_algorithms_noconf();
    ERR_load_crypto_strings();
    // Older tools packed certificates with RC2 and 3DES, which only the legacy provider
    // opens. Loading it means loading the default one explicitly too; without the legacy
    // module installed, the default one alone carries on.
    m_default_provider = OSSL_PROVIDER_load(nullptr, "default");
    m_legacy_provider = OSSL_PROVIDER_load(nullptr, "legacy");
    ERR_clear_error();
}

OpenSSLStartUp::~OpenSSLStartUp()
{
    if (m_legacy_provider != nullptr)
        OSSL_PROVIDER_unload(m_legacy_provider);
    if (m_default_provider != nullptr)
        OSSL_PROVIDER_unload(m_default_provider);
    ERR_free_strings();
    EVP_cleanup();
    CRYPTO_cleanup_all_ex_data();
}

void pfx_to_pem(const unsigned char* pfx_data, uint32_t pfx_length, const char* password, BiO& key_pem, BiO& cert_pem)
{
    PFX pfx;
    BiO input(pfx_data, pfx_length);
    if (input.get() == nullptr)
        crypto_failure();

    pfx.m_p12 = d2i_PKCS12_bio(input.get(), nullptr);
    if (pfx.m_p12 == nullptr)
        crypto_failure();

    STACK_OF(X509)* chain = nullptr;
    const int parsed = PKCS12_parse(pfx.m_p12, password, &pfx.m_key, &pfx.m_cert, &chain);
    // Further certificates of the bundle are not used.
    if (chain != nullptr)
        sk_X509_pop_free(chain, X509_free);
    if (parsed == 0 || pfx.m_key == nullptr || pfx.m_cert == nullptr)
        crypto_failure();

    if (PEM_write_bio_PrivateKey(key_pem.get(), pfx.m_key, nullptr, nullptr, 0, nullptr, nullptr) == 0)
        crypto_failure();
    if (PEM_write_bio_X509(cert_pem.get(), pfx.m_cert) == 0)
        crypto_failure();
}

std::string sign_cms(std::string content, std::string certificate_path, std::string certificate_pass)
{
    try {
        const std::vector<unsigned char> certificate = read_certificate(certificate_path);

        BiO key_pem;
        BiO cert_pem;
        CMS cms;
        pfx_to_pem(certificate.data(), static_cast<uint32_t>(certificate.size()), certificate_pass.c_str(), key_pem, cert_pem);

        cms.m_cert = PEM_read_bio_X509(cert_pem.get(), nullptr, nullptr, nullptr);
        cms.m_key = PEM_read_bio_PrivateKey(key_pem.get(), nullptr, nullptr, nullptr);
        if (cms.m_key == nullptr || cms.m_cert == nullptr)
            crypto_failure();

        BiO content_bio(content.data(), static_cast<uint32_t>(content.size()));
        if (content_bio.get() == nullptr)
            crypto_failure();

        // With CMS_STREAM the content is read, digested and signed by the PEM writer below.
        cms.m_content_info = CMS_sign(cms.m_cert, cms.m_key, nullptr, content_bio.get(), sign_flags);
        if (cms.m_content_info == nullptr)
            crypto_failure();

        BiO output;
        if (content.empty()) {
            // OpenSSL 3's streaming writer emits nothing for empty content: finalise the
            // structure first, with the content embedded as streaming would have done.
            CMS_set_detached(cms.m_content_info, 0);
            if (CMS_final(cms.m_content_info, content_bio.get(), nullptr, sign_flags) == 0 ||
                PEM_write_bio_CMS(output.get(), cms.m_content_info) == 0)
                crypto_failure();
        } else if (PEM_write_bio_CMS_stream(output.get(), cms.m_content_info, content_bio.get(), sign_flags) == 0) {
            crypto_failure();
        }

        char* data = nullptr;
        const long length = output.get_data_buffer(&data);
        std::string signed_text(data != nullptr ? data : "", data != nullptr ? static_cast<size_t>(length) : 0);
        replace_all(signed_text, "-----BEGIN CMS-----", "");
        replace_all(signed_text, "-----END CMS-----", "");
        return signed_text;
    } catch (const afip_driver_exception& error) {
        throw afip_driver_exception(error);
    } catch (const std::exception&) {
        throw afip_driver_exception("", AFIP_CERTIFICATE_ERROR);
    }
}
