/// The numbers that the plug-in's operations return, and how failures become one of them.
#ifndef TESAUTH_APXHTTPS_STATUS_H
#define TESAUTH_APXHTTPS_STATUS_H

#include "apx_plugin.h"

#include <cstdint>
#include <curl/curl.h>
#include <exception>
#include <optional>
#include <string>
#include <utility>

namespace tessary::apxhttps {

/// Other numbers than these come from a proxy that has its own.
enum class Status : std::uint32_t {
    Success = 0,
    NotAllowed = 5,
    OutOfMemory = TESAUTH_APX_STATUS_OUT_OF_MEMORY,
    BadRequest = 87,
    ConnectionRefused = TESAUTH_APX_STATUS_CONNECTION_REFUSED,
    ConnectionInvalid = TESAUTH_APX_STATUS_CONNECTION_INVALID,
    InternalError = 1359,
    TimedOut = TESAUTH_APX_STATUS_TIMED_OUT,
    UntrustedCertificate = TESAUTH_APX_STATUS_UNTRUSTED_CERTIFICATE,
};

/// Ends an operation with a status.
class Failure : public std::exception {
public:
    /// \param reason why, for a person; empty when the status says all there is
    explicit Failure(Status status, std::string reason = "")
        : status_(status), reason_(std::move(reason)) {}
    Status Code() const { return status_; }
    const std::string& Reason() const { return reason_; }
    const char* what() const noexcept override { return "the exchange with the proxy failed"; }

private:
    Status status_;
    std::string reason_;
};

/// What the failure of a transfer is to the caller. The failures of a certificate are not among
/// them: whether it is trusted is not for the transfer to say.
/// \param result      what ended the transfer
/// \param systemError the errno that did, or 0
Status StatusOfTransfer(CURLcode result, long systemError);

/// What a proxy's refusal is to the caller.
/// \param httpStatus of the answer
/// \param code       the number in the answer, where it has one
Status StatusOfRefusal(long httpStatus, std::optional<std::uint32_t> code);

} // namespace tessary::apxhttps

#endif
