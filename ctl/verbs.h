/// What the command can do. Each verb either answers or throws.
#ifndef TESAUTHCTL_VERBS_H
#define TESAUTHCTL_VERBS_H

#include <string>

#include "answer.h"
#include "password.h"

namespace ctl {

/// Everything that a command line can say; a verb looks at what concerns it.
struct Arguments {
    bool json = false;
    int timeoutSeconds = 10;
    std::string name;   ///< of a store or an option
    std::string value;  ///< of an option
    std::string domain; ///< for a join with "/" and the organisational unit
    std::string user;
    PasswordSource password;
    bool skipHostnameCheck = false;
};

Answer ListStores(const Arguments& arguments);
Answer ShowStore(const Arguments& arguments);
Answer ActivateStore(const Arguments& arguments);

Answer Join(const Arguments& arguments);
Answer Leave(const Arguments& arguments);

Answer ShowStatus(const Arguments& arguments);

Answer ListTrustedDomains(const Arguments& arguments);
Answer ShowTrust(const Arguments& arguments);
Answer FindDomainController(const Arguments& arguments);

Answer GetOption(const Arguments& arguments);
Answer SetOption(const Arguments& arguments);

} // namespace ctl

#endif
