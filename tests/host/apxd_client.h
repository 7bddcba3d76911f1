#pragma once

#include <openssl/ssl.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "directory/unique_fd.h"

/// A client of the proxy that does what no honest one does.
namespace apxd_test {

/// No step of a test takes that long unless something hangs.
inline constexpr std::chrono::seconds patience{20};

/// A TCP connection to 127.0.0.1, or ::1. Blocks, up to the patience.
/// \param from the client's own address: all of 127.0.0.0/8 is this host's
/// \throws std::system_error
tessary::directory::UniqueFd ConnectFrom(const std::string& from, std::uint16_t port);

/// Sends what it can without waiting; a connection that is gone takes nothing.
/// \return whether all was taken
bool SendRaw(int socket, std::string_view text);

/// The longest greeting that TLS takes, but for its last byte.
/// \param perRecord how much of it is in each record
std::string UnfinishedGreeting(std::size_t perRecord);

/// What arrives until the server ends the connection, or all that came when it was reset.
std::string ReceiveRaw(int socket);

/// Whether the server has ended the connection, now or within the patience.
bool IsEnded(int socket);

/// What an exchange came to.
struct Reply {
    int status = 0;   ///< of HTTP; 0: there was no answer
    std::string head; ///< with the status line
    std::string body;
    std::string failure; ///< of TLS

    std::string Code() const; ///< the member "code" of the body, or empty
};

struct TlsDeleter {
    void operator()(SSL* tls) const { SSL_free(tls); }
};

/// A TLS connection that trusts everybody.
class Client {
public:
    /// \param version the newest one that is offered; 0: any
    /// \param groups  of the key exchange, all that are offered; null: the usual ones
    /// \param session to go on with, where the server does
    explicit Client(std::uint16_t port, const std::string& from = "127.0.0.1", int version = 0,
                    const char* groups = nullptr, SSL_SESSION* session = nullptr);

    bool IsUp() const { return up_; }
    const std::string& Failure() const { return failure_; }
    int Socket() const { return socket_.Get(); }
    SSL* Tls() const { return tls_.get(); }
    std::string CertificateThumbprint() const;

    /// \return whether it was taken
    bool Send(std::string_view text);
    /// The answer, up to the end of the connection.
    Reply Receive();

private:
    tessary::directory::UniqueFd socket_;
    std::unique_ptr<SSL, TlsDeleter> tls_;
    bool up_ = false;
    std::string failure_;
};

Reply ParseReply(const std::string& text);

/// One request, all at once.
Reply Ask(std::uint16_t port, std::string_view request, const std::string& from = "127.0.0.1");

std::string GetRequest(const std::string& path);
std::string PostRequest(const std::string& body, const std::string& path = "/v1/machine-accounts");
/// Each with a fault of its own.
std::vector<std::string> MalformedRequests();
/// The request that an honest host sends.
std::string AccountRequestOf(const std::string& hostName);

} // namespace apxd_test
