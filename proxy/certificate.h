/// The server's certificate and its key.
#ifndef TESSARY_PROXY_CERTIFICATE_H
#define TESSARY_PROXY_CERTIFICATE_H

#include "network.h"
#include "openssl_owner.h"

#include <string>
#include <vector>

namespace tessary::proxy {

/// A certificate, its key, and those that lead from it to a root, if its file has any.
struct Identity {
    static constexpr int fewDays = 30; ///< left, and it is time for another certificate

    UniqueCertificate certificate;
    std::vector<UniqueCertificate> chain;
    UniqueKey key;

    /// The digest that clients know the certificate by: SHA-1 as "0A:1B:...".
    std::string Thumbprint() const;
    /// Days until it expires, rounded down; negative when it has expired.
    int DaysLeft() const;
};

/// Reads both files (PEM).
/// \throws std::runtime_error when one cannot be read, is none of its kind, they don't belong
///         together, the certificate has expired or is not valid yet, or the key's file is open to
///         other users than its owner and group; names the file
Identity ReadIdentity(const std::string& certificateFile, const std::string& keyFile);

/// How a host calls itself in a certificate.
struct HostIdentity {
    std::string name;
    std::vector<IpAddress> addresses;

    /// This host's name, and those of its addresses that others can reach it at.
    static HostIdentity OfThisHost();
};

/// Makes a P-256 key and a certificate signed with it, good for ten years, and writes them (PEM,
/// mode 0600), each as a whole.
/// \throws std::exception when that fails
void MakeIdentity(const HostIdentity& host, const std::string& certificateFile,
                  const std::string& keyFile);

} // namespace tessary::proxy

#endif
