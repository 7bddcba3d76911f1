/// What a certificate says of itself.
#ifndef TESAUTHCTL_CERTIFICATE_H
#define TESAUTHCTL_CERTIFICATE_H

#include <string>

namespace ctl {

struct Certificate {
    std::string subject; ///< "CN=proxy.corp.example,O=Corp"
    std::string expires; ///< "2036-11-18T17:28:07Z"
    bool expired;        ///< by this host's clock
};

/// Reads the first certificate of a PEM text. Throws HintedError when there is none.
Certificate ReadCertificate(const std::string& pem);

} // namespace ctl

#endif
