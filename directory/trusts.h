/// What the joined domain trusts, and whether it trusts this host.
#ifndef TESSARY_DIRECTORY_TRUSTS_H
#define TESSARY_DIRECTORY_TRUSTS_H

#include "known_domains.h"

#include <string>
#include <vector>

namespace tessary::directory {

/// A domain that the joined one has a trust with.
struct TrustedDomain {
    std::string dnsName;
    std::string netbiosName;
};

/// The domains that the joined domain has a trust with, in the directory's order.
/// \throws Error FileNotFound when the host is not joined; MachineKeyRejected, NoMachineAccount,
///         AccountDisabled, ClockSkew and the statuses of LocateController()
std::vector<TrustedDomain> TrustedDomains();

/// Whether the joined domain accepts this host's own key.
enum class MachineTrust {
    Good,
    KeyRejected,
    AccountMissing,
    AccountDisabled,
    ClockSkew,
    NotJoined,
    NoController, ///< none answers, or none in time
    Unknown
};

/// Tries this host's own key. Throws only for what is wrong with the host itself.
MachineTrust TestMachineTrust();

/// How the joined domain trusts another one, named by its DNS or its NetBIOS name. A domain that
/// belongs to a forest that there is a trust with has the same relationship as that forest.
/// \return Unknown when the host is not joined
/// \throws Error as TrustedDomains()
Relationship RelationshipWith(const std::string& domain);

/// The DNS name of a controller that answers.
/// \param first  a controller to ask before the others, or empty
/// \param domain any domain's DNS name, or the NetBIOS name of the joined domain or of one that it
///               has a trust with; the latter is looked up in the directory
/// \throws Error InvalidDomainName and the statuses of LocateController(); for a NetBIOS name also
///         as TrustedDomains()
std::string AnyController(const std::string& first, const std::string& domain);

} // namespace tessary::directory

#endif
