/// The authentication proxy's client plug-in, and a file of trusted thumbprints.
#ifndef TESAUTH_APX_PROXY_H
#define TESAUTH_APX_PROXY_H

#include <memory>
#include <string>

#include "tesauth/configuration.h"
#include "tesauth/export.h"
#include "tesauth/plugin/apx_plugin.h"
#include "tesauth/provider.h"

namespace tessary {
namespace authentication {

/// Loads a proxy client plug-in and asks one authentication proxy through it.
///
/// The plug-in stays loaded as long as the object lives. Every question is a round trip to the
/// proxy: nothing is cached. Use by one thread at a time; a call may block for as long as the
/// plug-in's exchange with the proxy takes. A non-zero status of the plug-in becomes the exception
/// that ThrowMappedProxyException makes of it.
class TESAUTH_API APXProxy {
public:
    /// Loads "lib<provider>.so" from /usr/libexec/tesauth/lib64/, else from /usr/libexec/tesauth/.
    /// The name is used as given. `thumbprint` and `certificate` are those of the proxy that the
    /// caller trusts; both may be empty.
    ///
    /// Throws IOError when neither can be opened and InvalidAPXProxyProviderException when the
    /// plug-in has no table of operations. Kept on purpose: when the table is there but lacks an
    /// entry, the loader has no text for the message, and std::logic_error is thrown.
    APXProxy(const std::string& provider, const std::string& serverAddress, bool verifyCertificate,
             const std::string& thumbprint, const std::string& certificate);
    ~APXProxy();
    APXProxy(const APXProxy&) = delete;
    APXProxy& operator=(const APXProxy&) = delete;

    /// The names and the SID of the domain that the proxy serves. After a failure the arguments
    /// keep what they held.
    void GetDomainInfo(std::string& netbiosName, std::string& dnsName,
                       std::string& domainSid) const;

    // One of the three; each is a round trip of its own.
    std::string GetNetBIOSDomainName() const;
    std::string GetDNSDomainName() const;
    std::string GetDomainSID() const;

    /// Kept on purpose: always empty, a proxy names neither a controller nor a container.
    std::string GetDomainController() const;
    std::string GetDefaultComputerContainer() const;

    /// Has the proxy create this host's machine account.
    /// \param hostName  the host's fully qualified name
    /// \param container where in the directory; empty for the proxy's default
    /// \return with the account's password, which the caller cleanses
    ComputerPrincipalInfo CreateMachineAccount(const std::string& hostName,
                                               const std::string& container) const;

private:
    const char* CertificateOrNull() const;

    std::shared_ptr<void> handle; ///< of the loaded plug-in
    const APXProxyClientOperations* operations;
    bool verifyCertificate;
    std::string serverAddress;
    std::string thumbprint;
    std::string certificate;
};

/// A settings file that maps keys to certificate thumbprints.
///
/// Throws what Configuration throws. Not synchronised.
class TESAUTH_API APXThumbprintStore : public Configuration {
public:
    /// Reads the file, which must exist.
    explicit APXThumbprintStore(const std::string& filename);
    ~APXThumbprintStore() override;

    /// The thumbprint stored under a key, empty when there is none.
    std::string LookupThumbprint(const std::string& key) const;

    /// Stores a thumbprint under a key, the value first. Writes the file only when that changes it.
    void ImportThumbprint(const std::string& thumbprint, const std::string& key);
};

} // namespace authentication
} // namespace tessary

#endif
