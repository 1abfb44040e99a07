#ifndef TARVO_SIMULATOR_OPENSSL_OWNER_H
#define TARVO_SIMULATOR_OPENSSL_OWNER_H

#include <openssl/bio.h>
#include <openssl/cms.h>
#include <openssl/evp.h>
#include <openssl/pkcs12.h>
#include <openssl/param_build.h>
#include <openssl/x509.h>

#include <utility>

// Owns one OpenSSL object and frees it with its own release function.
template <typename T, auto release>
class OpenSslOwner {
public:
    explicit OpenSslOwner(T* object = nullptr) : m_object(object) {}
    ~OpenSslOwner()
    {
        if (m_object != nullptr)
            release(m_object);
    }
    OpenSslOwner(OpenSslOwner&& other) noexcept : m_object(std::exchange(other.m_object, nullptr)) {}
    OpenSslOwner& operator=(OpenSslOwner&& other) noexcept
    {
        std::swap(m_object, other.m_object);
        return *this;
    }
    OpenSslOwner(const OpenSslOwner&) = delete;
    OpenSslOwner& operator=(const OpenSslOwner&) = delete;

    T* get() const { return m_object; }
    explicit operator bool() const { return m_object != nullptr; }

private:
    T* m_object;
};

// The stack from CMS_get0_signers owns only itself, not the certificates in it.
inline void free_x509_stack_only(STACK_OF(X509) * stack)
{
    sk_X509_free(stack);
}

using Bio = OpenSslOwner<BIO, BIO_free_all>;
using PrivateKey = OpenSslOwner<EVP_PKEY, EVP_PKEY_free>;
using Certificate = OpenSslOwner<X509, X509_free>;
using CertificateStore = OpenSslOwner<X509_STORE, X509_STORE_free>;
using CmsMessage = OpenSslOwner<CMS_ContentInfo, CMS_ContentInfo_free>;
using Pkcs12Bundle = OpenSslOwner<PKCS12, PKCS12_free>;
using SignerList = OpenSslOwner<STACK_OF(X509), free_x509_stack_only>;
using X509Extension = OpenSslOwner<X509_EXTENSION, X509_EXTENSION_free>;
using BigNumber = OpenSslOwner<BIGNUM, BN_free>;
using Asn1Integer = OpenSslOwner<ASN1_INTEGER, ASN1_INTEGER_free>;
using ParamBuilder = OpenSslOwner<OSSL_PARAM_BLD, OSSL_PARAM_BLD_free>;
using Params = OpenSslOwner<OSSL_PARAM, OSSL_PARAM_free>;
using KeyContext = OpenSslOwner<EVP_PKEY_CTX, EVP_PKEY_CTX_free>;

#endif
