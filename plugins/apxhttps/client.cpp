#include "client.h"

#include "server_address.h"
#include "status.h"

#include <mutex>
#include <nlohmann/json.hpp>
#include <set>
#include <syslog.h>

namespace tessary::apxhttps {
namespace {

void WarnOnce(const std::string& url) {
    static std::mutex mutex;
    static auto& warned = *new std::set<std::string>; // never destroyed: threads may outlive main()
    const std::lock_guard lock(mutex);
    if (warned.insert(url).second)
        syslog(LOG_WARNING,
               "The certificate of the authentication proxy %s is not verified: whoever answers "
               "is taken for it.",
               url.c_str());
}

Answer Ask(const Proxy& proxy, const char* path, std::optional<std::string> body,
           const Limits& limits) {
    const std::string url = ServerUrl(proxy.address);
    const Request request{url + path, std::move(body)};
    if (!proxy.verifyCertificate) {
        WarnOnce(url);
        return Exchange(request, nullptr, limits);
    }
    CertificateCheck check(proxy.thumbprint, proxy.certificate);
    return Exchange(request, &check, limits);
}

/// \throws Failure with BadRequest if a text is not UTF-8
std::string MachineAccountRequest(const std::string& hostName, const std::string& container) {
    nlohmann::json request = {{"hostName", hostName}};
    if (!container.empty())
        request["container"] = container;
    try {
        return request.dump();
    } catch (const nlohmann::json::type_error&) {
        throw Failure(Status::BadRequest);
    }
}

} // namespace

DomainInfo AskForDomain(const Proxy& proxy, const Limits& limits) {
    return ReadDomainInfo(Ask(proxy, "/v1/domain", std::nullopt, limits));
}

MachineAccount AskForMachineAccount(const Proxy& proxy, const std::string& hostName,
                                    const std::string& container, const Limits& limits) {
    return ReadMachineAccount(
        Ask(proxy, "/v1/machine-accounts", MachineAccountRequest(hostName, container), limits));
}

} // namespace tessary::apxhttps
