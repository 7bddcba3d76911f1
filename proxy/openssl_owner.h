/// Owners of OpenSSL's objects, and its errors as exceptions.
#ifndef TESSARY_PROXY_OPENSSL_OWNER_H
#define TESSARY_PROXY_OPENSSL_OWNER_H

#include <openssl/bio.h>
#include <openssl/evp.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>

#include <memory>
#include <stdexcept>
#include <string>

namespace tessary::proxy {

template <auto release>
struct OpenSslDeleter {
    template <class T>
    void operator()(T* object) const {
        release(object);
    }
};

using UniqueBio = std::unique_ptr<BIO, OpenSslDeleter<BIO_free_all>>;
using UniqueKey = std::unique_ptr<EVP_PKEY, OpenSslDeleter<EVP_PKEY_free>>;
using UniqueCertificate = std::unique_ptr<X509, OpenSslDeleter<X509_free>>;
using UniqueTlsContext = std::unique_ptr<SSL_CTX, OpenSslDeleter<SSL_CTX_free>>;
using UniqueTls = std::unique_ptr<SSL, OpenSslDeleter<SSL_free>>;

/// The reason of this thread's latest OpenSSL error, which is taken off its queue.
std::string TakeOpenSslReason();

/// Throws std::runtime_error with what was tried and OpenSSL's reason, unless `holds`.
void CheckOpenSsl(bool holds, const std::string& what);

} // namespace tessary::proxy

#endif
