/// One client at the door.
#ifndef TESSARY_PROXY_CONNECTION_H
#define TESSARY_PROXY_CONNECTION_H

#include "network.h"
#include "request_reader.h"
#include "secret_text.h"
#include "tls.h"

#include "directory/unique_fd.h"

#include <cstdint>
#include <optional>
#include <string>

namespace tessary::proxy {

/// A connection from its acceptance to its end: TLS, one request, its answer. Never blocks. Use by
/// one thread at a time.
class Connection {
public:
    enum class Phase {
        Handshake,
        Reading,
        Running, ///< somebody else works on the answer, while the client is there
        Writing,
        Lingering ///< the answer is out; the client has not ended its side yet
    };

    enum class Step {
        Waits,      ///< for what Events() says
        HasRequest, ///< once: Reader() has a request, or a refusal
        Ended,      ///< the answer was given, and the client has ended too
        ClosedEarly,
        TooMuch, ///< more has come than any request takes
        Failed   ///< as Failure() says
    };

    /// \param socket non-blocking
    Connection(directory::UniqueFd socket, const Peer& peer);

    /// Goes on as far as the socket allows, and no farther than a turn's worth.
    Step Advance(SSL_CTX& context);
    /// Starts to give the answer; Advance() goes on with it.
    void SetAnswer(SecretText answer);

    /// The events that epoll is to wait for.
    std::uint32_t Events() const { return events_; }
    Phase WhichPhase() const { return phase_; }
    const Peer& Client() const { return peer_; }
    const RequestReader& Reader() const { return reader_; }
    std::string Failure() const { return tls_ ? tls_->Failure() : ""; }
    int Socket() const { return socket_.Get(); }

private:
    Step Greet(SSL_CTX& context);
    Step Read();
    Step Write();
    Step Linger();
    Step Explain(TlsChannel::Progress progress);

    directory::UniqueFd socket_;
    Peer peer_;
    Phase phase_ = Phase::Handshake;
    std::uint32_t events_;
    std::optional<TlsChannel> tls_; // once the client has sent something: it takes memory
    RequestReader reader_;
    SecretText answer_;
    std::size_t written_ = 0;
};

} // namespace tessary::proxy

#endif
