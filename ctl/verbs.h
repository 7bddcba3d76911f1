/// What the command can do. Each verb either answers or throws.
#ifndef TESAUTHCTL_VERBS_H
#define TESAUTHCTL_VERBS_H

#include <string>
#include <vector>

#include "answer.h"
#include "file_arguments.h"
#include "password.h"

namespace ctl {

/// Everything that a command line can say; a verb looks at what concerns it.
struct Arguments {
    bool json = false;
    int timeoutSeconds = 10;
    int diagnosisSeconds = 30;      ///< as above, for a diagnosis
    int olderThanDays = 0;          ///< of a key: the least age at which it is changed
    std::string name;               ///< of a store or an option, or a user's to be looked up
    std::vector<std::string> names; ///< of domain controllers or services
    std::string value;              ///< of an option
    std::string domain;             ///< for a join with "/" and the organisational unit
    std::string user;               ///< who does it; empty when the host itself does
    std::string proxy;              ///< address of the authentication proxy that does it
    std::string organizationalUnit; ///< for a join through a proxy
    PasswordSource password;
    bool skipHostnameCheck = false;
    FileArguments file;
};

Answer ListStores(const Arguments& arguments);
Answer ShowStore(const Arguments& arguments);
Answer ActivateStore(const Arguments& arguments);

Answer Join(const Arguments& arguments);
Answer Leave(const Arguments& arguments);
Answer RotateKey(const Arguments& arguments);

Answer ShowStatus(const Arguments& arguments);
Answer Diagnose(const Arguments& arguments);

Answer ListTrustedDomains(const Arguments& arguments);
Answer ShowTrust(const Arguments& arguments);
Answer FindDomainController(const Arguments& arguments);
Answer ShowUser(const Arguments& arguments);
Answer ShowPrincipal(const Arguments& arguments);

Answer GetDomainControllers(const Arguments& arguments);
Answer SetDomainControllers(const Arguments& arguments);
Answer GetSmartCardServices(const Arguments& arguments);
Answer SetSmartCardServices(const Arguments& arguments);

Answer ShowProxyDomain(const Arguments& arguments);
Answer ImportCertificate(const Arguments& arguments);
Answer ShowCertificate(const Arguments& arguments);

Answer GetOption(const Arguments& arguments);
Answer SetOption(const Arguments& arguments);

Answer ShowPolicy(const Arguments& arguments);
Answer FindEntry(const Arguments& arguments);
Answer AddEntry(const Arguments& arguments);
Answer RemoveEntry(const Arguments& arguments);

Answer ShowSwitch(const Arguments& arguments);
Answer AddService(const Arguments& arguments);
Answer RemoveService(const Arguments& arguments);

Answer Restore(const Arguments& arguments);

} // namespace ctl

#endif
