#include "directory_probe.h"

#include <algorithm>
#include <thread>

#include "tesauth/exceptions.h"

namespace ctl {

namespace auth = tessary::authentication;
using Clock = std::chrono::steady_clock;
using Source = auth::ActiveDirectoryProvider;

namespace {

/// Finishes a request of our own when the work on it ends, however it ends.
class OwnRequest {
public:
    explicit OwnRequest(const std::string& key)
        : key_(key), error_(std::make_unique<auth::ThreadErrorException>("Worker broke off")) {}
    ~OwnRequest() { auth::ActiveDirectoryStore::FinishRequest(key_, std::move(error_)); }
    OwnRequest(const OwnRequest&) = delete;
    OwnRequest& operator=(const OwnRequest&) = delete;

    template <typename Work>
    void CarryOut(Work work) {
        try {
            work();
            error_.reset();
        } catch (const auth::Exception& failure) {
            error_.reset(failure.Clone());
        }
    }

private:
    const std::string& key_;
    std::unique_ptr<auth::Exception> error_;
};

} // namespace

DirectoryProbe::DirectoryProbe(std::chrono::seconds limit)
    : HostStore(static_cast<int>(limit.count())), limit_(limit), deadline_(Clock::now() + limit) {}

DirectoryProbe::Request DirectoryProbe::AskConfiguration() const {
    return StartOrAttachToRequest("StoreConfig", [source = provider](const std::string& key) {
        GetStoreConfigurationInt(source, key);
    });
}

DirectoryProbe::Request DirectoryProbe::AskTrustedDomains() const {
    return StartOrAttachToRequest("TrustedDomains", [source = provider](const std::string& key) {
        GetTrustedDomainsInt(source, key);
    });
}

DirectoryProbe::Request DirectoryProbe::AskTrustState() const {
    return StartOrAttachToRequest("TrustState", [source = provider](const std::string& key) {
        GetDomainTrustStateInt(source, key);
    });
}

DirectoryProbe::Request DirectoryProbe::AskTrustRelationship(const std::string& domain) const {
    return StartOrAttachToRequest("TrustRelationship:" + domain,
                                  [source = provider, domain](const std::string& key) {
                                      GetDomainTrustRelationshipInt(source, key, domain);
                                  });
}

template <typename Answer, typename Call>
DirectoryProbe::Request DirectoryProbe::Ask(const std::string& key,
                                            const std::shared_ptr<Answer>& answer,
                                            Call call) const {
    return StartOrAttachToRequest(key, [source = provider, answer, call](const std::string& own) {
        OwnRequest(own).CarryOut([&] { *answer = call(*source); });
    });
}

DirectoryProbe::Request
DirectoryProbe::AskDomainController(const std::string& domain,
                                    const std::shared_ptr<std::string>& name) const {
    return Ask("DomainController:" + domain, name, [domain](const Source& source) {
        return source.GetAnyDomainController("", domain);
    });
}

DirectoryProbe::Request DirectoryProbe::AskPreferredDomainControllers(
    const std::shared_ptr<std::deque<std::string>>& names) const {
    return Ask("PreferredDomainControllers", names,
               [](const Source& source) { return source.GetPreferredDomainControllers(); });
}

DirectoryProbe::Request
DirectoryProbe::AskCanonicalName(const std::string& user,
                                 const std::shared_ptr<std::string>& name) const {
    return Ask("CanonicalName:" + user, name,
               [user](const Source& source) { return source.ConvertCanonicalUsername(user); });
}

DirectoryProbe::Request
DirectoryProbe::AskHostPrincipal(const std::string& domain,
                                 const std::shared_ptr<std::string>& principal) const {
    return Ask("HostPrincipal:" + domain, principal,
               [domain](const Source& source) { return source.GetHostPrincipalForDomain(domain); });
}

DirectoryProbe::Request DirectoryProbe::AskSmartCardServices(
    const std::shared_ptr<std::vector<std::string>>& services) const {
    return Ask("SmartCardServices", services,
               [](const Source& source) { return source.GetSmartCardEnabledServices(); });
}

void DirectoryProbe::Await(const Request& request) const {
    // A request can be waited for in whole seconds only, so the last part of one is spent looking
    // again and again.
    constexpr std::chrono::milliseconds pause(10);
    for (;;) {
        const auto left = std::max(deadline_ - Clock::now(), Clock::duration::zero());
        const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(left);
        try {
            request->WaitResult(static_cast<int>(seconds.count()));
            return;
        } catch (const auth::ProviderCallTimedOutException&) {
            if (left == Clock::duration::zero()) {
                throw auth::ProviderCallTimedOutException("no answer within " +
                                                          std::to_string(limit_.count()) + " s");
            }
        }
        if (seconds == seconds.zero()) {
            std::this_thread::sleep_for(pause);
        }
    }
}

auth::ActiveDirectoryStoreConfiguration DirectoryProbe::Configuration() const {
    return _adCache.GetConfiguration();
}

std::deque<auth::Domain> DirectoryProbe::TrustedDomains() const {
    return _adCache.GetTrustedDomains();
}

TrustState DirectoryProbe::State() const {
    return _adCache.GetDomainTrustState();
}

TrustRelationship DirectoryProbe::RelationshipTo(const std::string& domain) const {
    return _adCache.GetDomainTrustRelationship(domain);
}

} // namespace ctl
