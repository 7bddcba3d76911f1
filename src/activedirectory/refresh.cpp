#include <chrono>
#include <syslog.h>

#include "tesauth/active_directory_store.h"

namespace tessary::authentication {

namespace {

/// Runs one step of a refresh; a failure of type `Caught` is logged and told by the result, any
/// other goes on to the caller.
template <typename Caught, typename Step>
bool Succeeds(const char* whatFailed, Step step) {
    try {
        step();
        return true;
    } catch (const Caught& failure) {
        syslog(LOG_ERR, "Failed to get %s: %s", whatFailed, failure.what());
        return false;
    }
}

int MillisecondsSince(std::chrono::steady_clock::time_point start) {
    const auto elapsed = std::chrono::steady_clock::now() - start;
    return static_cast<int>(std::chrono::duration_cast<std::chrono::milliseconds>(elapsed).count());
}

} // namespace

bool ActiveDirectoryStore::FetchAdConfig() const {
    return Succeeds<std::exception>("AD config", [this] {
        const AuthenticationStore& store = *this;
        const std::unique_ptr<StoreConfiguration> discarded(store.GetStoreConfiguration());
    });
}

bool ActiveDirectoryStore::FetchDomainTrustState() const {
    return Succeeds<Exception>("domain trust state", [this] { GetDomainTrustState(); });
}

bool ActiveDirectoryStore::FetchTrustedDomains() const {
    return Succeeds<std::exception>("trusted domains", [this] { GetTrustedDomains(); });
}

bool ActiveDirectoryStore::FetchTrustRelationships() const {
    _adCache.IncreaseTrustRelationshipsGenNo();
    bool allSucceeded = true;
    for (const Domain& domain : _adCache.GetAllDomains()) {
        const std::string& name = domain.dnsName;
        allSucceeded &= Succeeds<std::exception>(("trust relationship for " + name).c_str(),
                                                 [&] { GetDomainTrustRelationship(name); });
    }
    _adCache.CleanupOldTrustRelationships();
    return allSucceeded;
}

bool ActiveDirectoryStore::FetchScEnabledSvcs() const {
    return Succeeds<Exception>("smart card enabled services", [this] {
        _adCache.SetSmartCardEnabledServices(provider->GetSmartCardEnabledServices());
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
