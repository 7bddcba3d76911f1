#include "tesauth/apx_proxy.h"

#include <array>
#include <dlfcn.h>

#include "plugin_library.h"
#include "tesauth/exceptions.h"
#include "text.h"

namespace tessary::authentication {

namespace {

constexpr const char* operationsSymbol = "APXProxyClientOperations";

bool IsComplete(const APXProxyClientOperations* operations) {
    return operations != nullptr && operations->getDomainInfo != nullptr &&
           operations->createMachineAccount != nullptr && operations->freeString != nullptr;
}

/// What a call returned; gives it back to the plug-in, in order, when the scope ends.
template <std::size_t Count>
class ReturnedStrings {
public:
    explicit ReturnedStrings(void (*freeString)(char*)) : freeString_(freeString) {}
    ~ReturnedStrings() {
        for (char* text : texts_) {
            if (text != nullptr) {
                freeString_(text);
            }
        }
    }
    ReturnedStrings(const ReturnedStrings&) = delete;
    ReturnedStrings& operator=(const ReturnedStrings&) = delete;

    char** At(std::size_t index) { return &texts_[index]; }
    std::string Text(std::size_t index) const { return TextOrEmpty(texts_[index]); }

    /// Ends the call: after a failure nothing is read or given back.
    void Check(uint32_t status) {
        if (status != 0) {
            texts_.fill(nullptr);
            ThrowMappedProxyException(status);
        }
    }

private:
    void (*freeString_)(char*);
    std::array<char*, Count> texts_{};
};

} // namespace

APXProxy::APXProxy(const std::string& provider, const std::string& address, bool verify,
                   const std::string& trustedThumbprint, const std::string& trustedCertificate)
    : handle(plugin::Open(provider, "Unable to open APX provider: ")),
      operations(
          static_cast<const APXProxyClientOperations*>(dlsym(handle.get(), operationsSymbol))),
      verifyCertificate(verify), serverAddress(address), thumbprint(trustedThumbprint),
      certificate(trustedCertificate) {
    if (!IsComplete(operations)) {
        // Kept on purpose: no check for a missing text. When only an entry is missing the loader
        // reports no error, and this throws std::logic_error.
        const std::string reason = dlerror();
        handle.reset();
        throw InvalidAPXProxyProviderException(provider, reason);
    }
}

APXProxy::~APXProxy() {
    handle.reset(); // before the strings go
}

const char* APXProxy::CertificateOrNull() const {
    return certificate.empty() ? nullptr : certificate.c_str();
}

void APXProxy::GetDomainInfo(std::string& netbiosName, std::string& dnsName,
                             std::string& domainSid) const {
    ReturnedStrings<3> returned(operations->freeString);
    returned.Check(operations->getDomainInfo(serverAddress.c_str(), verifyCertificate,
                                             thumbprint.c_str(), CertificateOrNull(),
                                             returned.At(0), returned.At(1), returned.At(2)));
    netbiosName = returned.Text(0);
    dnsName = returned.Text(1);
    domainSid = returned.Text(2);
}

std::string APXProxy::GetNetBIOSDomainName() const {
    std::string netbiosName, dnsName, domainSid;
    GetDomainInfo(netbiosName, dnsName, domainSid);
    return netbiosName;
}

std::string APXProxy::GetDNSDomainName() const {
    std::string netbiosName, dnsName, domainSid;
    GetDomainInfo(netbiosName, dnsName, domainSid);
    return dnsName;
}

std::string APXProxy::GetDomainSID() const {
    std::string netbiosName, dnsName, domainSid;
    GetDomainInfo(netbiosName, dnsName, domainSid);
    return domainSid;
}

std::string APXProxy::GetDomainController() const {
    return "";
}

std::string APXProxy::GetDefaultComputerContainer() const {
    return GetDomainController();
}

ComputerPrincipalInfo APXProxy::CreateMachineAccount(const std::string& hostName,
                                                     const std::string& container) const {
    ReturnedStrings<2> returned(operations->freeString);
    returned.Check(operations->createMachineAccount(
        serverAddress.c_str(), hostName.c_str(), container.empty() ? nullptr : container.c_str(),
        verifyCertificate, thumbprint.c_str(), CertificateOrNull(), returned.At(0),
        returned.At(1)));
    return {"", returned.Text(0), returned.Text(1)};
}

} // namespace tessary::authentication
