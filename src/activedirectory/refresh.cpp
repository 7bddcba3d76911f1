#include <chrono>
#include <syslog.h>

#include "tesauth/active_directory_store.h"

namespace tessary::authentication {

namespace {

/// Runs one step of a refresh. A failure of type `Caught` is handed to `log` and told by the
/// result, any other goes on to the caller.
template <typename Caught, typename Step, typename Log>
bool Succeeds(Step step, Log log) {
    try {
        step();
        return true;
    } catch (const Caught& failure) {
        log(failure.what());
        return false;
    }
}

int MillisecondsSince(std::chrono::steady_clock::time_point start) {
    const auto elapsed = std::chrono::steady_clock::now() - start;
    return static_cast<int>(std::chrono::duration_cast<std::chrono::milliseconds>(elapsed).count());
}

} // namespace

bool ActiveDirectoryStore::FetchAdConfig() const {
    return Succeeds<std::exception>(
        [this] { const std::unique_ptr<StoreConfiguration> discarded(GetStoreConfiguration()); },
        [](const char* why) { syslog(LOG_ERR, "Failed to get AD config: %s", why); });
}

bool ActiveDirectoryStore::FetchDomainTrustState() const {
    return Succeeds<Exception>(
        [this] { GetDomainTrustState(); },
        [](const char* why) { syslog(LOG_ERR, "Failed to get domain trust state: %s", why); });
}

bool ActiveDirectoryStore::FetchTrustedDomains() const {
    return Succeeds<std::exception>(
        [this] { GetTrustedDomains(); },
        [](const char* why) { syslog(LOG_ERR, "Failed to get trusted domains: %s", why); });
}

bool ActiveDirectoryStore::FetchTrustRelationships() const {
    _adCache.IncreaseTrustRelationshipsGenNo();
    bool allSucceeded = true;
    for (const Domain& domain : _adCache.GetAllDomains()) {
        const std::string& name = domain.dnsName;
        allSucceeded &= Succeeds<std::exception>(
            [&] { GetDomainTrustRelationship(name); },
            [&](const char* why) {
                syslog(LOG_ERR, "Failed to get trust relationship for %s: %s", name.c_str(), why);
            });
    }
    _adCache.CleanupOldTrustRelationships();
    return allSucceeded;
}

bool ActiveDirectoryStore::FetchScEnabledSvcs() const {
    return Succeeds<Exception>(
        [this] { _adCache.SetSmartCardEnabledServices(provider->GetSmartCardEnabledServices()); },
        [](const char* why) {
            syslog(LOG_ERR, "Failed to get smart card enabled services: %s", why);
        });
}

void ActiveDirectoryStore::UpdateCache(std::optional<bool> pcscdSvcPolicy) const {
    constexpr int steps = 5;
    constexpr const char* partialMessage = "AD cache updated partially in %i ms";
    const auto start = std::chrono::steady_clock::now();

    int succeeded = FetchAdConfig();
    if (_adCache.IsDomainMember()) {
        succeeded += FetchDomainTrustState();
        succeeded += FetchTrustedDomains();
        succeeded += FetchTrustRelationships();
        const bool servicesFetched = FetchScEnabledSvcs();
        succeeded += servicesFetched;
        if (!servicesFetched && !pcscdSvcPolicy) {
            syslog(LOG_WARNING, partialMessage, MillisecondsSince(start));
            return;
        }
    } else {
        succeeded += steps - 1; // nothing to learn about a domain that the host is not in
    }
    if (pcscdSvcPolicy) {
        _adCache.SetPcscdSvcPolicyOn(*pcscdSvcPolicy);
    }
    if (succeeded == steps) {
        syslog(LOG_DEBUG, "AD cache updated in %i ms", MillisecondsSince(start));
    } else {
        syslog(LOG_WARNING, partialMessage, MillisecondsSince(start));
    }
}

} // namespace tessary::authentication
