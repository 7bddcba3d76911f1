#include "adldap_calls.h"

#include <dlfcn.h>
#include <stdexcept>

#include <gmock/gmock.h>

namespace {

/// Runs a call that makes one text.
template <typename Call>
std::string TextOf(Call call) {
    char* text = nullptr;
    ActiveDirectoryReleaseFunction release = nullptr;
    const std::uint32_t status = call(&text, &release);
    if (status != 0)
        return "status " + std::to_string(status);
    const std::string result(text);
    release(text);
    return result;
}

} // namespace

Plugin::Plugin() {
    void* handle = dlopen("/usr/libexec/tesauth/libadldap.so", RTLD_LAZY | RTLD_GLOBAL);
    if (!handle)
        throw std::runtime_error(dlerror());
    operations_ = static_cast<const ActiveDirectoryClientOperations*>(
        dlsym(handle, "ActiveDirectoryClientOperations"));
    metadata_ = static_cast<const ActiveDirectoryClientMetadata*>(
        dlsym(handle, "ActiveDirectoryClientMetadata"));
}

std::uint32_t Plugin::Join(const std::string& domain, const std::string& unit,
                           const std::string& user, const std::string& password) const {
    const Credentials credentials{user.c_str(), password.c_str()};
    return operations_->joinDomain(domain.c_str(), unit.empty() ? nullptr : unit.c_str(),
                                   &credentials);
}

std::uint32_t Plugin::LeaveAs(const std::string& user, const std::string& password) const {
    const Credentials credentials{user.c_str(), password.c_str()};
    return operations_->partDomain(&credentials);
}

std::string Plugin::ActiveDomain() const {
    ActiveDirectoryDomainNames names{nullptr, nullptr};
    ActiveDirectoryReleaseFunction release = nullptr;
    EXPECT_EQ(operations_->getActiveDomain(&names, &release), 0u);
    std::string text;
    for (char* name : {names.dnsName, names.netbiosName}) {
        text += (text.empty() ? "" : " ") + std::string(name ? name : "(null)");
        if (name)
            release(name);
    }
    return text;
}

std::string Plugin::MachineDn() const {
    return TextOf(operations_->getMachineAccountDN);
}

std::string Plugin::Controller(const char* first, const std::string& domain) const {
    return TextOf([&](char** text, ActiveDirectoryReleaseFunction* release) {
        return operations_->getAnyDomainController(first, domain.c_str(), text, release);
    });
}

std::string Plugin::User(const std::string& name) const {
    return TextOf([&](char** text, ActiveDirectoryReleaseFunction* release) {
        return operations_->convertCanonicalUsername(name.c_str(), text, release);
    });
}

std::string Plugin::HostPrincipal(const std::string& domain) const {
    return TextOf([&](char** text, ActiveDirectoryReleaseFunction* release) {
        return operations_->getHostPrincipalForDomain(domain.c_str(), text, release);
    });
}

std::vector<std::string> Plugin::Trusted(std::uint32_t expectedStatus) const {
    ActiveDirectoryDomainNames** domains = nullptr;
    ActiveDirectoryReleaseFunction release = nullptr;
    const std::uint32_t status = operations_->getTrustedDomains(&domains, &release);
    EXPECT_EQ(status, expectedStatus);
    std::vector<std::string> result;
    if (status != 0)
        return result;
    for (ActiveDirectoryDomainNames** each = domains; *each; ++each)
        result.push_back(std::string((*each)->dnsName) + " " + (*each)->netbiosName);
    release(domains);
    return result;
}

std::uint32_t Plugin::SetPreferred(const std::vector<std::string>& controllers) const {
    std::vector<const char*> pointers;
    for (const std::string& controller : controllers)
        pointers.push_back(controller.c_str());
    pointers.push_back(nullptr);
    return operations_->setPreferredDomainControllers(pointers.data());
}

std::vector<std::string> Plugin::Preferred() const {
    char** controllers = nullptr;
    ActiveDirectoryReleaseFunction release = nullptr;
    EXPECT_EQ(operations_->getPreferredDomainControllers(&controllers, &release), 0u);
    std::vector<std::string> result;
    for (char** each = controllers; *each; ++each)
        result.push_back(*each);
    release(controllers);
    return result;
}
