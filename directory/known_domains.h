/// The domains that the joined domain knows of.
#ifndef TESSARY_DIRECTORY_KNOWN_DOMAINS_H
#define TESSARY_DIRECTORY_KNOWN_DOMAINS_H

#include "forest_trust_info.h"
#include "session.h"

#include <string>
#include <vector>

namespace tessary::directory {

enum class Relationship { Inbound, Outbound, TwoWay, WithinForest, JoinedDomain, Unknown, None };

/// Another domain than the joined one.
struct KnownDomain {
    std::string dnsName;
    std::string netbiosName;
    Relationship relationship; ///< None for a trust that is turned off
    bool hasTrustObject;    ///< the joined domain has a trust with it, not only by way of another
    ForestTrustInfo forest; ///< of the forest that a trust is with

    /// Whether users and hosts of the joined domain can log in there.
    bool LetsUsIn() const {
        return relationship == Relationship::Inbound || relationship == Relationship::TwoWay ||
               relationship == Relationship::WithinForest;
    }
};

/// A domain's name as it is compared with others.
std::string WithoutFinalDot(const std::string& domain);

/// The joined domain's trusts, the other domains of its forest, and those of the forests that it
/// has a trust with.
class KnownDomains {
public:
    /// \param session at a controller of the joined domain
    static KnownDomains Read(Session& session);

    /// Those with a trust object first, in the directory's order.
    const std::vector<KnownDomain>& All() const { return domains_; }

    /// \param name a DNS or NetBIOS name
    /// \return null when there is none
    const KnownDomain* Find(const std::string& name) const;

    /// The root of the forest that a user principal name's suffix belongs to by the names that the
    /// forest claims.
    /// \return null when there is none
    const KnownDomain* OwnerOfSuffix(const std::string& suffix) const;

    /// Whether the joined domain's own forest has declared such a suffix for its users.
    bool IsOwnSuffix(const std::string& suffix) const;

private:
    void AddTrusts(const std::vector<LdapEntry>& trusts);
    void AddForest(const std::vector<LdapEntry>& partitions, const std::string& joinedBaseDn);

    std::vector<KnownDomain> domains_;
    std::vector<std::string> ownSuffixes_;
};

} // namespace tessary::directory

#endif
