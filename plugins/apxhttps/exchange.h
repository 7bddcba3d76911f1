/// One request to a proxy, and its answer.
#ifndef TESAUTH_APXHTTPS_EXCHANGE_H
#define TESAUTH_APXHTTPS_EXCHANGE_H

#include "certificate_check.h"
#include "secret_string.h"

#include <chrono>
#include <optional>
#include <string>

namespace tessary::apxhttps {

/// How long an exchange may take.
struct Limits {
    std::chrono::milliseconds connect = std::chrono::seconds(5); ///< with name look-up, handshake
    std::chrono::milliseconds whole = std::chrono::seconds(30);
};

struct Request {
    std::string url;
    std::optional<std::string> body; ///< JSON: it is posted; without one the request is a GET
};

struct Answer {
    long httpStatus;
    SecretString body;
};

/// Sends the request over a connection of its own and reads the answer, whatever its HTTP status:
/// HTTPS with TLS 1.2 or better, straight to the server whatever the environment says, no
/// redirection followed, at most 64 KiB of answer read.
/// \param check decides whether the peer is trusted; null: nothing about the peer is checked
/// \throws Failure, std::bad_alloc
/// Any thread.
Answer Exchange(const Request& request, CertificateCheck* check, const Limits& limits);

} // namespace tessary::apxhttps

#endif
