#ifndef TARVO_TESTS_SUPPORT_CERTIFICATES_H
#define TARVO_TESTS_SUPPORT_CERTIFICATES_H

#include <string>
#include <vector>

// Key and certificate, both PEM ("PRIVATE KEY" in PKCS#8, "CERTIFICATE").
struct TestIdentity {
    std::string key_pem;
    std::string cert_pem;
};

// Self-signed RSA certificate with CN=common_name; valid from now-1day for valid_days days;
// valid_days <= 0 gives a certificate whose notAfter lies in the past (expired).
TestIdentity make_self_signed_identity(const std::string& common_name, int rsa_bits = 2048, long valid_days = 365);

// DER PKCS#12 bytes of the identity protected by password; extra_ca_pems are added as further
// certificates. legacy_algorithms packs with RC2-40 (certificates), 3DES (key) and a SHA-1 MAC,
// as old tools do; the legacy provider is loaded for that into a private library context, so the
// process-wide OpenSSL state stays as it was.
std::string make_pkcs12(const TestIdentity& identity, const std::string& password,
                        const std::vector<std::string>& extra_ca_pems = {}, bool legacy_algorithms = false);

// Writes bytes to a file (binary), creating/truncating it; throws on failure.
void write_file(const std::string& path, const std::string& bytes);

// Reads a whole file (binary); throws on failure.
std::string read_file(const std::string& path);

// A fresh temporary directory removed (recursively) by the destructor.
class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::string& path() const { return m_path; }
    // path() + "/" + name.
    std::string file(const std::string& name) const;

private:
    std::string m_path;
};

#endif
