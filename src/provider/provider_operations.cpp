#include <syslog.h>
#include <unistd.h>

#include "tesauth/exceptions.h"
#include "tesauth/provider.h"
#include "text.h"

namespace tessary::authentication {

namespace {

constexpr int maximumJoinAttempts = 4;
constexpr unsigned joinRetrySeconds = 30;

bool IsPassingFailure(uint32_t status) {
    return status == 1326 || status == TESAUTH_PROVIDER_STATUS_TRY_AGAIN;
}

/// The table's entry; a plug-in that lacks it does not implement the operation.
template <typename Entry>
Entry Required(Entry entry) {
    if (entry == nullptr) {
        throw CallNotImplementedException();
    }
    return entry;
}

/// As above, for an entry that only tables of version 2 and later have.
template <typename Entry>
Entry RequiredInVersion2(const ActiveDirectoryClientOperations* operations, Entry entry) {
    return Required(operations->apiVersion >= 2 ? entry : nullptr);
}

void Check(uint32_t status) {
    if (status != 0) {
        ThrowMappedException(status);
    }
}

const char* NullIfEmpty(const std::string& text) {
    return text.empty() ? nullptr : text.c_str();
}

/// Gives a buffer back to the plug-in when the scope ends, a null one as well.
class ReturnedBuffer {
public:
    ReturnedBuffer(void* buffer, ActiveDirectoryReleaseFunction release)
        : buffer_(buffer), release_(release) {}
    ~ReturnedBuffer() {
        if (release_ != nullptr) {
            release_(buffer_);
        }
    }
    ReturnedBuffer(const ReturnedBuffer&) = delete;
    ReturnedBuffer& operator=(const ReturnedBuffer&) = delete;

private:
    void* buffer_;
    ActiveDirectoryReleaseFunction release_;
};

/// Calls an operation that returns one string; null counts as empty.
template <typename Operation, typename... Arguments>
std::string ReturnedString(Operation operation, Arguments... arguments) {
    char* text = nullptr;
    ActiveDirectoryReleaseFunction release = nullptr;
    Check(operation(arguments..., &text, &release));
    const ReturnedBuffer buffer(text, release);
    return TextOrEmpty(text);
}

/// Calls an operation that returns a null-terminated array and appends what `convert` makes of
/// each element. A null array has no elements.
template <typename Container, typename Element, typename Convert>
Container ReturnedArray(uint32_t (*operation)(Element***, ActiveDirectoryReleaseFunction*),
                        Convert convert) {
    Element** elements = nullptr;
    ActiveDirectoryReleaseFunction release = nullptr;
    Check(operation(&elements, &release));
    const ReturnedBuffer buffer(elements, release);
    Container result;
    for (Element** element = elements; element != nullptr && *element != nullptr; ++element) {
        result.push_back(convert(*element));
    }
    return result;
}

/// The names of a container as the null-terminated array that the plug-in takes.
template <typename Container>
std::vector<const char*> PointerArray(const Container& names) {
    std::vector<const char*> pointers;
    pointers.reserve(names.size() + 1);
    for (const std::string& name : names) {
        pointers.push_back(name.c_str());
    }
    pointers.push_back(nullptr);
    return pointers;
}

/// Copies one name of a record and gives it back; a null name is neither copied nor given back.
void TakeName(char* name, ActiveDirectoryReleaseFunction release, std::string& result) {
    if (name != nullptr) {
        const ReturnedBuffer buffer(name, release);
        result = name;
    }
}

/// Makes up to four attempts at a join, as long as the failures are of the passing kind.
template <typename Announce, typename Attempt>
void Join(Announce announce, Attempt attempt) {
    for (int number = 1;; ++number) {
        announce(number);
        const uint32_t status = attempt();
        if (status == 0) {
            return;
        }
        if (!IsPassingFailure(status)) {
            ThrowMappedException(status);
        }
        sleep(joinRetrySeconds); // kept on purpose: also after the last attempt
        if (number == maximumJoinAttempts) {
            ThrowMappedException(status);
        }
    }
}

} // namespace

void ActiveDirectoryProvider::JoinDomain(const std::string& domain,
                                         const std::string& organizationalUnit,
                                         const Credentials& credentials) const {
    Join([](int) {},
         [&] {
             return Required(operations->joinDomain)(domain.c_str(),
                                                     NullIfEmpty(organizationalUnit), &credentials);
         });
}

void ActiveDirectoryProvider::JoinDomainWithMachineAccount(
    const APX::DirectoryDomainInfo& domain, const APX::MachineAccountInfo& account) const {
    const auto join = RequiredInVersion2(operations, operations->joinDomainWithMachineAccount);
    const ActiveDirectoryDomainInfo domainRecord = {domain.reserved.c_str(),
                                                    domain.netbiosName.c_str(),
                                                    domain.dnsName.c_str(), domain.sid.c_str()};
    const ActiveDirectoryMachineAccount accountRecord = {
        account.hostName.c_str(), account.dnsDomainName.c_str(), account.reserved.c_str(),
        account.accountName.c_str(), account.password.c_str()};
    Join(
        [](int attempt) {
            syslog(LOG_INFO, "Adding host to domain: Attempt (%d/%d)", attempt,
                   maximumJoinAttempts);
        },
        [&] { return join(&domainRecord, &accountRecord); });
}

void ActiveDirectoryProvider::PartDomain() const {
    Check(Required(operations->partDomain)(nullptr));
}

void ActiveDirectoryProvider::PartDomain(const Credentials& credentials) const {
    Check(Required(operations->partDomain)(&credentials));
}

Domain ActiveDirectoryProvider::GetActiveDomain() const {
    ActiveDirectoryDomainNames names = {nullptr, nullptr};
    ActiveDirectoryReleaseFunction release = nullptr;
    Check(Required(operations->getActiveDomain)(&names, &release));
    Domain domain("", "");
    TakeName(names.dnsName, release, domain.dnsName);
    TakeName(names.netbiosName, release, domain.netbiosName);
    return domain;
}

void ActiveDirectoryProvider::SetPreferredDomainControllers(
    const std::deque<std::string>& controllers) const {
    const uint32_t status =
        Required(operations->setPreferredDomainControllers)(PointerArray(controllers).data());
    Check(status);
}

std::deque<std::string> ActiveDirectoryProvider::GetPreferredDomainControllers() const {
    return ReturnedArray<std::deque<std::string>>(
        Required(operations->getPreferredDomainControllers), TextOrEmpty);
}

TrustState ActiveDirectoryProvider::GetDomainTrustState() const {
    return Required(operations->getDomainTrustState)();
}

TrustRelationship
ActiveDirectoryProvider::GetDomainTrustRelationship(const std::string& domain) const {
    return Required(operations->getDomainTrustRelationship)(domain.c_str());
}

std::deque<Domain> ActiveDirectoryProvider::GetTrustedDomains() const {
    return ReturnedArray<std::deque<Domain>>(
        Required(operations->getTrustedDomains), [](const ActiveDirectoryDomainNames* names) {
            return Domain(TextOrEmpty(names->dnsName), TextOrEmpty(names->netbiosName));
        });
}

std::string ActiveDirectoryProvider::GetAnyDomainController(const std::string& first,
                                                            const std::string& domain) const {
    return ReturnedString(Required(operations->getAnyDomainController), NullIfEmpty(first),
                          domain.c_str());
}

std::string ActiveDirectoryProvider::ConvertCanonicalUsername(const std::string& name) const {
    return ReturnedString(Required(operations->convertCanonicalUsername), name.c_str());
}

std::string ActiveDirectoryProvider::GetMachineAccountDN() const {
    return ReturnedString(Required(operations->getMachineAccountDN));
}

std::string ActiveDirectoryProvider::GetHostPrincipalForDomain(const std::string& domain) const {
    return ReturnedString(RequiredInVersion2(operations, operations->getHostPrincipalForDomain),
                          domain.c_str());
}

void ActiveDirectoryProvider::SetSmartCardEnabledServices(
    const std::vector<std::string>& services) const {
    const uint32_t status =
        Required(operations->setSmartCardEnabledServices)(PointerArray(services).data());
    Check(status);
}

std::vector<std::string> ActiveDirectoryProvider::GetSmartCardEnabledServices() const {
    return ReturnedArray<std::vector<std::string>>(
        Required(operations->getSmartCardEnabledServices), TextOrEmpty);
}

} // namespace tessary::authentication
