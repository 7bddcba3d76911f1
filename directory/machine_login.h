/// Logging in with the host's own key.
#ifndef TESSARY_DIRECTORY_MACHINE_LOGIN_H
#define TESSARY_DIRECTORY_MACHINE_LOGIN_H

#include "domain_state.h"
#include "kerberos.h"

#include <string>

namespace tessary::directory {

/// Gets an initial ticket with the machine account's own key.
/// \param keytab such as "FILE:/etc/krb5.keytab"
/// \throws Error MachineKeyRejected or NoMachineAccount where a user would get WrongPassword or
///         NoSuchUser
void LogInAsMachine(KerberosSession& kerberos, const std::string& account,
                    const std::string& keytab);

/// The same with the host's keytab. Where the domain does not accept the account's key and the
/// keytab has a newer one that a change of keys has left there (see KeyChange), that one is tried;
/// if it is the right one, it becomes the account's.
void LogInAsHost(KerberosSession& kerberos, const DomainState& state);

} // namespace tessary::directory

#endif
