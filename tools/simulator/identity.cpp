#include "identity.h"

#include <openssl/core_names.h>
#include <openssl/err.h>
#include <openssl/param_build.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/x509v3.h>

#include <cctype>
#include <cstdio>
#include <fstream>
#include <stdexcept>

namespace {

constexpr int rsa_bits = 2048;

[[noreturn]] void openssl_failure(const std::string& step)
{
    char reason[256] = "unknown error";
    const unsigned long error = ERR_get_error();
    if (error != 0)
        ERR_error_string_n(error, reason, sizeof reason);
    ERR_clear_error();
    throw std::runtime_error(step + ": " + reason);
}

void add_extension(X509* certificate, int nid, const std::string& value)
{
    X509V3_CTX context;
    X509V3_set_ctx_nodb(&context);
    X509V3_set_ctx(&context, certificate, certificate, nullptr, nullptr, 0);
    X509Extension extension(X509V3_EXT_conf_nid(nullptr, &context, nid, value.c_str()));
    if (!extension || X509_add_ext(certificate, extension.get(), -1) != 1)
        openssl_failure("certificate extension " + value);
}

// A random positive 63-bit serial, so two certificates of one subject never share it.
void set_random_serial(X509* certificate)
{
    BigNumber serial(BN_new());
    if (!serial || BN_rand(serial.get(), 63, BN_RAND_TOP_ANY, BN_RAND_BOTTOM_ANY) != 1)
        openssl_failure("serial number");
    Asn1Integer integer(BN_to_ASN1_INTEGER(serial.get(), nullptr));
    if (!integer || X509_set_serialNumber(certificate, integer.get()) != 1)
        openssl_failure("serial number");
}

} // namespace

Identity make_self_signed_identity(const std::string& common_name, std::chrono::seconds valid_from,
                                   std::chrono::seconds valid_until, const std::string& subject_alt_names,
                                   const std::string& serial_number, KeyKind key_kind)
{
    Identity identity;
    identity.key = PrivateKey(key_kind == KeyKind::rsa ? EVP_RSA_gen(rsa_bits) : EVP_EC_gen("P-256"));
    if (!identity.key)
        openssl_failure("key generation");

    identity.certificate = Certificate(X509_new());
    X509* certificate = identity.certificate.get();
    if (certificate == nullptr || X509_set_version(certificate, 2) != 1)
        openssl_failure("certificate");
    set_random_serial(certificate);
    if (X509_gmtime_adj(X509_getm_notBefore(certificate), static_cast<long>(valid_from.count())) == nullptr ||
        X509_gmtime_adj(X509_getm_notAfter(certificate), static_cast<long>(valid_until.count())) == nullptr)
        openssl_failure("validity");

    X509_NAME* name = X509_get_subject_name(certificate);
    const auto* cn = reinterpret_cast<const unsigned char*>(common_name.c_str());
    const auto* serial = reinterpret_cast<const unsigned char*>(serial_number.c_str());
    if ((!serial_number.empty() &&
         X509_NAME_add_entry_by_txt(name, "serialNumber", MBSTRING_UTF8, serial, -1, -1, 0) != 1) ||
        X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_UTF8, cn, -1, -1, 0) != 1 ||
        X509_set_issuer_name(certificate, name) != 1 || X509_set_pubkey(certificate, identity.key.get()) != 1)
        openssl_failure("subject");

    add_extension(certificate, NID_basic_constraints, "critical,CA:FALSE");
    add_extension(certificate, NID_key_usage, "critical,digitalSignature,keyEncipherment");
    add_extension(certificate, NID_subject_key_identifier, "hash");
    if (!subject_alt_names.empty())
        add_extension(certificate, NID_subject_alt_name, subject_alt_names);

    if (X509_sign(certificate, identity.key.get(), EVP_sha256()) == 0)
        openssl_failure("signing the certificate");
    return identity;
}

void write_pkcs12_file(const Identity& identity, const std::string& password, const std::string& path)
{
    // Zero NIDs and counts pick OpenSSL's defaults (AES-256 and PBKDF2 with OpenSSL 3).
    Pkcs12Bundle bundle(PKCS12_create(password.c_str(), nullptr, identity.key.get(), identity.certificate.get(),
                                      nullptr, 0, 0, 0, 0, 0));
    if (!bundle)
        openssl_failure("PKCS#12");
    Bio memory(BIO_new(BIO_s_mem()));
    if (!memory || i2d_PKCS12_bio(memory.get(), bundle.get()) != 1)
        openssl_failure("PKCS#12 encoding");
    char* data = nullptr;
    const long length = BIO_get_mem_data(memory.get(), &data);

    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file.write(data, length);
    file.close();
    if (!file)
        throw std::runtime_error("cannot write " + path);
}

void limit_to_legacy_tls(SSL_CTX* context)
{
    // The 1024-bit MODP group of RFC 2409 with generator 2: weak on purpose, and fixed.
    BigNumber prime(BN_get_rfc2409_prime_1024(nullptr));
    BigNumber generator(BN_new());
    ParamBuilder builder(OSSL_PARAM_BLD_new());
    if (!prime || !generator || !builder || BN_set_word(generator.get(), 2) != 1 ||
        OSSL_PARAM_BLD_push_BN(builder.get(), OSSL_PKEY_PARAM_FFC_P, prime.get()) != 1 ||
        OSSL_PARAM_BLD_push_BN(builder.get(), OSSL_PKEY_PARAM_FFC_G, generator.get()) != 1)
        openssl_failure("DH parameters");
    Params params(OSSL_PARAM_BLD_to_param(builder.get()));
    KeyContext key_context(EVP_PKEY_CTX_new_from_name(nullptr, "DH", nullptr));
    EVP_PKEY* group = nullptr;
    if (!params || !key_context || EVP_PKEY_fromdata_init(key_context.get()) != 1 ||
        EVP_PKEY_fromdata(key_context.get(), &group, EVP_PKEY_KEY_PARAMETERS, params.get()) != 1)
        openssl_failure("DH parameters");
    // Level 1 lets the server itself use the small group; DHE-RSA ends with TLS 1.2.
    SSL_CTX_set_security_level(context, 1);
    if (SSL_CTX_set_max_proto_version(context, TLS1_2_VERSION) != 1 ||
        SSL_CTX_set_cipher_list(context, "DHE-RSA-AES128-GCM-SHA256:DHE-RSA-AES256-GCM-SHA384") != 1 ||
        SSL_CTX_set0_tmp_dh_pkey(context, group) != 1) {
        EVP_PKEY_free(group);
        openssl_failure("legacy TLS settings");
    }
}

std::string certificate_fingerprint(X509* certificate)
{
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    if (X509_digest(certificate, EVP_sha256(), digest, &length) != 1)
        openssl_failure("certificate digest");
    static const char hex[] = "0123456789abcdef";
    std::string text;
    for (unsigned int i = 0; i < length; ++i) {
        text += hex[digest[i] >> 4];
        text += hex[digest[i] & 0x0f];
    }
    return text;
}

std::string certificate_subject(X509* certificate)
{
    const X509_NAME* name = X509_get_subject_name(certificate);
    std::string text;
    for (int i = 0; i < X509_NAME_entry_count(name); ++i) {
        const X509_NAME_ENTRY* entry = X509_NAME_get_entry(name, i);
        std::string field = OBJ_nid2sn(OBJ_obj2nid(X509_NAME_ENTRY_get_object(entry)));
        for (char& c : field)
            c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
        const ASN1_STRING* value = X509_NAME_ENTRY_get_data(entry);
        text += (text.empty() ? "" : ", ") + field + "=" +
                std::string(reinterpret_cast<const char*>(ASN1_STRING_get0_data(value)), static_cast<size_t>(ASN1_STRING_length(value)));
    }
    return text;
}

std::string certificate_cuit(X509* certificate)
{
    const X509_NAME* name = X509_get_subject_name(certificate);
    const int index = X509_NAME_get_index_by_NID(name, NID_serialNumber, -1);
    if (index < 0)
        return {};
    const ASN1_STRING* value = X509_NAME_ENTRY_get_data(X509_NAME_get_entry(name, index));
    const std::string serial(reinterpret_cast<const char*>(ASN1_STRING_get0_data(value)), static_cast<size_t>(ASN1_STRING_length(value)));
    const std::string prefix = "CUIT ";
    return serial.rfind(prefix, 0) == 0 ? serial.substr(prefix.size()) : std::string();
}

std::string certificate_pem(X509* certificate)
{
    Bio memory(BIO_new(BIO_s_mem()));
    if (!memory || PEM_write_bio_X509(memory.get(), certificate) != 1)
        openssl_failure("PEM encoding");
    char* data = nullptr;
    const long length = BIO_get_mem_data(memory.get(), &data);
    return std::string(data, static_cast<size_t>(length));
}

std::string asn1_time_text(const ASN1_TIME* time)
{
    Bio memory(BIO_new(BIO_s_mem()));
    if (!memory || ASN1_TIME_print_ex(memory.get(), time, ASN1_DTFLGS_ISO8601) != 1)
        return "?";
    char* data = nullptr;
    const long length = BIO_get_mem_data(memory.get(), &data);
    return std::string(data, static_cast<size_t>(length));
}
