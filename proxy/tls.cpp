#include "tls.h"

#include <openssl/err.h>

#include <cerrno>
#include <cstring>

namespace tessary::proxy {
namespace {

/// What SSL_get_error() goes by is to be the next call's alone.
void Prepare() {
    ERR_clear_error();
    errno = 0;
}

} // namespace

UniqueTlsContext MakeTlsContext(const Identity& identity) {
    UniqueTlsContext context(SSL_CTX_new(TLS_server_method()));
    CheckOpenSsl(context != nullptr, "cannot set TLS up");
    SSL_CTX* const raw = context.get();
    SSL_CTX_set_options(raw, SSL_OP_NO_RENEGOTIATION | SSL_OP_NO_TICKET | SSL_OP_NO_COMPRESSION |
                                 SSL_OP_CIPHER_SERVER_PREFERENCE);
    SSL_CTX_set_session_cache_mode(raw, SSL_SESS_CACHE_OFF);
    // Thousands of idle connections hold no buffers.
    SSL_CTX_set_mode(raw, SSL_MODE_RELEASE_BUFFERS | SSL_MODE_ENABLE_PARTIAL_WRITE);
    // Records without data lead back to the caller, who has other connections to see to.
    SSL_CTX_clear_mode(raw, SSL_MODE_AUTO_RETRY);
    SSL_CTX_set_num_tickets(raw, 0);
    CheckOpenSsl(SSL_CTX_set_min_proto_version(raw, TLS1_2_VERSION) == 1 &&
                     SSL_CTX_set_cipher_list(raw, "ECDHE+AESGCM:ECDHE+CHACHA20") == 1 &&
                     // Others cost twenty to a hundred times as much, and the client chooses.
                     SSL_CTX_set1_groups_list(raw, "X25519:P-256") == 1,
                 "cannot set TLS up");
    CheckOpenSsl(SSL_CTX_use_certificate(raw, identity.certificate.get()) == 1 &&
                     SSL_CTX_use_PrivateKey(raw, identity.key.get()) == 1,
                 "TLS does not take the certificate");
    for (const UniqueCertificate& link : identity.chain)
        CheckOpenSsl(SSL_CTX_add1_chain_cert(raw, link.get()) == 1,
                     "TLS does not take the certificate's chain");
    return context;
}

TlsChannel::TlsChannel(SSL_CTX& context, int socket) : tls_(SSL_new(&context)) {
    CheckOpenSsl(tls_ && SSL_set_fd(tls_.get(), socket) == 1, "cannot set a TLS connection up");
    BIO* const bio = SSL_get_rbio(tls_.get());
    BIO_set_callback_arg(bio, reinterpret_cast<char*>(&endOfTurn_));
    BIO_set_callback_ex(bio, EndTurn);
    SSL_set_accept_state(tls_.get());
}

void TlsChannel::BeginTurn(std::uint64_t bytes) {
    endOfTurn_ = BytesRead() + bytes;
}

std::uint64_t TlsChannel::BytesRead() const {
    return BIO_number_read(SSL_get_rbio(tls_.get()));
}

/// OpenSSL itself would go on for as long as there are records. It calls this around each operation
/// on the socket.
long TlsChannel::EndTurn(BIO* bio, int operation, const char*, std::size_t, int, long, int result,
                         std::size_t*) {
    const auto* const end = reinterpret_cast<std::uint64_t*>(BIO_get_callback_arg(bio));
    if (operation != BIO_CB_READ || BIO_number_read(bio) < *end)
        return result;
    BIO_set_retry_read(bio);
    return -1;
}

TlsChannel::Progress TlsChannel::Handshake() {
    Prepare();
    return Explain(SSL_do_handshake(tls_.get()));
}

TlsChannel::Progress TlsChannel::Read(char* buffer, std::size_t& size) {
    Prepare();
    return Explain(SSL_read_ex(tls_.get(), buffer, size, &size));
}

TlsChannel::Progress TlsChannel::Write(std::string_view text, std::size_t& size) {
    Prepare();
    return Explain(SSL_write_ex(tls_.get(), text.data(), text.size(), &size));
}

void TlsChannel::SayGoodbye() {
    ERR_clear_error();
    SSL_shutdown(tls_.get());
}

TlsChannel::Progress TlsChannel::Explain(int result) {
    if (result > 0)
        return Progress::Done;
    const int systemError = errno;
    switch (SSL_get_error(tls_.get(), result)) {
    case SSL_ERROR_WANT_READ:
        return Progress::WantsRead;
    case SSL_ERROR_WANT_WRITE:
        return Progress::WantsWrite;
    case SSL_ERROR_ZERO_RETURN:
        return Progress::Closed;
    case SSL_ERROR_SYSCALL:
        failure_ = systemError == 0 ? "" : std::strerror(systemError);
        return failure_.empty() ? Progress::Closed : Progress::Failed;
    default:
        // A client that ends without saying so is no failure of TLS.
        if (ERR_GET_REASON(ERR_peek_last_error()) == SSL_R_UNEXPECTED_EOF_WHILE_READING) {
            ERR_clear_error();
            return Progress::Closed;
        }
        failure_ = TakeOpenSslReason();
        return Progress::Failed;
    }
}

} // namespace tessary::proxy
