/// What the proxy does in the directory, as its server sees it.
#ifndef TESSARY_PROXY_ACCOUNT_SERVICE_H
#define TESSARY_PROXY_ACCOUNT_SERVICE_H

#include "directory/secret.h"

#include <cstdint>
#include <exception>
#include <string>
#include <utility>

namespace tessary::proxy {

/// The domain that the proxy serves.
struct DomainInfo {
    std::string netbiosName;
    std::string dnsName;
    std::string sid; ///< in text form
};

/// A machine account made for a host that asked.
struct NewAccount {
    std::string accountName;    ///< with the final '$'
    directory::Secret password; ///< known to that host alone, which replaces it
};

/// Why a request is refused; the numbers are those that clients know.
enum class Code : std::uint32_t {
    NotAllowed = 5,
    BadRequest = 87,
    NoController = 1311,
    NoSuchDomain = 1355,
    Internal = 1359
};

/// A request that is refused.
class Refusal : public std::exception {
public:
    /// \param message for the person who asked: one sentence, nothing that only the proxy's own
    ///                administrator should know
    /// \param detail  for the log: the cause where it says more; else empty
    Refusal(Code code, std::string message, std::string detail = "")
        : code_(code), message_(std::move(message)), detail_(std::move(detail)) {}

    Code WhichCode() const { return code_; }
    const std::string& Detail() const { return detail_; }
    const char* what() const noexcept override { return message_.c_str(); }

private:
    Code code_;
    std::string message_;
    std::string detail_;
};

/// Makes machine accounts. Any number of threads may call it at once.
class AccountService {
public:
    virtual ~AccountService() = default;

    /// \throws Refusal NoController, NoSuchDomain, Internal
    virtual DomainInfo Domain() = 0;

    /// Asks nobody whether there are accounts for hosts of that name at all; Create() does so, too.
    /// \throws Refusal NotAllowed, BadRequest
    virtual void ExpectHost(const std::string& hostName) const = 0;

    /// Makes an account for a host, or gives one that was made for it earlier a new password, where
    /// that is allowed.
    /// \param hostName  fully qualified, in lower case, checked by the caller: it is a host's name,
    ///                  and the one who asks may speak for it
    /// \param container where to make it, as directory::OrganizationalUnitDn() takes it; empty for
    ///                  the proxy's own place
    /// \throws Refusal any
    virtual NewAccount Create(const std::string& hostName, const std::string& container) = 0;
};

} // namespace tessary::proxy

#endif
