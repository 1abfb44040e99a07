#ifndef TARVO_SIMULATOR_IDENTITY_H
#define TARVO_SIMULATOR_IDENTITY_H

#include <chrono>
#include <string>

#include "openssl_owner.h"

// A fresh RSA key with its self-signed certificate.
struct Identity {
    PrivateKey key;
    Certificate certificate;
};

// Valid from now + valid_from to now + valid_until (negative offsets lie in the past).
// subject_alt_names is OpenSSL's configuration syntax ("DNS:localhost,IP:127.0.0.1") or empty.
// Throws std::runtime_error when OpenSSL fails.
Identity make_self_signed_identity(const std::string& common_name, std::chrono::seconds valid_from,
                                   std::chrono::seconds valid_until, const std::string& subject_alt_names);

// Writes the identity as a PKCS#12 file with OpenSSL's current default algorithms.
void write_pkcs12_file(const Identity& identity, const std::string& password, const std::string& path);

// Lower-case hexadecimal SHA-256 of the certificate's DER form.
std::string certificate_fingerprint(X509* certificate);

// "CN=name, O=org" style text of the certificate's subject, most specific component first.
std::string certificate_subject(X509* certificate);

// "2026-11-21 13:15:30 UTC" style text of an ASN.1 time.
std::string asn1_time_text(const ASN1_TIME* time);

#endif
