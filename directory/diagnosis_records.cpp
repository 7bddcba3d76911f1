#include "diagnosis_records.h"

#include "diagnosis_text.h"
#include "error.h"
#include "preferred_controllers.h"
#include "text.h"

#include <algorithm>

namespace tessary::directory {
namespace {

// Less than makes the Resolver wait long for one server.
constexpr std::chrono::seconds lookupTime{5};
constexpr std::size_t mostControllers = 50; // each takes three sockets an address

struct Service {
    const char* record;
    Severity missing; ///< what it means that there is none
    const char* user; ///< who needs it, with the verb
};

constexpr Service controllerService{"_ldap._tcp.dc._msdcs.", Severity::Failure, "a host finds"};
// This client asks the controllers for tickets; other programs look the ticket service up.
constexpr Service ticketService{"_kerberos._tcp.", Severity::Warning, "kinit and the like find"};

Finding Missing(const Service& service, const std::string& domain, const Error& error) {
    const std::string record = service.record + domain;
    const std::string check = "service record " + record;
    if (error.Code() == Status::NoSuchDomain)
        return {check, service.missing,
                "does not exist: by it, " + std::string(service.user) + " the controllers",
                "check the spelling of " + domain +
                    ", and that the name servers in /etc/resolv.conf are the domain's own"};
    return {check, service.missing, std::string("cannot be looked up: ") + error.what(),
            "let the name servers in /etc/resolv.conf be ones that know " + domain};
}

/// \return the service's hosts, each once
std::vector<std::string> LookUp(Resolver& resolver, const Service& service,
                                const std::string& domain, Findings& findings) {
    std::vector<std::string> hosts;
    try {
        for (ServiceRecord& record : resolver.ServiceRecords(service.record + domain))
            if (std::find(hosts.begin(), hosts.end(), record.host) == hosts.end())
                hosts.push_back(std::move(record.host));
        findings.push_back({"service record " + (service.record + domain), Severity::Ok,
                            "names " + Counted(hosts.size(), "controller") + ": " + Listed(hosts),
                            ""});
    } catch (const Error& error) {
        findings.push_back(Missing(service, domain, error));
    }
    return hosts;
}

void AddPreferred(std::vector<NamedController>& controllers, Findings& findings) {
    try {
        for (const std::string& preferred : PreferredIfVisible()) {
            const auto same =
                std::find_if(controllers.begin(), controllers.end(), [&](const auto& controller) {
                    return EqualNames(controller.host, preferred);
                });
            if (same == controllers.end())
                controllers.push_back({preferred, {}, {false, true}});
            else
                same->origin.preferred = true;
        }
    } catch (const Error& error) { // which stops whatever looks for a controller
        const std::string file = PreferredControllersFile();
        findings.push_back({"preferred controllers", Severity::Failure, error.what(),
                            "mv " + file + " " + file + ".damaged"});
    }
}

} // namespace

DomainRecords ReadDomainRecords(const std::string& domain) {
    DomainRecords result;
    if (domain.empty())
        return result;
    Resolver resolver(Deadline::In(lookupTime));
    std::vector<std::string> hosts = LookUp(resolver, controllerService, domain, result.findings);
    result.found = !hosts.empty();
    LookUp(resolver, ticketService, domain, result.findings);
    if (hosts.size() > mostControllers) {
        hosts.resize(mostControllers);
        result.findings.front().text +=
            "; the first " + std::to_string(mostControllers) + " are looked at";
    }
    for (std::string& host : hosts)
        result.controllers.push_back({std::move(host), {}, {}});
    AddPreferred(result.controllers, result.findings);
    for (NamedController& controller : result.controllers)
        controller.lookup = resolver.LookUp(controller.host);
    return result;
}

} // namespace tessary::directory
