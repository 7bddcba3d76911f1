#include "certificate_check.h"

#include <algorithm>
#include <climits>
#include <memory>
#include <new>
#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

namespace tessary::apxhttps {
namespace {

struct OpenSslDeleter {
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

std::vector<unsigned char> DerOf(X509* certificate) {
    const int size = i2d_X509(certificate, nullptr);
    if (size <= 0)
        return {};
    std::vector<unsigned char> der(static_cast<std::size_t>(size));
    unsigned char* end = der.data();
    i2d_X509(certificate, &end);
    return der;
}

std::vector<unsigned char> DerOf(const std::string& pem) {
    const QuietErrors quiet;
    if (pem.size() > INT_MAX)
        return {};
    const std::unique_ptr<BIO, OpenSslDeleter> bio(
        BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())));
    if (!bio)
        throw std::bad_alloc();
    const std::unique_ptr<X509, OpenSslDeleter> certificate(
        PEM_read_bio_X509(bio.get(), nullptr, NoPassword, nullptr));
    return certificate ? DerOf(certificate.get()) : std::vector<unsigned char>();
}

std::string Thumbprint(const X509* certificate) {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int size = 0;
    if (X509_digest(certificate, EVP_sha1(), digest, &size) != 1)
        return {};
    std::string text;
    for (unsigned int i = 0; i < size; ++i) {
        constexpr const char* digits = "0123456789ABCDEF";
        if (i > 0)
            text += ':';
        text += digits[digest[i] >> 4];
        text += digits[digest[i] & 0xf];
    }
    return text;
}

char UpperCase(char c) {
    return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c;
}

/// A time that cannot be read lies neither before nor after now.
bool HasBegun(const X509* certificate) {
    return X509_cmp_current_time(X509_get0_notBefore(certificate)) < 0;
}
bool HasNotExpired(const X509* certificate) {
    return X509_cmp_current_time(X509_get0_notAfter(certificate)) > 0;
}

} // namespace

CertificateCheck::CertificateCheck(std::string thumbprint, const std::string& certificate)
    : thumbprint_(std::move(thumbprint)) {
    std::transform(thumbprint_.begin(), thumbprint_.end(), thumbprint_.begin(), UpperCase);
    if (!certificate.empty())
        certificate_ = DerOf(certificate);
}

void CertificateCheck::Install(SSL_CTX* context) {
    SSL_CTX_set_cert_verify_callback(context, Verify, this);
}

/// Why the certificate is not trusted, or null if it is.
const char* CertificateCheck::Doubt(X509* peer) const {
    const std::string thumbprint = Thumbprint(peer);
    if (thumbprint.empty() || thumbprint != thumbprint_)
        return "the proxy has another certificate than the trusted one: its thumbprint is another";
    if (certificate_ && (certificate_->empty() || *certificate_ != DerOf(peer)))
        return "the proxy has another certificate than the trusted one";
    if (!HasBegun(peer))
        return "the proxy's certificate is not valid yet by this host's clock";
    if (!HasNotExpired(peer))
        return "the proxy's certificate has expired";
    return nullptr;
}

int CertificateCheck::Verify(X509_STORE_CTX* handshake, void* check) noexcept {
    auto& self = *static_cast<CertificateCheck*>(check);
    const char* doubt =
        "there is no memory to check the proxy's certificate"; // so it is not trusted
    try {
        doubt = self.Doubt(X509_STORE_CTX_get0_cert(handshake));
    } catch (const std::bad_alloc&) {
    }
    self.whyRefused_ = doubt;
    X509_STORE_CTX_set_error(handshake, doubt != nullptr ? X509_V_ERR_CERT_REJECTED : X509_V_OK);
    return doubt != nullptr ? 0 : 1;
}

} // namespace tessary::apxhttps
