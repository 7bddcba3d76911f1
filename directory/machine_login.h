/// Logging in with the host's own key.
#ifndef TESSARY_DIRECTORY_MACHINE_LOGIN_H
#define TESSARY_DIRECTORY_MACHINE_LOGIN_H

#include "domain_state.h"
#include "kerberos.h"
#include "locator.h"

#include <string>
#include <vector>

namespace tessary::directory {

/// Gets an initial ticket with the machine account's own key.
/// \param keytab  such as "FILE:/etc/krb5.keytab"
/// \param service as KerberosSession::LogInWithKeytab() takes it
/// \throws Error MachineKeyRejected or NoMachineAccount where a user would get WrongPassword or
///         NoSuchUser
void LogInAsMachine(KerberosSession& kerberos, const std::string& account,
                    const std::string& keytab, const char* service = nullptr);

/// The same with keys that were read before. What is to go by them does not use the file, which may
/// have newer ones by now.
void LogInWithKeys(KerberosSession& kerberos, const DomainState& state,
                   const std::vector<AccountKey>& keys);

/// The same with the host's keytab. Where the controller does not accept the account's key, the
/// newer ones are tried that a change of keys has left there (see KeyChange); one that is right
/// becomes that of the account and its services, under the version that the domain has given it.
/// Last comes the account's former key: a controller may not have heard of the latest one.
/// \param held the membershipLock, if the caller has it; else null
void LogInAsHost(KerberosSession& kerberos, const DomainState& state,
                 const StateLock* held = nullptr);

/// Whether the domain accepts keys as the account's.
/// \throws Error as LogInAsMachine(), but for MachineKeyRejected
bool AreAccepted(const Controller& controller, const DomainState& state,
                 const std::vector<AccountKey>& keys, const Deadline& deadline);

} // namespace tessary::directory

#endif
