/// What a proxy's answers say.
#ifndef TESAUTH_APXHTTPS_ANSWERS_H
#define TESAUTH_APXHTTPS_ANSWERS_H

#include "exchange.h"
#include "secret_string.h"

namespace tessary::apxhttps {

struct DomainInfo {
    SecretString netbiosName;
    SecretString dnsName;
    SecretString sid;
};

struct MachineAccount {
    SecretString name;
    SecretString password;
};

// No text that they return is empty or has a NUL in it. They throw Failure with the refusal's
// status if the answer is one, or with InternalError if it is none that a proxy gives; and
// std::bad_alloc.

DomainInfo ReadDomainInfo(const Answer& answer);
MachineAccount ReadMachineAccount(const Answer& answer);

} // namespace tessary::apxhttps

#endif
