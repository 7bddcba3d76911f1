/// What a host asks of an authentication proxy.
#ifndef TESAUTH_APXHTTPS_CLIENT_H
#define TESAUTH_APXHTTPS_CLIENT_H

#include "answers.h"
#include "exchange.h"

#include <string>

namespace tessary::apxhttps {

/// A proxy and what is trusted of it.
struct Proxy {
    std::string address;           ///< "host", "host:port", "[v6]" or "[v6]:port"
    bool verifyCertificate = true; ///< if not, the log says so, once
    std::string thumbprint;        ///< as CertificateCheck takes it
    std::string certificate;       ///< as CertificateCheck takes it
};

// They throw Failure and std::bad_alloc. Any thread.

DomainInfo AskForDomain(const Proxy& proxy, const Limits& limits);

/// \param hostName  the host's fully qualified name
/// \param container where in the directory; empty: where the proxy likes
MachineAccount AskForMachineAccount(const Proxy& proxy, const std::string& hostName,
                                    const std::string& container, const Limits& limits);

} // namespace tessary::apxhttps

#endif
