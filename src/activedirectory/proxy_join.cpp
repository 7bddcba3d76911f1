#include <openssl/crypto.h>
#include <syslog.h>

#include "configured_provider.h"
#include "host_name.h"
#include "hostctl/host.h"
#include "hostctl/network.h"
#include "join_record.h"
#include "tesauth/active_directory_store.h"
#include "tesauth/apx_proxy.h"
#include "tesauth/config_store.h"
#include "tesauth/configuration.h"
#include "tesauth/exceptions.h"

namespace tessary::authentication {

namespace {

using HostCtl::Adv::AdvancedIntegerOption;
using HostCtl::Adv::AdvancedOptionBranch;
using HostCtl::Lib::HostCtlException;

void CheckServerAddress(const std::string& address) {
    if (!HostCtl::Network::Ipv4Address::IsValidAddress(address)) {
        throw InvalidIPAddressException("IPv4 address '" + address +
                                        "' cannot be parsed as an IP address");
    }
}

/// The value of the host's option, or -1 when that is no integer.
int64_t VerifyCertificateValue() {
    const auto host = HostCtl::HostFactory::GetHost();
    const auto options = host->GetAdvancedOptions();
    const auto root = options != nullptr ? options->Root() : nullptr;
    if (root == nullptr) {
        throw HostCtlException("Unable to get root option branch");
    }
    const auto user = std::dynamic_pointer_cast<AdvancedOptionBranch>(root->Child("UserVars"));
    if (user == nullptr) {
        throw HostCtlException("Unable to get user from root");
    }
    const auto option = user->Child("ActiveDirectoryVerifyAPXCertificate");
    if (option == nullptr) {
        throw HostCtlException("Unable to get the user option");
    }
    const auto integer = std::dynamic_pointer_cast<AdvancedIntegerOption>(option);
    return integer != nullptr ? integer->GetValue() : -1;
}

/// Whether the host wants its proxy's certificate verified.
bool VerifiesCertificate() {
    int64_t value = 0;
    try {
        value = VerifyCertificateValue();
    } catch (const HostCtlException&) {
        // Kept on purpose: what the host said about it is not passed on.
        throw InvalidVerifyAPXCertificateOptionException(
            "Unable to get advanced option UserVars.ActiveDirectoryVerifyAPXCertificate");
    }
    if (value != 0 && value != 1) {
        throw InvalidVerifyAPXCertificateOptionException(
            "Invalid value for UserVars.ActiveDirectoryVerifyAPXCertificate");
    }
    return value == 1;
}

std::string ConfiguredClientName() {
    return ConfiguredProviderName<APXProviderConfiguration, InvalidAPXProxyProviderException>();
}

/// The proxy's certificate that this host trusts; both empty for a host that verifies nothing.
struct TrustedCertificate {
    std::string thumbprint;
    std::string certificate;
};

TrustedCertificate StoredCertificate() {
    try {
        ActiveDirectoryConfigStore store;
        return {store.GetThumbprint(), store.GetCertificate()};
    } catch (const std::exception& failure) {
        syslog(LOG_ERR, "Unable to fetch thumbprint from Config Store: %s", failure.what());
        throw InvalidThumbprintStoreException(ActiveDirectoryConfigStore::AUTH_PROXY_CONFIG_KEY);
    }
}

std::unique_ptr<APXProxy> OpenProxy(const std::string& clientName, const std::string& serverAddress,
                                    bool verify, const TrustedCertificate& trusted) {
    try {
        return std::make_unique<APXProxy>(clientName, serverAddress, verify, trusted.thumbprint,
                                          trusted.certificate);
    } catch (const IOError&) {
        throw InvalidAPXProxyProviderException("(none installed)");
    }
}

/// Wipes a password when the scope ends.
class WipedAtEnd {
public:
    explicit WipedAtEnd(std::string& password) : password_(password) {}
    ~WipedAtEnd() { OPENSSL_cleanse(password_.data(), password_.size()); }
    WipedAtEnd(const WipedAtEnd&) = delete;
    WipedAtEnd& operator=(const WipedAtEnd&) = delete;

private:
    std::string& password_;
};

APX::DirectoryDomainInfo DomainServedBy(const APXProxy& proxy) {
    APX::DirectoryDomainInfo domain;
    domain.netbiosName = proxy.GetNetBIOSDomainName();
    domain.dnsName = proxy.GetDNSDomainName();
    domain.sid = proxy.GetDomainSID();
    return domain;
}

} // namespace

void ActiveDirectoryStore::JoinDomainWithAPX(const std::string& serverAddress,
                                             const std::string& organizationalUnit,
                                             bool skipHostnameCheck) {
    CheckServerAddress(serverAddress);
    const bool verify = VerifiesCertificate();
    const std::string hostName = GetHostName();
    const std::string fullName = ResolveCanonicalName(hostName);
    const std::string clientName = ConfiguredClientName();
    const auto proxy = OpenProxy(clientName, serverAddress, verify,
                                 verify ? StoredCertificate() : TrustedCertificate());
    if (!skipHostnameCheck) {
        SanitiseHostnameForDomain(proxy->GetDNSDomainName());
    }

    ComputerPrincipalInfo principal = proxy->CreateMachineAccount(
        fullName,
        organizationalUnit.empty() ? proxy->GetDefaultComputerContainer() : organizationalUnit);
    const WipedAtEnd wiped(principal.password);
    // Kept on purpose: a failure from here on leaves the account to the proxy.
    const APX::DirectoryDomainInfo domain = DomainServedBy(*proxy);
    APX::MachineAccountInfo account = {UpToFirstDot(hostName), domain.dnsName, "",
                                       principal.accountName, principal.password};
    const WipedAtEnd accountWiped(account.password);

    provider->JoinDomainWithMachineAccount(domain, account);
    RecordJoin(*provider, domain.dnsName, organizationalUnit, serverAddress);
}

std::string ActiveDirectoryStore::GetDomainForAPXService(const std::string& serverAddress) {
    CheckServerAddress(serverAddress);
    return APXProxy(ConfiguredClientName(), serverAddress, false, "", "").GetDNSDomainName();
}

} // namespace tessary::authentication
