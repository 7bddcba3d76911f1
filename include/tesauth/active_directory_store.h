/// The store that is backed by an Active Directory domain.
#ifndef TESAUTH_ACTIVE_DIRECTORY_STORE_H
#define TESAUTH_ACTIVE_DIRECTORY_STORE_H

#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "tesauth/ad_cache.h"
#include "tesauth/export.h"
#include "tesauth/provider.h"
#include "tesauth/store.h"
#include "tesauth/thread_util.h"

namespace tessary {
namespace authentication {

/// Joins and leaves a domain, and answers about it without ever hanging on a slow directory.
///
/// A query starts the provider call on a worker, waits for it at most the store's wait time, and
/// then answers from a cache that all stores of the process share; the worker runs on and fills
/// the cache when it finishes. While a call is running, further callers with the same question
/// attach to it. Queries may be called from any thread. A provider's failure is thrown to the
/// caller as it is; only a time-out turns into a cached answer (logged at LOG_WARNING).
///
/// Joining, leaving and activating run on the caller's thread and are not synchronised. Membership
/// lives in the directory and in the host configuration store, not in the object.
class TESAUTH_API ActiveDirectoryStore : public DirectoryStore {
public:
    /// Loads the provider that the host's settings name. Queries wait `timeoutSeconds` for it.
    /// Throws InvalidActiveDirectoryProviderException when none is installed, set or usable, and
    /// ConfigurationError or InvalidKeyException when the settings are malformed.
    explicit ActiveDirectoryStore(int timeoutSeconds);

    /// A new ActiveDirectoryStoreConfiguration; the caller deletes it. What the provider cannot
    /// tell is empty.
    StoreConfiguration* GetStoreConfiguration() const override;

    /// "Active Directory".
    std::string GetDisplayName() const override;

    /// Records this store as the host's active store and refreshes the cache. The store that was
    /// active before is not torn down. Throws what reading or writing the settings throws.
    void MakeActive() override;

    /// A plug-in stays loaded while a worker still uses it.
    ~ActiveDirectoryStore() override;

    /// Refreshes the cache, nothing else: the settings are the business of the store that becomes
    /// active.
    void MakeInactive() override;

    /// The domains that the joined one trusts, in the provider's order.
    std::deque<Domain> GetTrustedDomains() const;

    /// The trust state of the joined domain. Kept on purpose: 7 when the trusted domains cannot be
    /// had because of a FileNotFoundException, and 2, not the last value, after a time-out.
    TrustState GetDomainTrustState() const;

    /// The joined domain's relationship to a domain, 6 when nothing is known about it.
    TrustRelationship GetDomainTrustRelationship(const std::string& domain) const;

    // Straight to the provider, on the caller's thread, without cache and without time-out.
    std::string GetDomainControllerForDomain(const std::string& domain) const;
    std::string GetHostPrincipalForDomain(const std::string& domain) const;
    std::string ConvertCanonicalUsername(const std::string& name) const;
    std::vector<std::string> GetSmartCardEnabledServices() const;
    /// Leaves the cache alone.
    void SetSmartCardEnabledServices(const std::vector<std::string>& services) const;
    /// A provider that does not implement this is only logged.
    void SetPreferredDomainControllers(const std::deque<std::string>& controllers);

    /// Joins the host. `domainPath` is the domain, or the domain, "/" and the path of the
    /// organisational unit for the machine account. Unless `skipHostnameCheck`, the host's name is
    /// checked and repaired first, see SanitiseHostnameForDomain.
    ///
    /// Throws InvalidCredentialsException for a missing user name or password, the provider's
    /// failures, OrvConfigStore::ConfigStoreException when the join cannot be recorded, after
    /// leaving the domain again, and what SanitiseHostnameForDomain throws.
    void JoinDomain(const std::string& domainPath, const Credentials& credentials,
                    bool skipHostnameCheck);

    /// Leaves the domain and removes what is stored about it.
    void PartDomain();

    /// Leaves the domain. Kept on purpose: what is stored about the domain stays.
    void PartDomain(const Credentials& credentials);

    /// Joins the host to the domain that an authentication proxy serves, with a machine account
    /// that the proxy creates. Whether the proxy's certificate is verified is the host's advanced
    /// option "UserVars.ActiveDirectoryVerifyAPXCertificate".
    ///
    /// \param serverAddress      the proxy's IPv4 address in dotted form
    ///
    /// \param organizationalUnit for the machine account; empty for the proxy's default
    ///
    /// \param skipHostnameCheck  leaves the host's name as it is, as in JoinDomain
    ///
    /// Throws InvalidIPAddressException, InvalidVerifyAPXCertificateOptionException,
    /// InvalidHostNameException, InvalidAPXProxyProviderException when no proxy client is
    /// installed, set or usable, ConfigurationError or InvalidKeyException when the settings are
    /// malformed, std::logic_error as APXProxy does, InvalidThumbprintStoreException when the
    /// trusted certificate cannot be read, the proxy's and the provider's failures,
    /// OrvConfigStore::ConfigStoreException when the join cannot be recorded, after leaving the
    /// domain again, and what SanitiseHostnameForDomain throws. A failure after the proxy has
    /// created the account does not delete it.
    void JoinDomainWithAPX(const std::string& serverAddress, const std::string& organizationalUnit,
                           bool skipHostnameCheck);

    /// The DNS name of the domain that a proxy serves, asked for without verifying its certificate.
    /// Throws InvalidIPAddressException, InvalidAPXProxyProviderException, ConfigurationError or
    /// InvalidKeyException when the settings are malformed, the proxy's failures, std::logic_error
    /// as APXProxy does and, when the client plug-in cannot be opened, IOError.
    std::string GetDomainForAPXService(const std::string& serverAddress);

    /// Makes a PEM certificate the one that this host trusts its proxy by. Throws
    /// InvalidCertificateException for anything but PEM, and OrvConfigStore::ConfigStoreException.
    void ImportCertificateForAPX(const std::string& certificate);

    /// The same with the content of a file. The second text is ignored; it tells the two forms
    /// apart. Throws FileNotFoundException when the file cannot be opened.
    void ImportCertificateForAPX(const std::string& path, const std::string& ignored);

    /// Checks the host's name against a domain: throws InvalidHostNameException when it cannot be
    /// had or resolved, differs from the first part of the name it resolves to, or is one of the
    /// names that every unconfigured host has. When the host is in another DNS domain this is
    /// logged, and the domain becomes a search domain if it resolves. Last, the hosts file gets an
    /// entry for the management interface's address. A host whose network settings cannot be read
    /// or changed fails with HostCtl::Lib::HostCtlException.
    void SanitiseHostnameForDomain(const std::string& domain) const;

    /// Refreshes the whole cache; a value in `pcscdSvcPolicy` is stored with it. Never throws for
    /// a provider's failure: logs it and reports a partial update.
    void UpdateCache(std::optional<bool> pcscdSvcPolicy) const;

    // The steps of a refresh. Each logs its failure at LOG_ERR and returns whether it succeeded.
    bool FetchAdConfig() const;
    bool FetchDomainTrustState() const;
    bool FetchTrustedDomains() const;
    bool FetchTrustRelationships() const;
    bool FetchScEnabledSvcs() const;

    // The queries' workers: each asks the provider, writes the cache and finishes the request.
    static void GetStoreConfigurationInt(std::shared_ptr<ActiveDirectoryProvider> provider,
                                         const std::string& key);
    static void GetTrustedDomainsInt(std::shared_ptr<ActiveDirectoryProvider> provider,
                                     const std::string& key);
    static void GetDomainTrustStateInt(std::shared_ptr<ActiveDirectoryProvider> provider,
                                       const std::string& key);
    static void GetDomainTrustRelationshipInt(std::shared_ptr<ActiveDirectoryProvider> provider,
                                              const std::string& key, const std::string& domain);

    /// The request of that key: the one in flight, or a new one for which `work(key)` is started.
    /// Throws ThreadErrorException when it cannot be started; there is no such request then.
    static std::shared_ptr<RequestState>
    StartOrAttachToRequest(const std::string& key, std::function<void(const std::string&)> work);

    /// Finishes the request of that key and wakes its waiters. A worker's last act, once a request.
    static void FinishRequest(const std::string& key, std::unique_ptr<Exception>&& error);

protected:
    int timeoutSeconds;
    std::shared_ptr<ActiveDirectoryProvider> provider;

    // One of each in a process. They are never destroyed, on purpose: a worker may still be
    // running when the process exits.
    static ADCache& _adCache;
    static std::unordered_map<std::string, std::shared_ptr<RequestState>>& _asyncRequests;
    static std::mutex& _lock;

private:
    /// Asks the provider on a worker and waits; false when the time ran out first.
    bool Ask(const std::string& key, std::function<void(const std::string&)> work) const;
};

} // namespace authentication
} // namespace tessary

#endif
