/// The last known answers of the Active Directory provider.
#ifndef TESAUTH_AD_CACHE_H
#define TESAUTH_AD_CACHE_H

#include <cstddef>
#include <cstdint>
#include <deque>
#include <mutex>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "tesauth/export.h"
#include "tesauth/provider.h"
#include "tesauth/store.h"

namespace tessary {
namespace authentication {

/// What the Active Directory store tells about its configuration.
class TESAUTH_API ActiveDirectoryStoreConfiguration : public StoreConfiguration {
public:
    ActiveDirectoryStoreConfiguration();
    ActiveDirectoryStoreConfiguration(const ActiveDirectoryStoreConfiguration&);
    ActiveDirectoryStoreConfiguration(ActiveDirectoryStoreConfiguration&&) noexcept;
    ActiveDirectoryStoreConfiguration& operator=(const ActiveDirectoryStoreConfiguration&);
    ActiveDirectoryStoreConfiguration& operator=(ActiveDirectoryStoreConfiguration&&) noexcept;
    ~ActiveDirectoryStoreConfiguration() override;

    std::string dnsDomainName; ///< empty when the host is not a member of a domain
    std::string netbiosDomainName;
    std::deque<std::string> preferredDomainControllers;
    std::string machineAccountDN;
};

/// A plain holder of values with a lock. It never calls the provider: workers write into it what
/// the provider answered, callers read from it. Nothing in it expires.
///
/// May be used from any thread. Each operation is atomic, a sequence of them is not. The cache's
/// lock is always the innermost one. Getters return copies.
class TESAUTH_API ADCache {
public:
    ADCache();
    ~ADCache();
    ADCache(const ADCache&) = delete;
    ADCache& operator=(const ADCache&) = delete;

    /// Takes the argument over; the old configuration ends up in it.
    void SetConfiguration(ActiveDirectoryStoreConfiguration&& newConfiguration);
    ActiveDirectoryStoreConfiguration GetConfiguration() const;

    /// Whether the configuration names a domain.
    bool IsDomainMember() const;

    void SetDomainTrustState(TrustState state);
    TrustState GetDomainTrustState() const;

    void SetPcscdSvcPolicyOn(bool on);
    void SetSmartCardEnabledServices(const std::vector<std::string>& services);

    /// Whether the smart-card daemon's policy is on and all of the `count` services named are
    /// enabled (exact names). True for no services when the policy is on.
    bool IsSmartCardAuthenticationEnabled(const char* const* services, std::size_t count) const;

    void SetTrustedDomains(std::deque<Domain>&& domains);
    std::deque<Domain> GetTrustedDomains() const;

    /// The joined domain first (also when the host has none and both names are empty), then the
    /// trusted ones.
    std::vector<Domain> GetAllDomains() const;

    /// A refresh of all trust relationships begins a generation, writes what it learns, and then
    /// cleans up what was written in another generation. The number has eight bits and wraps; an
    /// entry that is exactly 256 refreshes old counts as current, which is accepted.
    void IncreaseTrustRelationshipsGenNo();
    void SetDomainTrustRelationship(const std::string& domain, TrustRelationship relationship);
    void CleanupOldTrustRelationships();

    /// The relationship of a domain, named exactly as it was written; 6 when there is none.
    TrustRelationship GetDomainTrustRelationship(const std::string& domain) const;

private:
    mutable std::mutex mutex;
    ActiveDirectoryStoreConfiguration configuration;
    TrustState trustState;
    bool pcscdSvcPolicyOn;
    std::vector<std::string> smartCardEnabledServices;
    std::deque<Domain> trustedDomains;
    uint8_t trustRelationshipsGenNo;
    std::unordered_map<std::string, std::pair<TrustRelationship, uint8_t>> trustRelationships;
};

} // namespace authentication
} // namespace tessary

#endif
