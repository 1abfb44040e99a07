#ifndef TARVO_CRYPTO_CMS_H
#define TARVO_CRYPTO_CMS_H

#include <openssl/bio.h>
#include <openssl/pem.h> // before cms.h, which declares its PEM functions only after it
#include <openssl/cms.h>
#include <openssl/evp.h>
#include <openssl/pkcs12.h>
#include <openssl/provider.h>
#include <openssl/x509.h>

#include <cstdint>
#include <mutex>
#include <string>

// Owns one memory BIO.
class BiO {
public:
    BiO();                                        // empty, growable
    BiO(const void* bytes, uint32_t count);       // read-only view; bytes must outlive it
    ~BiO();
    BiO(const BiO&) = delete;
    BiO& operator=(const BiO&) = delete;

    BIO* get() const { return m_bio; }
    long length() const;
    long get_data_buffer(char** out_data) const;

private:
    BIO* m_bio;
};

// Owns a decoded PKCS#12 bundle and what was taken out of it.
class PFX {
public:
    PFX() = default;
    ~PFX();
    PFX(const PFX&) = delete;
    PFX& operator=(const PFX&) = delete;

    PKCS12* m_p12 = nullptr;
    EVP_PKEY* m_key = nullptr;
    X509* m_cert = nullptr;
};

// Owns the signer's certificate and key and the signed structure.
class CMS {
public:
    CMS() = default;
    ~CMS();
    CMS(const CMS&) = delete;
    CMS& operator=(const CMS&) = delete;

    X509* m_cert = nullptr;
    EVP_PKEY* m_key = nullptr;
    CMS_ContentInfo* m_content_info = nullptr;
};

// OpenSSL initialisation for the library's lifetime.
class OpenSSLStartUp {
public:
    OpenSSLStartUp();
    ~OpenSSLStartUp();
    OpenSSLStartUp(const OpenSSLStartUp&) = delete;
    OpenSSLStartUp& operator=(const OpenSSLStartUp&) = delete;

private:
    std::mutex m_mutex;
    OSSL_PROVIDER* m_default_provider = nullptr;
    OSSL_PROVIDER* m_legacy_provider = nullptr;
};

// Converts DER PKCS#12 bytes into an unencrypted PEM key and the signer's PEM certificate.
// Throws afip_driver_exception(5) on any failure.
void pfx_to_pem(const unsigned char* pfx_data, uint32_t pfx_length, const char* password, BiO& key_pem, BiO& cert_pem);

// Signs content with the PKCS#12 file's key; returns the PEM body (armour lines removed,
// line feeds kept). Throws afip_driver_exception with 5 (crypto) or 1 (file, other failures).
std::string sign_cms(std::string content, std::string certificate_path, std::string certificate_pass);

#endif
