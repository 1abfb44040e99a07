#ifndef TARVO_TESTS_SUPPORT_OPENSSL_OWNED_H
#define TARVO_TESTS_SUPPORT_OPENSSL_OWNED_H

#include <openssl/bio.h>
#include <openssl/bn.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/x509.h>

#include <memory>
#include <stdexcept>
#include <string>

// Each OpenSSL object the test support makes has exactly one owner that frees it.
template <typename T, void (*Free)(T*)>
struct OpenSslFreer {
    void operator()(T* object) const { Free(object); }
};

template <typename T, void (*Free)(T*)>
using Owned = std::unique_ptr<T, OpenSslFreer<T, Free>>;

inline void free_bio_chain(BIO* bio)
{
    BIO_free_all(bio);
}

using Bio = Owned<BIO, free_bio_chain>;
using BigNumber = Owned<BIGNUM, BN_free>;
using Certificate = Owned<X509, X509_free>;
using PrivateKey = Owned<EVP_PKEY, EVP_PKEY_free>;

// Raises std::runtime_error with `what` and OpenSSL's queued reasons, which it drains.
[[noreturn]] inline void fail_with_openssl_errors(const std::string& what)
{
    std::string message = what;
    char reason[256];
    while (const unsigned long code = ERR_get_error()) {
        ERR_error_string_n(code, reason, sizeof reason);
        message += "; ";
        message += reason;
    }
    throw std::runtime_error(message);
}

// Returns a non-null OpenSSL result, or fails with `what`.
template <typename Pointer>
Pointer check(Pointer pointer, const char* what)
{
    if (!pointer)
        fail_with_openssl_errors(what);
    return pointer;
}

// Fails with `what` unless an OpenSSL call reported success (a positive result).
inline void check(int result, const char* what)
{
    if (result <= 0)
        fail_with_openssl_errors(what);
}

#endif
