/// One loaded Active Directory provider plug-in and its operations.
#ifndef TESAUTH_PROVIDER_H
#define TESAUTH_PROVIDER_H

#include <cstdint>
#include <deque>
#include <iosfwd>
#include <list>
#include <memory>
#include <string>
#include <vector>

#include "tesauth/export.h"
#include "tesauth/plugin/provider_plugin.h"

namespace tessary {
namespace authentication {

/// The two names of a domain.
struct TESAUTH_API Domain {
    Domain(const std::string& dnsName, const std::string& netbiosName);

    std::string dnsName;
    std::string netbiosName;
};

/// Writes "DNS Name: ", the DNS name, ", NetBIOS Name: " and the NetBIOS name, "(unset)" for a name
/// that is empty.
TESAUTH_API std::ostream& operator<<(std::ostream& stream, const Domain& domain);

namespace APX {

/// The domain that an authentication proxy serves.
struct DirectoryDomainInfo {
    std::string reserved; ///< stays empty
    std::string netbiosName;
    std::string dnsName;
    std::string sid; ///< in the text form that the proxy gives
};

/// A machine account that was created in advance for this host.
struct MachineAccountInfo {
    std::string hostName; ///< up to the first "."
    std::string dnsDomainName;
    std::string reserved; ///< stays empty
    std::string accountName;
    std::string password;
};

} // namespace APX

/// What an authentication proxy returns for a machine account it created.
struct ComputerPrincipalInfo {
    std::string reserved; ///< stays empty
    std::string accountName;
    std::string password;
};

/// Loads a provider plug-in and calls its operations.
///
/// The plug-in stays loaded as long as the object lives. All operations are const, keep no state
/// and may be called from many threads at once, as far as the plug-in allows. Each throws
/// CallNotImplementedException when the plug-in lacks it, and the exception that
/// ThrowMappedException makes of a non-zero status.
class TESAUTH_API ActiveDirectoryProvider {
public:
    /// Loads "lib<name>.so" from /usr/libexec/tesauth/lib64/, else from /usr/libexec/tesauth/. The
    /// name is used as given. Throws IOError when neither can be opened and
    /// InvalidActiveDirectoryProviderException when the plug-in lacks a record or needs a newer
    /// library.
    explicit ActiveDirectoryProvider(const std::string& name);
    ~ActiveDirectoryProvider();
    ActiveDirectoryProvider(const ActiveDirectoryProvider&) = delete;
    ActiveDirectoryProvider& operator=(const ActiveDirectoryProvider&) = delete;

    /// The PAM and NSS modules of the plug-in's users, and the modules' parameters.
    const std::string& PAMModule() const;
    const std::list<std::string>& PAMModuleParameters() const;
    const std::string& NSSModule() const;
    const std::list<std::string>& NSSModuleParameters() const;

    /// The version in the plug-in's operations table.
    int32_t GetAPIVersion() const;

    /// Copies the metadata record's modules and parameters into this object; the constructor calls
    /// it once. Parameters are appended.
    void CacheMetadata();

    /// Joins the host. An empty organisational unit means the default container. The status codes
    /// 1326 and 0xffff0000 pass by themselves often enough that the join is tried again: four
    /// times in all, with 30 seconds of sleep after each such failure (the last one included).
    void JoinDomain(const std::string& domain, const std::string& organizationalUnit,
                    const Credentials& credentials) const;

    /// Joins with an account that was created in advance, with the same retries. Needs version 2.
    void JoinDomainWithMachineAccount(const APX::DirectoryDomainInfo& domain,
                                      const APX::MachineAccountInfo& account) const;

    /// Leaves the domain, without and with credentials.
    void PartDomain() const;
    void PartDomain(const Credentials& credentials) const;

    /// The domain that the host is joined to; names that the plug-in doesn't tell are empty.
    Domain GetActiveDomain() const;

    void SetPreferredDomainControllers(const std::deque<std::string>& controllers) const;
    std::deque<std::string> GetPreferredDomainControllers() const;

    TrustState GetDomainTrustState() const;
    TrustRelationship GetDomainTrustRelationship(const std::string& domain) const;
    std::deque<Domain> GetTrustedDomains() const;

    /// The name of a controller of the domain; `first` may be empty.
    std::string GetAnyDomainController(const std::string& first, const std::string& domain) const;
    std::string ConvertCanonicalUsername(const std::string& name) const;
    std::string GetMachineAccountDN() const;

    /// Needs version 2.
    std::string GetHostPrincipalForDomain(const std::string& domain) const;

    void SetSmartCardEnabledServices(const std::vector<std::string>& services) const;
    std::vector<std::string> GetSmartCardEnabledServices() const;

private:
    std::shared_ptr<void> handle; ///< of the loaded plug-in
    const ActiveDirectoryClientMetadata* metadata;
    const ActiveDirectoryClientOperations* operations;
    std::string pamModule;
    std::list<std::string> pamModuleParameters;
    std::string nssModule;
    std::list<std::string> nssModuleParameters;
};

} // namespace authentication
} // namespace tessary

#endif
