#include "tesauth/ad_cache.h"

#include <algorithm>

namespace tessary::authentication {

using Guard = std::lock_guard<std::mutex>;

ActiveDirectoryStoreConfiguration::ActiveDirectoryStoreConfiguration() = default;
ActiveDirectoryStoreConfiguration::ActiveDirectoryStoreConfiguration(
    const ActiveDirectoryStoreConfiguration&) = default;
ActiveDirectoryStoreConfiguration::ActiveDirectoryStoreConfiguration(
    ActiveDirectoryStoreConfiguration&&) noexcept = default;
ActiveDirectoryStoreConfiguration&
ActiveDirectoryStoreConfiguration::operator=(const ActiveDirectoryStoreConfiguration&) = default;
ActiveDirectoryStoreConfiguration& ActiveDirectoryStoreConfiguration::operator=(
    ActiveDirectoryStoreConfiguration&&) noexcept = default;
ActiveDirectoryStoreConfiguration::~ActiveDirectoryStoreConfiguration() = default;

ADCache::ADCache()
    : trustState(TrustStateUnknown), pcscdSvcPolicyOn(false), trustRelationshipsGenNo(0) {}

ADCache::~ADCache() = default;

void ADCache::SetConfiguration(ActiveDirectoryStoreConfiguration&& newConfiguration) {
    const Guard guard(mutex);
    std::swap(configuration, newConfiguration);
}

ActiveDirectoryStoreConfiguration ADCache::GetConfiguration() const {
    const Guard guard(mutex);
    return configuration;
}

bool ADCache::IsDomainMember() const {
    const Guard guard(mutex);
    return !configuration.dnsDomainName.empty();
}

void ADCache::SetDomainTrustState(TrustState state) {
    const Guard guard(mutex);
    trustState = state;
}

TrustState ADCache::GetDomainTrustState() const {
    const Guard guard(mutex);
    return trustState;
}

void ADCache::SetPcscdSvcPolicyOn(bool on) {
    const Guard guard(mutex);
    pcscdSvcPolicyOn = on;
}

void ADCache::SetSmartCardEnabledServices(const std::vector<std::string>& services) {
    const Guard guard(mutex);
    smartCardEnabledServices = services;
}

bool ADCache::IsSmartCardAuthenticationEnabled(const char* const* services,
                                               std::size_t count) const {
    const Guard guard(mutex);
    const auto isEnabled = [this](const char* service) {
        return std::find(smartCardEnabledServices.begin(), smartCardEnabledServices.end(),
                         service) != smartCardEnabledServices.end();
    };
    return pcscdSvcPolicyOn && std::all_of(services, services + count, isEnabled);
}

void ADCache::SetTrustedDomains(std::deque<Domain>&& domains) {
    const Guard guard(mutex);
    trustedDomains = std::move(domains);
}

std::deque<Domain> ADCache::GetTrustedDomains() const {
    const Guard guard(mutex);
    return trustedDomains;
}

std::vector<Domain> ADCache::GetAllDomains() const {
    const Guard guard(mutex);
    std::vector<Domain> domains;
    domains.reserve(trustedDomains.size() + 1);
    domains.emplace_back(configuration.dnsDomainName, configuration.netbiosDomainName);
    domains.insert(domains.end(), trustedDomains.begin(), trustedDomains.end());
    return domains;
}

void ADCache::IncreaseTrustRelationshipsGenNo() {
    const Guard guard(mutex);
    ++trustRelationshipsGenNo;
}

void ADCache::SetDomainTrustRelationship(const std::string& domain,
                                         TrustRelationship relationship) {
    const Guard guard(mutex);
    trustRelationships.insert_or_assign(domain,
                                        std::make_pair(relationship, trustRelationshipsGenNo));
}

void ADCache::CleanupOldTrustRelationships() {
    const Guard guard(mutex);
    std::erase_if(trustRelationships, [this](const auto& entry) {
        return entry.second.second != trustRelationshipsGenNo;
    });
}

TrustRelationship ADCache::GetDomainTrustRelationship(const std::string& domain) const {
    const Guard guard(mutex);
    const auto entry = trustRelationships.find(domain);
    return entry != trustRelationships.end() ? entry->second.first : TrustRelationshipUnknown;
}

} // namespace tessary::authentication
