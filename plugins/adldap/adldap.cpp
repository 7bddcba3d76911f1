// The provider plug-in: the C table on one side, the Active Directory client on the other.

#include "results.h"
#include "run.h"

#include "directory/canonical_user.h"
#include "directory/domain_state.h"
#include "directory/error.h"
#include "directory/membership.h"
#include "directory/preferred_controllers.h"
#include "directory/smart_card_services.h"
#include "directory/trusts.h"

#include "provider_plugin.h"

#include <cstdlib>
#include <string>
#include <vector>

namespace tessary::adldap {
namespace {

using namespace directory;

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

/// The texts of an array that ends with a null pointer.
std::vector<std::string> Texts(const char* const* array) {
    std::vector<std::string> texts;
    for (Given(array); *array; ++array)
        texts.emplace_back(*array);
    return texts;
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
    return Run([&] { SetPreferredControllers(Texts(controllers)); });
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

std::uint32_t ConvertUser(const char* userName, char** canonicalName,
                          ActiveDirectoryReleaseFunction* release) {
    return Run([&] {
        *canonicalName = MakeText(CanonicalUserName(Given(userName)));
        *release = Release;
    });
}

std::uint32_t JoinWithAccount(const ActiveDirectoryDomainInfo* domain,
                              const ActiveDirectoryMachineAccount* account) {
    return Run([&] {
        const std::string dnsName = OrEmpty(Given(domain)->dnsName);
        JoinDomainWithAccount({dnsName.empty() ? OrEmpty(Given(account)->dnsDomainName) : dnsName,
                               OrEmpty(domain->netbiosName), OrEmpty(domain->sid)},
                              {OrEmpty(Given(account)->accountName), Given(account->password)});
    });
}

std::uint32_t GetPrincipal(const char* domain, char** principal,
                           ActiveDirectoryReleaseFunction* release) {
    return Run([&] {
        *principal = MakeText(HostPrincipalFor(Given(domain)));
        *release = Release;
    });
}

std::uint32_t SetSmartCard(const char* const* services) {
    return Run([&] { SetSmartCardServices(Texts(services)); });
}

std::uint32_t GetSmartCard(char*** services, ActiveDirectoryReleaseFunction* release) {
    return Run([&] {
        *services = MakeTexts(SmartCardServices());
        *release = Release;
    });
}

/// The table's reserved entry: nobody calls it, and who does finds no null pointer.
void Reserved() {}

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
    .reserved = tessary::adldap::Reserved,
    .getDomainTrustState = tessary::adldap::GetTrustState,
    .getTrustedDomains = tessary::adldap::GetTrusted,
    .getMachineAccountDN = tessary::adldap::GetMachineDn,
    .getAnyDomainController = tessary::adldap::GetController,
    .convertCanonicalUsername = tessary::adldap::ConvertUser,
    .joinDomainWithMachineAccount = tessary::adldap::JoinWithAccount,
    .getHostPrincipalForDomain = tessary::adldap::GetPrincipal,
    .getDomainTrustRelationship = tessary::adldap::GetRelationship,
    .setSmartCardEnabledServices = tessary::adldap::SetSmartCard,
    .getSmartCardEnabledServices = tessary::adldap::GetSmartCard,
};

} // extern "C"
