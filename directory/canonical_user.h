/// One name for a user, however it was written.
#ifndef TESSARY_DIRECTORY_CANONICAL_USER_H
#define TESSARY_DIRECTORY_CANONICAL_USER_H

#include <string>

namespace tessary::directory {

/// The user's canonical name: "CORP\alice", as the directory spells both parts. Asks the user's own
/// domain, also across a trust.
///
/// A user principal name is looked for among those that the joined domain has given to its users;
/// then in the domain that its suffix names, or in the root of the forest that the suffix belongs
/// to, by the same attribute and, in a domain that is named, by the account's name.
/// \param name "alice" (of the joined domain), "CORP\alice" or "corp.example\alice",
///             "alice@corp.example" or another user principal name, "corp.example/Users/alice"
///             with a backslash before a "/" that is part of a name, or a distinguished name
/// \throws Error FileNotFound when the host is not joined; InvalidUserName when the name is
///         malformed; NoSuchUser when the domain has no such user; NoSuchDomain when the joined
///         domain has no trust with the user's; AccessDenied when that domain does not let hosts of
///         ours ask; MachineKeyRejected, NoMachineAccount, AccountDisabled, ClockSkew and the
///         statuses of LocateController()
std::string CanonicalUserName(const std::string& name);

/// The host's own service principal, as users of a domain ask for it. It is always that of the
/// joined domain, such as "host/web1.corp.example@CORP.EXAMPLE".
/// \param domain DNS or NetBIOS name of the joined domain or of one that it has a trust with
/// \throws Error as above; NoSuchDomain for any other domain
std::string HostPrincipalFor(const std::string& domain);

} // namespace tessary::directory

#endif
