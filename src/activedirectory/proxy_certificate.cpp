#include <array>
#include <climits>
#include <fstream>
#include <memory>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <sstream>
#include <syslog.h>

#include "orvcfg/config_store.h"
#include "tesauth/active_directory_store.h"
#include "tesauth/config_store.h"
#include "tesauth/exceptions.h"

namespace tessary::authentication {

namespace {

struct OpenSSLDeleter {
    void operator()(BIO* bio) const { BIO_free(bio); }
    void operator()(X509* certificate) const { X509_free(certificate); }
};

/// Takes what fails meanwhile off the thread's list of errors, which is the caller's.
class QuietErrors {
public:
    QuietErrors() { ERR_set_mark(); }
    ~QuietErrors() { ERR_pop_to_mark(); }
    QuietErrors(const QuietErrors&) = delete;
    QuietErrors& operator=(const QuietErrors&) = delete;
};

/// No password for an encrypted text; without this the library would ask on the terminal.
int NoPassword(char*, int, int, void*) {
    return -1;
}

/// The certificate in a PEM text, or null. The text ends at a NUL: what verifies the proxy gets it
/// as a C string, and must not see less than what was looked at here.
std::unique_ptr<X509, OpenSSLDeleter> ParsePem(const std::string& text) {
    const std::unique_ptr<BIO, OpenSSLDeleter> bio(BIO_new(BIO_s_mem()));
    if (text.size() > INT_MAX || bio == nullptr || BIO_puts(bio.get(), text.c_str()) < 0) {
        return nullptr;
    }
    return std::unique_ptr<X509, OpenSSLDeleter>(
        PEM_read_bio_X509(bio.get(), nullptr, NoPassword, nullptr));
}

/// The SHA-1 digest of a PEM certificate: upper-case hexadecimal pairs with ":" between them.
std::string Thumbprint(const std::string& certificate) {
    const QuietErrors quiet;
    const auto parsed = ParsePem(certificate);
    std::array<unsigned char, EVP_MAX_MD_SIZE> digest;
    unsigned int size = 0;
    if (parsed == nullptr || X509_digest(parsed.get(), EVP_sha1(), digest.data(), &size) != 1) {
        throw InvalidCertificateException();
    }
    constexpr const char* digits = "0123456789ABCDEF";
    std::string text;
    for (unsigned int i = 0; i < size; ++i) {
        if (i > 0) {
            text += ':';
        }
        text += digits[digest[i] >> 4];
        text += digits[digest[i] & 0xf];
    }
    return text;
}

} // namespace

void ActiveDirectoryStore::ImportCertificateForAPX(const std::string& certificate) {
    const std::string thumbprint = Thumbprint(certificate);
    try {
        ActiveDirectoryConfigStore().StoreAuthProxyCertInfo(thumbprint, certificate);
    } catch (const OrvConfigStore::ConfigStoreException& failure) {
        syslog(LOG_ERR, "Failed to store thumbprint to Config Store: %s", failure.what());
        throw;
    }
}

void ActiveDirectoryStore::ImportCertificateForAPX(const std::string& path, const std::string&) {
    std::ifstream file(path, std::ios::binary);
    if (!file.is_open()) {
        throw FileNotFoundException();
    }
    std::ostringstream text;
    text << file.rdbuf(); // what cannot be read is missing from the certificate
    ImportCertificateForAPX(text.str());
}

} // namespace tessary::authentication
