// The provider plug-in: the C table on one side, the Active Directory client on the other.

#include "results.h"

#include "directory/domain_state.h"
#include "directory/error.h"
#include "directory/membership.h"
#include "directory/operation.h"
#include "directory/preferred_controllers.h"
#include "directory/trusts.h"

#include "provider_plugin.h"

#include <cstdlib>
#include <new>
#include <string>
#include <vector>

namespace tessary::adldap {
namespace {

using namespace directory;

/// Runs one operation; no exception leaves the plug-in.
template <typename Function>
std::uint32_t Run(Function function) noexcept {
    try {
        const Operation operation;
        function();
        return static_cast<std::uint32_t>(Status::Success);
    } catch (const Error& error) {
        return static_cast<std::uint32_t>(error.Code());
    } catch (const std::bad_alloc&) {
        return static_cast<std::uint32_t>(Status::NotEnoughMemory);
    } catch (...) {
        return static_cast<std::uint32_t>(Status::InternalError);
    }
}

/// An argument that must be there.
template <typename Pointer>
Pointer Given(Pointer argument) {
    if (!argument)
        throw Error(Status::InvalidParameter, "an argument is missing");
    return argument;
}

std::string OrEmpty(const char* text) {
    return text ? text : "";
}

void Release(void* buffer) {
    std::free(buffer);
}

std::uint32_t Join(const char* domain, const char* organizationalUnit,
                   const Credentials* credentials) {
    return Run([&] {
        Given(credentials);
        JoinDomain(Given(domain), OrEmpty(organizationalUnit), Given(credentials->userName),
                   Given(credentials->password));
    });
}

std::uint32_t Part(const Credentials* credentials) {
    return Run([&] {
        if (credentials)
            LeaveDomain(Given(credentials->userName), Given(credentials->password));
        else
            LeaveDomain();
    });
}

std::uint32_t GetActiveDomain(ActiveDirectoryDomainNames* domain,
                              ActiveDirectoryReleaseFunction* release) {
    return Run([&] {
        *domain = {nullptr, nullptr};
        *release = Release;
        const std::optional<DomainState> state = DomainState::Load();
        if (!state)
            return;
        domain->dnsName = MakeText(state->domain);
        try {
            domain->netbiosName = MakeText(state->netbiosName);
        } catch (...) {
            Release(domain->dnsName);
            throw;
        }
    });
}

std::uint32_t SetPreferred(const char* const* controllers) {
    return Run([&] {
        std::vector<std::string> names;
        for (Given(controllers); *controllers; ++controllers)
            names.emplace_back(*controllers);
        SetPreferredControllers(names);
    });
}

std::uint32_t GetPreferred(char*** controllers, ActiveDirectoryReleaseFunction* release) {
    return Run([&] {
        *controllers = MakeTexts(PreferredControllers());
        *release = Release;
    });
}

TrustState GetTrustState() {
    TrustState state = TrustStateUnknown;
    Run([&] {
        switch (TestMachineTrust()) {
        case MachineTrust::Good:
            state = TrustStateGood;
            break;
        case MachineTrust::KeyRejected:
            state = TrustStateKeyRejected;
            break;
        case MachineTrust::AccountMissing:
            state = TrustStateAccountMissing;
            break;
        case MachineTrust::AccountDisabled:
            state = TrustStateAccountDisabled;
            break;
        case MachineTrust::ClockSkew:
            state = TrustStateClockSkew;
            break;
        case MachineTrust::NotJoined:
            state = TrustStateNotJoined;
            break;
        case MachineTrust::NoController:
            state = TrustStateNoController;
            break;
        case MachineTrust::Unknown:
            break;
        }
    });
    return state;
}

std::uint32_t GetTrusted(ActiveDirectoryDomainNames*** domains,
                         ActiveDirectoryReleaseFunction* release) {
    return Run([&] {
        *domains = MakeDomains(TrustedDomains());
        *release = Release;
    });
}

std::uint32_t GetMachineDn(char** distinguishedName, ActiveDirectoryReleaseFunction* release) {
    return Run([&] {
        const std::optional<DomainState> state = DomainState::Load();
        if (!state)
            throw Error(Status::NoMachineAccount, "the host is not joined to a domain");
        *distinguishedName = MakeText(state->accountDn);
        *release = Release;
    });
}

std::uint32_t GetController(const char* first, const char* domain, char** controller,
                            ActiveDirectoryReleaseFunction* release) {
    return Run([&] {
        *controller = MakeText(AnyController(OrEmpty(first), Given(domain)));
        *release = Release;
    });
}

TrustRelationship GetRelationship(const char* domain) {
    TrustRelationship relationship = TrustRelationshipUnknown;
    Run([&] {
        switch (RelationshipWith(Given(domain))) {
        case Relationship::Inbound:
            relationship = TrustRelationshipInbound;
            break;
        case Relationship::Outbound:
            relationship = TrustRelationshipOutbound;
            break;
        case Relationship::TwoWay:
            relationship = TrustRelationshipTwoWay;
            break;
        case Relationship::WithinForest:
            relationship = TrustRelationshipWithinForest;
            break;
        case Relationship::JoinedDomain:
            relationship = TrustRelationshipJoinedDomain;
            break;
        case Relationship::None:
            relationship = TrustRelationshipNone;
            break;
        case Relationship::Unknown:
            break;
        }
    });
    return relationship;
}

} // namespace
} // namespace tessary::adldap

extern "C" {

// Constants have internal linkage unless declared otherwise first.
[[gnu::visibility(
    "default")]] extern const struct ActiveDirectoryClientMetadata ActiveDirectoryClientMetadata;
[[gnu::visibility("default")]] extern const struct ActiveDirectoryClientOperations
    ActiveDirectoryClientOperations;

const struct ActiveDirectoryClientMetadata ActiveDirectoryClientMetadata = {
    .apiVersion = TESAUTH_PROVIDER_API_VERSION,
    .pamModule = "pam_sss.so",
    .pamModuleParameters = nullptr,
    .nssModule = "sss",
    .nssModuleParameters = nullptr,
};

const struct ActiveDirectoryClientOperations ActiveDirectoryClientOperations = {
    .apiVersion = TESAUTH_PROVIDER_API_VERSION,
    .joinDomain = tessary::adldap::Join,
    .partDomain = tessary::adldap::Part,
    .getActiveDomain = tessary::adldap::GetActiveDomain,
    .setPreferredDomainControllers = tessary::adldap::SetPreferred,
    .getPreferredDomainControllers = tessary::adldap::GetPreferred,
    .reserved = nullptr,
    .getDomainTrustState = tessary::adldap::GetTrustState,
    .getTrustedDomains = tessary::adldap::GetTrusted,
    .getMachineAccountDN = tessary::adldap::GetMachineDn,
    .getAnyDomainController = tessary::adldap::GetController,
    .convertCanonicalUsername = nullptr,
    .joinDomainWithMachineAccount = nullptr,
    .getHostPrincipalForDomain = nullptr,
    .getDomainTrustRelationship = tessary::adldap::GetRelationship,
    .setSmartCardEnabledServices = nullptr,
    .getSmartCardEnabledServices = nullptr,
};

} // extern "C"
