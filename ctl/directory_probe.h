/// Asks the directory, and tells a live answer from none.
#ifndef TESAUTHCTL_DIRECTORY_PROBE_H
#define TESAUTHCTL_DIRECTORY_PROBE_H

#include <chrono>
#include <deque>
#include <memory>
#include <string>
#include <vector>

#include "host_store.h"

namespace ctl {

/// The host's store with one deadline for everything that is asked of it. The store's own queries
/// fill a missing answer from a cache, which in a process that has just started is empty; here the
/// caller learns that there is no answer.
///
/// Ask... starts a question and returns at once; all questions run side by side. Await waits for
/// one of them. What the directory answered is then read from the getters. A question that nobody
/// waits for any more runs on until the process ends, so leave with _exit.
class DirectoryProbe : private HostStore {
public:
    using Request = std::shared_ptr<tessary::authentication::RequestState>;

    /// The time begins now. Throws InvalidActiveDirectoryProviderException.
    explicit DirectoryProbe(std::chrono::seconds limit);

    Request AskConfiguration() const;
    Request AskTrustedDomains() const;
    Request AskTrustState() const;
    Request AskTrustRelationship(const std::string& domain) const;

    // The last argument receives the answer; it is complete once the request has been awaited.
    Request AskDomainController(const std::string& domain,
                                const std::shared_ptr<std::string>& name) const;
    Request
    AskPreferredDomainControllers(const std::shared_ptr<std::deque<std::string>>& names) const;
    Request AskCanonicalName(const std::string& user,
                             const std::shared_ptr<std::string>& name) const;
    Request AskHostPrincipal(const std::string& domain,
                             const std::shared_ptr<std::string>& principal) const;
    Request AskSmartCardServices(const std::shared_ptr<std::vector<std::string>>& services) const;

    /// Waits for an answer until the deadline. Throws ProviderCallTimedOutException when it passes
    /// first, and what the directory failed with.
    void Await(const Request& request) const;

    tessary::authentication::ActiveDirectoryStoreConfiguration Configuration() const;
    std::deque<tessary::authentication::Domain> TrustedDomains() const;
    TrustState State() const;
    TrustRelationship RelationshipTo(const std::string& domain) const;

private:
    /// Starts a question that the store has no request for.
    template <typename Answer, typename Call>
    Request Ask(const std::string& key, const std::shared_ptr<Answer>& answer, Call call) const;

    std::chrono::seconds limit_;
    std::chrono::steady_clock::time_point deadline_;
};

} // namespace ctl

#endif
