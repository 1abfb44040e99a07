#ifndef TARVO_SIMULATOR_IDENTITY_H
#define TARVO_SIMULATOR_IDENTITY_H

#include <chrono>
#include <string>

#include <openssl/ssl.h>

#include "openssl_owner.h"

// A fresh RSA key with its self-signed certificate.
struct Identity {
    PrivateKey key;
    Certificate certificate;
};

// Valid from now + valid_from to now + valid_until (negative offsets lie in the past).
// subject_alt_names is OpenSSL's configuration syntax ("DNS:localhost,IP:127.0.0.1") or empty;
// a non-empty serial_number ("CUIT 20111111112") joins the subject. The key is RSA (2048 bits), as
// AFIP's certificates have, or an elliptic-curve key (P-256), made in a fraction of the time: what
// a server whose start-up should not wait on key generation uses. Throws std::runtime_error.
enum class KeyKind { rsa, elliptic_curve };
Identity make_self_signed_identity(const std::string& common_name, std::chrono::seconds valid_from,
                                   std::chrono::seconds valid_until, const std::string& subject_alt_names,
                                   const std::string& serial_number = "", KeyKind key_kind = KeyKind::rsa);

// Writes the identity as a PKCS#12 file with OpenSSL's current default algorithms.
void write_pkcs12_file(const Identity& identity, const std::string& password, const std::string& path);

// The certificate in PEM, as a client that trusts it reads it.
std::string certificate_pem(X509* certificate);

// Lower-case hexadecimal SHA-256 of the certificate's DER form.
std::string certificate_fingerprint(X509* certificate);

// The certificate's subject as AFIP writes it, "SERIALNUMBER=CUIT 20111111112, CN=name".
std::string certificate_subject(X509* certificate);

// The CUIT of a "CUIT nnnnnnnnnnn" serialNumber in the subject; empty when there is none.
std::string certificate_cuit(X509* certificate);

// Restricts a server context to TLS 1.2 and DHE-RSA key exchange with a 1024-bit group, which
// OpenSSL 3 clients refuse at their default security level. Throws std::runtime_error.
void limit_to_legacy_tls(SSL_CTX* context);

// "2026-11-21 13:15:30 UTC" style text of an ASN.1 time.
std::string asn1_time_text(const ASN1_TIME* time);

#endif
