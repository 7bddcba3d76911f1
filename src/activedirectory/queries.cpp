#include <syslog.h>
#include <utility>

#include "tesauth/active_directory_store.h"

namespace tessary::authentication {

bool ActiveDirectoryStore::Ask(const std::string& key,
                               std::function<void(const std::string&)> work) const {
    const auto request = StartOrAttachToRequest(key, std::move(work));
    try {
        request->WaitResult(timeoutSeconds);
        return true;
    } catch (const ProviderCallTimedOutException&) {
        return false;
    }
}

StoreConfiguration* ActiveDirectoryStore::GetStoreConfiguration() const {
    const bool answered = Ask("StoreConfig", [provider = provider](const std::string& key) {
        GetStoreConfigurationInt(provider, key);
    });
    if (!answered) {
        syslog(LOG_WARNING, "GetStoreConfiguration call timedout. Returning cached value.");
    }
    return new ActiveDirectoryStoreConfiguration(_adCache.GetConfiguration());
}

std::deque<Domain> ActiveDirectoryStore::GetTrustedDomains() const {
    const bool answered = Ask("TrustedDomains", [provider = provider](const std::string& key) {
        GetTrustedDomainsInt(provider, key);
    });
    if (!answered) {
        syslog(LOG_WARNING, "GetTrustedDomains call timedout. Returning cached value.");
    }
    return _adCache.GetTrustedDomains();
}

TrustState ActiveDirectoryStore::GetDomainTrustState() const {
    // Kept on purpose: the trusted domains are asked for first, and the list is not used.
    try {
        GetTrustedDomains();
    } catch (const FileNotFoundException&) {
        _adCache.SetDomainTrustState(TrustStateNotJoined);
        return TrustStateNotJoined;
    } catch (const Exception& failure) {
        syslog(LOG_WARNING, "GetDomainTrustState: Call to GetTrustedDomains() failed: %s",
               failure.what());
    }
    const bool answered = Ask("TrustState", [provider = provider](const std::string& key) {
        GetDomainTrustStateInt(provider, key);
    });
    if (!answered) {
        syslog(LOG_WARNING, "GetDomainTrustState call timedout. Returning cached value.");
        // Kept on purpose: unlike the other queries this one does not serve the previous value.
        _adCache.SetDomainTrustState(TrustStateTimedOut);
    }
    return _adCache.GetDomainTrustState();
}

TrustRelationship
ActiveDirectoryStore::GetDomainTrustRelationship(const std::string& domain) const {
    const bool answered =
        Ask("TrustRelationship:" + domain, [provider = provider, domain](const std::string& key) {
            GetDomainTrustRelationshipInt(provider, key, domain);
        });
    if (!answered) {
        syslog(LOG_WARNING,
               "GetDomainTrustRelationship call timedout. Returning cached value for %s.",
               domain.c_str());
    }
    return _adCache.GetDomainTrustRelationship(domain);
}

std::string ActiveDirectoryStore::GetDomainControllerForDomain(const std::string& domain) const {
    return provider->GetAnyDomainController("", domain);
}

std::string ActiveDirectoryStore::GetHostPrincipalForDomain(const std::string& domain) const {
    return provider->GetHostPrincipalForDomain(domain);
}

std::string ActiveDirectoryStore::ConvertCanonicalUsername(const std::string& name) const {
    return provider->ConvertCanonicalUsername(name);
}

std::vector<std::string> ActiveDirectoryStore::GetSmartCardEnabledServices() const {
    return provider->GetSmartCardEnabledServices();
}

void ActiveDirectoryStore::SetSmartCardEnabledServices(
    const std::vector<std::string>& services) const {
    provider->SetSmartCardEnabledServices(services);
}

void ActiveDirectoryStore::SetPreferredDomainControllers(
    const std::deque<std::string>& controllers) {
    try {
        provider->SetPreferredDomainControllers(controllers);
    } catch (const CallNotImplementedException&) {
        syslog(LOG_WARNING, "Setting of preferred domain controllers is not implemented.");
    }
}

} // namespace tessary::authentication
