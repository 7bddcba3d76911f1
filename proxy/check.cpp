#include "start.h"

#include <unistd.h>

#include <functional>

#include "keytab_check.h"

namespace tessary::proxy {
namespace {

void Describe(const Identity& identity, CheckResult& result) {
    const int days = identity.DaysLeft();
    result.facts.push_back("thumbprint " + identity.Thumbprint());
    result.facts.push_back("the certificate expires in " + std::to_string(days) + " days" +
                           (days < Identity::fewDays ? ": time for another" : ""));
}

void CheckParts(const std::string& file, const Configuration& configuration, CheckResult& result) {
    const auto check = [&](const std::function<void()>& part) {
        try {
            part();
        } catch (const std::exception& fault) {
            result.faults.push_back(file + ": " + fault.what());
        }
    };
    check([&] { AllowConnections(configuration.server.front.connections); });
    const AccountSettings& accounts = configuration.accounts;
    check([&] { CheckKeytab(accounts.keytab, accounts.account, accounts.domain); });
    const std::string& state = configuration.accounts.stateDirectory;
    if (IsMissing(state)) {
        result.facts.push_back(state + " is made at the first start");
        if (geteuid() == 0)
            result.facts.push_back("root looked; whether the proxy's user may read the same files "
                                   "is not known before the first start");
    } else {
        check([&] { PrepareStateDirectory(state); });
    }
    const std::string& certificate = configuration.certificate;
    if (MakesIdentity(configuration))
        result.facts.push_back(certificate + " is made at the first start");
    else
        check([&] { Describe(ReadIdentity(certificate, configuration.privateKey), result); });
    for (const std::string& warning : Warnings(configuration))
        result.facts.push_back(warning);
}

} // namespace

CheckResult CheckConfiguration(const std::string& file) {
    CheckResult result;
    try {
        const Configuration configuration = ReadConfiguration(file);
        BecomeOwnerOf(configuration.accounts.stateDirectory);
        CheckParts(file, configuration, result);
    } catch (const ConfigurationError& error) {
        result.faults = error.Faults();
    } catch (const std::exception& fault) {
        result.faults.push_back(file + ": " + fault.what());
    }
    return result;
}

} // namespace tessary::proxy
