/// TLS on a socket that never blocks.
#ifndef TESSARY_PROXY_TLS_H
#define TESSARY_PROXY_TLS_H

#include "certificate.h"
#include "openssl_owner.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace tessary::proxy {

/// What all connections of a server share: TLS 1.2 or better, with key exchanges that keep old
/// connections secret and ciphers that authenticate; no renegotiation, no resumption, no early
/// data, so that nothing recorded can be sent again.
UniqueTlsContext MakeTlsContext(const Identity& identity);

/// The server's end of one TLS connection. Use by one thread at a time.
class TlsChannel {
public:
    enum class Progress {
        Done,       ///< as much as was asked for
        WantsRead,  ///< again when the socket is readable
        WantsWrite, ///< again when the socket is writable
        Closed,     ///< the client has ended the connection
        Failed      ///< as Failure() says
    };

    /// \param socket non-blocking; stays the caller's
    TlsChannel(SSL_CTX& context, int socket);
    TlsChannel(const TlsChannel&) = delete; // OpenSSL knows where it is
    TlsChannel& operator=(const TlsChannel&) = delete;

    /// Allows for so many bytes more from the socket, and one record; what asks for others finds
    /// the socket not readable. To be called before what follows.
    void BeginTurn(std::uint64_t bytes);
    /// How much has come from the socket. The work that a client makes grows with it, and not with
    /// what it says: records may be as good as empty.
    std::uint64_t BytesRead() const;

    /// Answers the client's greeting, step by step.
    Progress Handshake();
    /// Reads what is there, into `buffer`; `size` becomes how much that is.
    Progress Read(char* buffer, std::size_t& size);
    /// Writes from the beginning of `text`; `size` becomes how much of it has been taken. To be
    /// called with the same text until then.
    Progress Write(std::string_view text, std::size_t& size);
    /// Tells the client that nothing follows.
    void SayGoodbye();

    const std::string& Failure() const { return failure_; }

private:
    static long EndTurn(BIO* bio, int operation, const char*, std::size_t, int, long, int result,
                        std::size_t*);
    Progress Explain(int result);

    std::uint64_t endOfTurn_ = 0; // by BytesRead()
    UniqueTls tls_;
    std::string failure_;
};

} // namespace tessary::proxy

#endif
