#include "verbs.h"

#include "directory_probe.h"
#include "host_settings.h"
#include "host_store.h"
#include "hostctl/host.h"
#include "maintenance.h"
#include "output.h"
#include "progress.h"
#include "tesauth/config_store.h"
#include "tesauth/exceptions.h"

namespace ctl {

namespace auth = tessary::authentication;

namespace {

/// Why a join may take so long.
constexpr const char* retryHint = "; a busy controller may take a minute, and a join that the "
                                  "directory refuses for the moment is tried 4 times, 30 s apart";

/// For what joining and leaving ask on the side.
constexpr int queryWaitSeconds = 10;

/// The domain that the host is in, as far as it can be told without a controller.
std::string CurrentDomain() {
    const StoredDomain stored = ReadStoredDomain();
    if (!stored.name.empty()) {
        return stored.name;
    }
    const DirectoryProbe probe{std::chrono::seconds(queryWaitSeconds)};
    try {
        probe.Await(probe.AskConfiguration());
    } catch (const auth::Exception&) {
        return ""; // only the answer's wording depends on it
    }
    return probe.Configuration().dnsDomainName;
}

/// Runs a join, and says what helps when the host's name could not be checked.
void RunJoin(const std::string& whatGoesOn, const std::function<void()>& join) {
    const auto work = [&join] {
        try {
            join();
        } catch (const HostCtl::Lib::HostCtlException& failure) {
            throw HintedError(failure.what(), "this came up while the host's name was checked; "
                                              "--skip-hostname-check joins without that");
        }
    };
    RunReported(whatGoesOn, work, retryHint);
}

Answer JoinThroughProxy(const Arguments& arguments) {
    HostStore store(queryWaitSeconds);
    RunJoin("joining through the proxy " + arguments.proxy, [&] {
        store.JoinDomainWithAPX(arguments.proxy, arguments.organizationalUnit,
                                arguments.skipHostnameCheck);
    });
    const std::string domain = ReadStoredDomain().name;
    return {OneLine("joined " + domain),
            {{"joined", domain},
             {"organizationalUnit", TextOrNull(arguments.organizationalUnit)},
             {"proxy", arguments.proxy}}};
}

/// The domain of a key that was just changed; empty when the provider does not tell.
std::string DomainOf(const HostStore& store) {
    try {
        return store.Provider().GetActiveDomain().dnsName;
    } catch (const auth::Exception&) {
        return ""; // only the answer's wording depends on it
    }
}

/// Whether the provider says so; not when it cannot tell.
bool IsInNoDomain(const HostStore& store) {
    try {
        return store.Provider().GetActiveDomain().dnsName.empty();
    } catch (const auth::Exception&) {
        return false;
    }
}

/// What a request for a new key came to.
enum class KeyRequest { NewKey, OldKey, NoDomain };

/// A host in no domain has no old key either: who asks for the age only, such as the timer that
/// runs on any host, has nothing to learn from a failure.
KeyRequest RequestKey(const HostStore& store, const Maintenance& maintenance, int olderThanDays) {
    constexpr uint32_t daySeconds = 24 * 60 * 60;
    try {
        const bool rotated =
            maintenance.RotateMachineKey(static_cast<uint32_t>(olderThanDays) * daySeconds);
        return rotated ? KeyRequest::NewKey : KeyRequest::OldKey;
    } catch (const auth::FileNotFoundException&) {
        if (olderThanDays == 0 || !IsInNoDomain(store)) {
            throw;
        }
        return KeyRequest::NoDomain;
    }
}

std::string WhyNoNewKey(int olderThanDays) {
    if (olderThanDays == 0) {
        return "the provider left the key as it is";
    }
    return "the key is younger than " + std::to_string(olderThanDays) +
           (olderThanDays == 1 ? " day" : " days") + ": nothing to do";
}

void LeaveAs(auth::ActiveDirectoryStore& store, const std::string& user, const Password& password) {
    store.PartDomain({user.c_str(), password.Text()});
    // The library keeps what it has stored about the domain here; who leaves wants it forgotten.
    auth::ActiveDirectoryConfigStore().RemoveDomainInfo();
}

} // namespace

Answer Join(const Arguments& arguments) {
    if (!arguments.proxy.empty()) {
        return JoinThroughProxy(arguments);
    }
    const auto slash = arguments.domain.find('/');
    const std::string domain = arguments.domain.substr(0, slash);
    if (domain.empty()) {
        throw UsageError("the domain's name is empty");
    }
    Password password;
    ReadPassword(arguments.password, arguments.user, password);
    HostStore store(queryWaitSeconds);
    RunJoin("joining " + domain, [&] {
        store.JoinDomain(arguments.domain, {arguments.user.c_str(), password.Text()},
                         arguments.skipHostnameCheck);
    });
    const std::string unit = slash == std::string::npos ? "" : arguments.domain.substr(slash + 1);
    return {"joined " + domain, {{"joined", domain}, {"organizationalUnit", TextOrNull(unit)}}};
}

Answer Leave(const Arguments& arguments) {
    Password password;
    if (!arguments.user.empty()) {
        ReadPassword(arguments.password, arguments.user, password);
    }
    HostStore store(queryWaitSeconds);
    const std::string domain = CurrentDomain();
    RunReported("leaving " + (domain.empty() ? "the domain" : domain), [&] {
        if (arguments.user.empty()) {
            store.PartDomain();
        } else {
            LeaveAs(store, arguments.user, password);
        }
    });
    return {domain.empty() ? "the host was not joined to a domain" : "left " + domain,
            {{"left", TextOrNull(domain)}}};
}

Answer RotateKey(const Arguments& arguments) {
    const HostStore store(queryWaitSeconds);
    const auto maintenance = Maintenance::OfLoadedProvider();
    if (!maintenance) {
        throw auth::CallNotImplementedException();
    }
    KeyRequest request{};
    std::string domain;
    RunReported("making a new key", [&] {
        request = RequestKey(store, *maintenance, arguments.olderThanDays);
        domain = DomainOf(store);
    });
    if (request == KeyRequest::NoDomain) {
        return {"this host is in no domain: nothing to do",
                {{"rotated", false}, {"domain", nullptr}}};
    }
    const bool rotated = request == KeyRequest::NewKey;
    const std::string where = domain.empty() ? "" : OneLine(" in " + domain);
    return {rotated ? "new key for this host" + where : WhyNoNewKey(arguments.olderThanDays),
            {{"rotated", rotated}, {"domain", TextOrNull(domain)}}};
}

} // namespace ctl
