#include "verbs.h"

#include "directory_probe.h"
#include "names.h"
#include "output.h"

namespace ctl {

namespace {

DirectoryProbe ProbeFor(const Arguments& arguments) {
    return DirectoryProbe(std::chrono::seconds(arguments.timeoutSeconds));
}

} // namespace

Answer ListTrustedDomains(const Arguments& arguments) {
    const DirectoryProbe probe = ProbeFor(arguments);
    probe.Await(probe.AskTrustedDomains());
    Answer answer = {"", {{"trustedDomains", Json::array()}, {"live", true}}};
    for (const auto& domain : probe.TrustedDomains()) {
        answer.text +=
            (answer.text.empty() ? "" : "\n") + OneLine(domain.dnsName + "  " + domain.netbiosName);
        answer.json["trustedDomains"].push_back(
            {{"dnsName", domain.dnsName}, {"netbiosName", domain.netbiosName}});
    }
    return answer;
}

Answer ShowTrust(const Arguments& arguments) {
    const DirectoryProbe probe = ProbeFor(arguments);
    probe.Await(probe.AskTrustRelationship(arguments.domain));
    const TrustRelationship relationship = probe.RelationshipTo(arguments.domain);
    const std::string name = NameOf(relationship);
    return {name,
            {{"domain", arguments.domain},
             {"relationship", {{"value", static_cast<uint32_t>(relationship)}, {"name", name}}},
             {"live", true}}};
}

Answer FindDomainController(const Arguments& arguments) {
    const DirectoryProbe probe = ProbeFor(arguments);
    const auto name = std::make_shared<std::string>();
    probe.Await(probe.AskDomainController(arguments.domain, name));
    return {OneLine(*name),
            {{"domain", arguments.domain}, {"domainController", *name}, {"live", true}}};
}

Answer ShowUser(const Arguments& arguments) {
    const DirectoryProbe probe = ProbeFor(arguments);
    const auto name = std::make_shared<std::string>();
    probe.Await(probe.AskCanonicalName(arguments.name, name));
    return {OneLine(*name), {{"user", arguments.name}, {"canonicalName", *name}, {"live", true}}};
}

Answer ShowPrincipal(const Arguments& arguments) {
    const DirectoryProbe probe = ProbeFor(arguments);
    const auto principal = std::make_shared<std::string>();
    probe.Await(probe.AskHostPrincipal(arguments.domain, principal));
    return {OneLine(*principal),
            {{"domain", arguments.domain}, {"principal", *principal}, {"live", true}}};
}

} // namespace ctl
