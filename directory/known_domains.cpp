#include "known_domains.h"

#include "text.h"

#include <algorithm>
#include <utility>

namespace tessary::directory {
namespace {

constexpr long trustsWithinForest = 0x20; // a bit of trustAttributes

Relationship RelationshipOf(const LdapEntry& trust) {
    const long direction = trust.Number("trustDirection").value_or(0);
    if (direction != 0 && (trust.Number("trustAttributes").value_or(0) & trustsWithinForest))
        return Relationship::WithinForest;
    switch (direction) {
    case 1:
        return Relationship::Inbound;
    case 2:
        return Relationship::Outbound;
    case 3:
        return Relationship::TwoWay;
    default:
        return Relationship::None;
    }
}

} // namespace

std::string WithoutFinalDot(const std::string& domain) {
    return domain.ends_with('.') ? domain.substr(0, domain.size() - 1) : domain;
}

KnownDomains KnownDomains::Read(Session& session) {
    const Controller& where = session.Where();
    LdapConnection& ldap = session.Ldap();
    const PendingSearch trusts = ldap.StartSearch("CN=System," + where.baseDn, LDAP_SCOPE_ONELEVEL,
                                                  "(objectClass=trustedDomain)",
                                                  {"trustPartner", "flatName", "trustDirection",
                                                   "trustAttributes", "msDS-TrustForestTrustInfo"});
    // The partitions' container itself holds the suffixes; a domain's partition has a NetBIOS name.
    const PendingSearch partitions =
        ldap.StartSearch("CN=Partitions," + where.configurationDn, LDAP_SCOPE_SUBTREE,
                         "(|(objectClass=crossRefContainer)(nETBIOSName=*))",
                         {"nCName", "dnsRoot", "nETBIOSName", "uPNSuffixes"});
    KnownDomains known;
    known.AddTrusts(ldap.FinishSearch(trusts, session.End()));
    known.AddForest(ldap.FinishSearch(partitions, session.End()), where.baseDn);
    return known;
}

void KnownDomains::AddTrusts(const std::vector<LdapEntry>& trusts) {
    for (const LdapEntry& trust : trusts) {
        KnownDomain& domain = domains_.emplace_back();
        domain.dnsName = trust.Value("trustPartner");
        domain.netbiosName = trust.Value("flatName");
        domain.relationship = RelationshipOf(trust);
        domain.hasTrustObject = true;
        domain.forest = ForestTrustInfo::Parse(trust.Value("msDS-TrustForestTrustInfo"));
    }
    const std::size_t trusted = domains_.size();
    for (std::size_t i = 0; i < trusted; ++i) {
        const Relationship relationship = domains_[i].relationship;
        const auto others = domains_[i].forest.domains; // the vector grows
        for (const ForestTrustInfo::Domain& other : others)
            if (!Find(other.dnsName))
                domains_.push_back({other.dnsName, other.netbiosName, relationship, false, {}});
    }
}

void KnownDomains::AddForest(const std::vector<LdapEntry>& partitions,
                             const std::string& joinedBaseDn) {
    for (const LdapEntry& partition : partitions) {
        for (const std::string& suffix : partition.Values("uPNSuffixes"))
            ownSuffixes_.push_back(suffix);
        const std::string& dnsName = partition.Value("dnsRoot");
        if (dnsName.empty() || EqualNames(partition.Value("nCName"), joinedBaseDn) || Find(dnsName))
            continue;
        domains_.push_back(
            {dnsName, partition.Value("nETBIOSName"), Relationship::WithinForest, false, {}});
    }
}

const KnownDomain* KnownDomains::Find(const std::string& name) const {
    const auto found = std::find_if(domains_.begin(), domains_.end(), [&](const KnownDomain& each) {
        return EqualNames(each.dnsName, name) || EqualNames(each.netbiosName, name);
    });
    return found == domains_.end() ? nullptr : &*found;
}

const KnownDomain* KnownDomains::OwnerOfSuffix(const std::string& suffix) const {
    const KnownDomain* owner = nullptr;
    std::size_t best = 0;
    for (const KnownDomain& domain : domains_)
        if (const std::size_t fit = domain.forest.Fit(suffix); fit > best) {
            owner = &domain;
            best = fit;
        }
    return owner;
}

bool KnownDomains::IsOwnSuffix(const std::string& suffix) const {
    return std::any_of(ownSuffixes_.begin(), ownSuffixes_.end(),
                       [&](const std::string& each) { return EqualNames(each, suffix); });
}

} // namespace tessary::directory
