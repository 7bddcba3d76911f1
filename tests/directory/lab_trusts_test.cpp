// What a host says of domains and users on both sides of trusts, beside what the controllers' own
// tools say.

#include "lab_places.h"

#include <algorithm>
#include <map>
#include <string>
#include <vector>

namespace {

using namespace lab;
using testing::Contains;
using testing::UnorderedElementsAreArray;

class LabTrusts : public PlacesTest {
protected:
    /// Whether the host may log in to another domain, by the direction of the trust.
    static bool LetsIn(const std::string& direction) {
        return direction == "BOTH" || direction == "INCOMING";
    }

    /// A user in every form; the plug-in's answers have to be `expected`.
    void ExpectAllForms(const Place& place, const std::string& user,
                        const std::string& expected) const {
        std::string upper = user;
        std::transform(upper.begin(), upper.end(), upper.begin(), ::toupper);
        for (const std::string& name :
             {place.Netbios() + "\\" + user, place.Domain() + "\\" + upper,
              user + "@" + place.Domain(), upper + "@" + place.Netbios(),
              place.Domain() + "/Users/" + user, place.Domain() + "/users/" + upper,
              place.AttributeOf(user, "distinguishedName")})
            EXPECT_EQ(plugin_.User(name), expected) << name;
    }
};

TEST_P(LabTrusts, DomainsAndDirectionsAreThoseThatTheControllerLists) {
    const std::map<std::string, TrustRelationship> meanings{{"BOTH", TrustRelationshipTwoWay},
                                                            {"OUTGOING", TrustRelationshipOutbound},
                                                            {"INCOMING", TrustRelationshipInbound}};
    const auto relationship = [&](const std::string& domain) {
        return plugin_.Operations().getDomainTrustRelationship(domain.c_str());
    };
    const auto& trusts = home_->Trusts();
    std::vector<std::string> expected;
    for (const Place* place : places) {
        const auto trust = trusts.find(place->Domain());
        const std::string netbios = place->Ask({"wbinfo", "--own-domain"}).at(0);
        if (trust != trusts.end())
            expected.push_back(place->Domain() + " " + netbios);
        const TrustRelationship meaning = place == home_          ? TrustRelationshipJoinedDomain
                                          : trust == trusts.end() ? TrustRelationshipNone
                                                                  : meanings.at(trust->second);
        for (const std::string& name : {place->Domain(), netbios, place->Domain() + "."})
            EXPECT_EQ(relationship(name), meaning) << name;
    }
    EXPECT_EQ(expected.size(), trusts.size());
    EXPECT_THAT(plugin_.Trusted(), UnorderedElementsAreArray(expected));
    for (const char* name : {"nosuch.example", "NOSUCH", "example", "no name", "*"})
        EXPECT_EQ(relationship(name), TrustRelationshipNone) << name;
}

TEST_P(LabTrusts, ControllersAreThoseThatTheControllerFinds) {
    for (const Place* place : places) {
        std::string found = home_->Ask({"wbinfo", "--dsgetdcname", place->Domain()}).at(0);
        ASSERT_EQ(found.substr(0, 2), "\\\\");
        found.erase(0, 2);
        EXPECT_EQ(plugin_.Controller(nullptr, place->Domain()), found);
        const bool known = place == home_ || home_->Trusts().count(place->Domain());
        EXPECT_EQ(plugin_.Controller(nullptr, place->Netbios()), known ? found : noSuchDomain);
    }
    EXPECT_EQ(plugin_.Controller(nullptr, "NOSUCH"), noSuchDomain);
}

TEST_P(LabTrusts, DomainsThatTheControllerReachesHaveAController) {
    const std::string online = " : active connection";
    std::vector<std::string> reached;
    for (const std::string& line : home_->Ask({"wbinfo", "--online-status"}))
        if (line.ends_with(online) && line.rfind("BUILTIN", 0) != 0)
            reached.push_back(line.substr(0, line.size() - online.size()));
    std::vector<std::string> members = home_->Ask({"wbinfo", "--trusted-domains"});
    members.erase(std::remove(members.begin(), members.end(), "BUILTIN"), members.end());
    EXPECT_THAT(reached, UnorderedElementsAreArray(members));
    EXPECT_THAT(reached, Contains(home_->Netbios()));
    for (const std::string& netbios : reached)
        EXPECT_EQ(plugin_.Controller(nullptr, netbios).rfind("dc", 0), 0u) << netbios;
}

TEST_P(LabTrusts, UsersHaveOneNameInEveryForm) {
    struct {
        const Place& place;
        const char* user;
    } const users[] = {{corp, "alice"}, {other, "alice"}, {other, "bob"},
                       {third, "carl"}, {third, "alice"}, {corp, "bea"}};
    const auto& trusts = home_->Trusts();
    for (const auto& [place, user] : users) {
        SCOPED_TRACE(place.Domain() + " " + user);
        const auto trust = trusts.find(place.Domain());
        if (&place != home_ && trust == trusts.end())
            ExpectAllForms(place, user, noSuchDomain);
        else if (&place != home_ && !LetsIn(trust->second))
            ExpectAllForms(place, user, accessDenied);
        else
            ExpectAllForms(place, user, Canonical(place, user));
    }
    ExpectUser(*home_, "alice", {"alice", "ALICE"});
    EXPECT_EQ(plugin_.User("nobody"), noSuchUser);
}

TEST_P(LabTrusts, HostHasOnePrincipalForAllItsDomains) {
    const std::string principal = plugin_.HostPrincipal(home_->Domain());
    const lab::Result keys = lab::Run({"klist", "-k", "/etc/krb5.keytab"});
    EXPECT_THAT(keys.out, testing::HasSubstr(" " + principal + "\n"));
    EXPECT_EQ(principal.rfind("host/host1.", 0), 0u) << principal;

    const auto& trusts = home_->Trusts();
    for (const Place* place : places) {
        const bool known = place == home_ || trusts.count(place->Domain());
        for (const std::string& name : {place->Domain(), place->Netbios(), place->Domain() + "."})
            EXPECT_EQ(plugin_.HostPrincipal(name), known ? principal : noSuchDomain) << name;
    }
    for (const char* name : {"nosuch.example", "", ".", "no name", "*"})
        EXPECT_EQ(plugin_.HostPrincipal(name), noSuchDomain) << name;
}

INSTANTIATE_TEST_SUITE_P(From, LabTrusts, testing::ValuesIn(places), ControllerOf);

TEST(LabHostThatIsNotJoined, KnowsNoUsers) {
    const Plugin plugin;
    EXPECT_EQ(plugin.User("alice"), "status 2");
    EXPECT_EQ(plugin.User("alice@corp.example"), "status 2");
    EXPECT_EQ(plugin.HostPrincipal("corp.example"), "status 2");
    EXPECT_EQ(plugin.Controller(nullptr, "LAB"), noSuchDomain);
    EXPECT_EQ(plugin.Controller(nullptr, "lab.example"), "dc2.lab.example");
}

} // namespace
