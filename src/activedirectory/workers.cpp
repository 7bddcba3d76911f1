#include <utility>

#include "tesauth/active_directory_store.h"

namespace tessary::authentication {

using Provider = std::shared_ptr<ActiveDirectoryProvider>;

namespace {

/// Finishes a request when the scope ends, however it ends: unless told otherwise with the error
/// that stands for a worker that broke off.
class RunningRequest {
public:
    /// The object is complete before anything can fail here, so the request is finished even then.
    explicit RunningRequest(const std::string& key) : RunningRequest(key, nullptr) {
        error_ = std::make_unique<ThreadErrorException>("Unexpected thread termination");
    }
    ~RunningRequest() { ActiveDirectoryStore::FinishRequest(key_, std::move(error_)); }
    RunningRequest(const RunningRequest&) = delete;
    RunningRequest& operator=(const RunningRequest&) = delete;

    void Succeeded() { error_.reset(); }
    void Failed(const Exception& failure) { error_.reset(failure.Clone()); }

private:
    RunningRequest(const std::string& key, std::unique_ptr<Exception> error)
        : key_(key), error_(std::move(error)) {}

    const std::string& key_;
    std::unique_ptr<Exception> error_;
};

/// Carries out one request: `answer` asks the provider and writes the cache. What is not an
/// Exception goes on to the thread's end, after the waiters have been told.
template <typename Answer>
void CarryOut(const std::string& key, Answer answer) {
    RunningRequest request(key);
    try {
        answer();
        request.Succeeded();
    } catch (const Exception& failure) {
        request.Failed(failure);
    }
}

/// What the provider answers, or `substitute` when it does not implement the call.
template <typename Call, typename Answer>
Answer AnswerOr(Answer substitute, Call call) {
    try {
        return call();
    } catch (const CallNotImplementedException&) {
        return substitute;
    }
}

/// Runs one of several calls that do without each other: a failure leaves its field empty.
template <typename Call>
void OnItsOwn(Call call) {
    try {
        call();
    } catch (const std::exception&) {
        return; // the configuration is told as far as it is known
    }
}

} // namespace

void ActiveDirectoryStore::GetStoreConfigurationInt(Provider provider, const std::string& key) {
    CarryOut(key, [&] {
        ActiveDirectoryStoreConfiguration configuration;
        OnItsOwn([&] {
            const Domain domain = provider->GetActiveDomain();
            configuration.dnsDomainName = domain.dnsName;
            configuration.netbiosDomainName = domain.netbiosName;
        });
        OnItsOwn([&] {
            configuration.preferredDomainControllers = provider->GetPreferredDomainControllers();
        });
        OnItsOwn([&] { configuration.machineAccountDN = provider->GetMachineAccountDN(); });
        _adCache.SetConfiguration(std::move(configuration));
    });
}

void ActiveDirectoryStore::GetTrustedDomainsInt(Provider provider, const std::string& key) {
    CarryOut(key, [&] {
        _adCache.SetTrustedDomains(
            AnswerOr(std::deque<Domain>(), [&] { return provider->GetTrustedDomains(); }));
    });
}

void ActiveDirectoryStore::GetDomainTrustStateInt(Provider provider, const std::string& key) {
    CarryOut(key, [&] {
        _adCache.SetDomainTrustState(
            AnswerOr(TrustStateUnknown, [&] { return provider->GetDomainTrustState(); }));
    });
}

void ActiveDirectoryStore::GetDomainTrustRelationshipInt(Provider provider, const std::string& key,
                                                         const std::string& domain) {
    CarryOut(key, [&] {
        _adCache.SetDomainTrustRelationship(domain, AnswerOr(TrustRelationshipNotImplemented, [&] {
                                                return provider->GetDomainTrustRelationship(domain);
                                            }));
    });
}

} // namespace tessary::authentication
