/// Whether a proxy is the trusted one.
#ifndef TESAUTH_APXHTTPS_CERTIFICATE_CHECK_H
#define TESAUTH_APXHTTPS_CERTIFICATE_CHECK_H

#include <openssl/ssl.h>
#include <optional>
#include <string>
#include <vector>

namespace tessary::apxhttps {

/// Trusts one certificate, whoever issued it and whatever names it has, for as long as it is valid
/// by this host's clock. It decides within the handshake, so that a peer that is not trusted does
/// not even see the request. One connection's, by one thread.
class CertificateCheck {
public:
    /// \param thumbprint  of the trusted certificate: SHA-1, hexadecimal pairs with ":" between
    ///                    them, in upper or lower case; nothing is trusted if it is anything else
    /// \param certificate PEM; where it is not empty, the peer's certificate must be this very one
    ///                    besides. Nothing is trusted if it cannot be read.
    /// \throws std::bad_alloc
    CertificateCheck(std::string thumbprint, const std::string& certificate);

    /// Makes this check that of the context's handshakes; it must live as long as these. The
    /// context must ask for the peer's certificate (SSL_VERIFY_PEER).
    void Install(SSL_CTX* context);

    /// Whether a certificate was seen and not trusted.
    bool Refused() const { return whyRefused_ != nullptr; }
    /// In one sentence; null if none was refused.
    const char* WhyRefused() const { return whyRefused_; }

private:
    using Der = std::vector<unsigned char>;

    static int Verify(X509_STORE_CTX* handshake, void* check) noexcept;
    const char* Doubt(X509* peer) const;

    std::string thumbprint_;
    std::optional<Der> certificate_;   // empty if it cannot be read
    const char* whyRefused_ = nullptr; // null: not refused
};

} // namespace tessary::apxhttps

#endif
