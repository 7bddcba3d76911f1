// The plug-in's two tables.

#include "client.h"
#include "latest_failure.h"
#include "run.h"

#include "apx_plugin.h"
#include "maintenance_plugin.h"

#include <cstdlib>
#include <cstring>
#include <memory>
#include <openssl/crypto.h>

namespace tessary::apxhttps {
namespace {

std::string Given(const char* text) {
    if (!text)
        throw Failure(Status::BadRequest);
    return text;
}

std::string OrEmpty(const char* text) {
    return text ? text : "";
}

void FreeString(char* text) {
    if (!text)
        return;
    OPENSSL_cleanse(text, std::strlen(text));
    std::free(text);
}

struct StringDeleter {
    void operator()(char* text) const { FreeString(text); }
};
using String = std::unique_ptr<char, StringDeleter>;

String Copy(const SecretString& text) {
    String copy(static_cast<char*>(std::malloc(text.size() + 1)));
    if (!copy)
        throw std::bad_alloc();
    std::memcpy(copy.get(), text.c_str(), text.size() + 1);
    return copy;
}

std::uint32_t GetDomainInfo(const char* serverAddress, bool verifyCertificate,
                            const char* thumbprint, const char* certificate, char** netbiosName,
                            char** dnsName, char** domainSid) {
    return Run([&] {
        const DomainInfo domain = AskForDomain(
            {Given(serverAddress), verifyCertificate, OrEmpty(thumbprint), OrEmpty(certificate)},
            Limits());
        String netbiosNameCopy = Copy(domain.netbiosName);
        String dnsNameCopy = Copy(domain.dnsName);
        *domainSid = Copy(domain.sid).release();
        *netbiosName = netbiosNameCopy.release();
        *dnsName = dnsNameCopy.release();
    });
}

std::uint32_t CreateMachineAccount(const char* serverAddress, const char* hostName,
                                   const char* container, bool verifyCertificate,
                                   const char* thumbprint, const char* certificate,
                                   char** accountName, char** password) {
    return Run([&] {
        const MachineAccount account = AskForMachineAccount(
            {Given(serverAddress), verifyCertificate, OrEmpty(thumbprint), OrEmpty(certificate)},
            Given(hostName), OrEmpty(container), Limits());
        String nameCopy = Copy(account.name);
        *password = Copy(account.password).release();
        *accountName = nameCopy.release();
    });
}

/// The table's reserved entry: nobody calls it, and who does finds no null pointer.
void Reserved() {}

} // namespace
} // namespace tessary::apxhttps

extern "C" {

// Constants have internal linkage unless declared otherwise first.
[[gnu::visibility(
    "default")]] extern const struct APXProxyClientOperations APXProxyClientOperations;

const struct APXProxyClientOperations APXProxyClientOperations = {
    .reserved = tessary::apxhttps::Reserved,
    .getDomainInfo = tessary::apxhttps::GetDomainInfo,
    .createMachineAccount = tessary::apxhttps::CreateMachineAccount,
    .freeString = tessary::apxhttps::FreeString,
};

[[gnu::visibility(
    "default")]] extern const struct APXProxyClientMaintenance APXProxyClientMaintenance;

const struct APXProxyClientMaintenance APXProxyClientMaintenance = {
    .apiVersion = TESAUTH_MAINTENANCE_API_VERSION,
    .describeFailure = tessary::apxhttps::DescribeFailure,
};

} // extern "C"
