// Users' names on a host of a domain that has trusts: how they are compared, and which are none.

#include "directory/error.h"
#include "directory/session.h"
#include "lab_places.h"

#include <string>
#include <vector>

namespace {

using namespace lab;
using namespace tessary::directory;

/// On a host of the first domain unless the test joins another one.
class LabUsers : public PlacesTest {
protected:
    static Session AdminSession() {
        const Deadline end = Deadline::In(queryTime);
        return Session(LocateController(corp.Domain(), {}, end), {corp.Admin(), corp.Domain()},
                       corp.Password().c_str(), end);
    }

    /// Makes a user and forgets it at the end of the test.
    void Make(const std::string& user, const std::string& principal = "") {
        corp.Ask({"samba-tool", "user", "create", user, Setting("USER_PASSWORD")});
        made_.push_back(user);
        if (principal.empty())
            return;
        // samba-tool gives nobody a suffix of another forest.
        Session session = AdminSession();
        session.Ldap().Modify("CN=" + user + ",CN=Users," + session.Where().baseDn,
                              {{LDAP_MOD_REPLACE, "userPrincipalName", {principal}}},
                              session.End());
    }

    void TearDown() override {
        for (const std::string& user : made_)
            corp.Ask({"samba-tool", "user", "delete", user});
        PlacesTest::TearDown();
    }

private:
    std::vector<std::string> made_;
};

TEST_P(LabUsers, OfAnAwkwardPlaceIsFoundByIt) {
    const std::string dn = corp.AttributeOf("eve", "distinguishedName");
    ExpectUser(corp, "eve",
               {dn, "corp.example/People/Ops\\/On call/Smith, Eve (ops)*",
                "CORP.EXAMPLE/people/OPS\\/on CALL/smith, eve (OPS)*", "CORP\\eve"});
    for (const char* name :
         {"corp.example/People/Ops/On call/Smith, Eve (ops)*",
          "corp.example/People/Smith, Eve (ops)*", "corp.example/People/Ops\\/On call/Smith, Eve*",
          "corp.example/People/*/Smith, Eve (ops)*", "corp.example/Smith, Eve (ops)*",
          "corp.example/People/Ops\\/On call", "CN=Smith\\, Eve*,OU=People,DC=corp,DC=example"})
        EXPECT_EQ(plugin_.User(name), noSuchUser) << name;
}

TEST_P(LabUsers, NameIsNoPattern) {
    for (const char* name :
         {"ali*@corp.example", "*@corp.example", "corp.example/Users/ali*", "corp.example/Users/*",
          "corp.example/*/alice", "CN=ali*,CN=Users,DC=corp,DC=example",
          "CN=\\2a,CN=Users,DC=corp,DC=example", "alice)(objectClass=*@corp.example",
          "x)(|(sAMAccountName=alice)@corp.example", "corp.example/Users/x)(cn=alice",
          "ali\\2a@corp.example", "alice\\00@corp.example", "al&ce@corp.example"})
        EXPECT_THAT(plugin_.User(name), testing::AnyOf(noSuchUser, invalidName)) << name;
    for (const char* name : {"*", "ali*", "CORP\\*", "CORP\\ali*", "CORP\\a|b"})
        EXPECT_EQ(plugin_.User(name), invalidName) << name;
    for (const std::size_t length : {20u, 21u, 257u, 1025u, 4000u})
        EXPECT_EQ(plugin_.User(std::string(length, 'x')), noSuchUser) << length;
    EXPECT_EQ(plugin_.User(std::string(20000, 'x')), invalidName);
    EXPECT_EQ(plugin_.User(""), invalidName);
}

TEST_P(LabUsers, OnlyPeopleAreUsers) {
    for (const char* name :
         {"HOST1$", "CORP\\HOST1$", "HOST1$@corp.example", "DC1$", "CORP\\LAB$", "LAB$",
          "CORP\\Domain Admins", "Domain Admins@corp.example", "corp.example/Users/Domain Admins",
          "corp.example/Users", "corp.example/Domain Controllers/DC1", "DC=corp,DC=example",
          "CN=Users,DC=corp,DC=example", "CN=HOST1,CN=Computers,DC=corp,DC=example",
          "CN=Nobody,CN=Nowhere,DC=corp,DC=example", "CN=Sites,CN=Configuration,DC=corp,DC=example",
          "nosuchtype=x,DC=corp,DC=example"})
        EXPECT_EQ(plugin_.User(name), noSuchUser) << name;
    for (const char* name : {"NOSUCH\\alice", "alice@nosuch.example", "nosuch.example/Users/alice",
                             "alice@sub.corp.example", "CN=alice,CN=Users,DC=nosuch,DC=example",
                             "CN=alice,CN=Users,DC=DomainDnsZones,DC=corp,DC=example"})
        EXPECT_EQ(plugin_.User(name), noSuchDomain) << name;
}

TEST_P(LabUsers, LettersBeyondAsciiFollowTheDirectorysRules) {
    Make("j\xC3\xBCrgen");
    ExpectUser(corp, "j\xC3\xBCrgen",
               {"j\xC3\xBCrgen", "J\xC3\x9CRGEN", "corp.example/Users/J\xC3\x9Crgen",
                "CN=J\xC3\x9CRGEN,CN=users,DC=corp,DC=example",
                "CN=j\\C3\\BCrgen,CN=users,DC=corp,DC=example", "CORP\\j\xC3\xBCrgen"});
    EXPECT_EQ(plugin_.User("jurgen"), noSuchUser);
    EXPECT_EQ(plugin_.User("j\xFCrgen"), invalidName) << "another encoding";
}

TEST_P(LabUsers, GivenPrincipalNameGoesBeforeAccountsName) {
    Make("una", "bob@lab.example");
    ExpectUser(corp, "una", {"bob@lab.example", "una@corp.example", "una"});
    ExpectUser(other, "bob", {"LAB\\bob", "bob@LAB"});
}

TEST_P(LabUsers, SuffixOfAForestLeadsToIt) {
    const std::string principal = corp.AttributeOf("bea", "userPrincipalName");
    ExpectUser(corp, "bea", {principal, "bea@corp.example"});
    EXPECT_EQ(plugin_.User("nobody@upn.example"), noSuchUser);
    EXPECT_EQ(plugin_.User("bea@upn.example"), noSuchUser) << "that is not her account's name";

    ASSERT_EQ(plugin_.LeaveAs(corp.Admin(), corp.Password()), 0u);
    ASSERT_EQ(Join(other), 0u);
    ExpectUser(corp, "bea", {principal, "Bea.Long@UPN.example", "bea@corp.example"});
    EXPECT_EQ(plugin_.User("nobody@upn.example"), noSuchUser);
    EXPECT_EQ(plugin_.User("bea@upn.example"), noSuchUser);
    EXPECT_EQ(plugin_.User("bea@xupn.example"), noSuchDomain);
}

TEST_P(LabUsers, OfADomainWhoseControllerIsGoneCannotBeAskedFor) {
    lab::Lab({"kill", other.Controller()});
    EXPECT_EQ(plugin_.User("LAB\\bob"), noController);
    EXPECT_EQ(plugin_.User("alice"), "CORP\\alice");
    EXPECT_EQ(plugin_.SetPreferred({Setting("DC2_ADDRESS")}), 0u);
    EXPECT_EQ(plugin_.User("LAB\\bob"), connectionRefused);
    EXPECT_EQ(plugin_.SetPreferred({}), 0u);
    lab::Lab({"start", other.Controller()});
    EXPECT_EQ(plugin_.User("LAB\\bob"), "LAB\\bob");
}

/// Without knowing of the trust's direction: the tickets decide.
TEST_P(LabUsers, DomainThatDoesNotTrustOursLetsNobodyIn) {
    const auto state = DomainState::Load();
    ASSERT_TRUE(state);
    Session home(*state, Deadline::In(queryTime));
    EXPECT_EQ(Session(home, *state, other.Domain()).Where().host, "dc2." + other.Domain());
    const auto expectRefusal = [&](const std::string& domain, Status status, const char* text) {
        try {
            Session(home, *state, domain);
            ADD_FAILURE() << "let in to " << domain;
        } catch (const Error& error) {
            EXPECT_EQ(error.Code(), status);
            EXPECT_THAT(error.what(), testing::HasSubstr(text));
        }
    };
    expectRefusal(third.Domain(), Status::AccessDenied,
                  "THIRD.EXAMPLE does not trust CORP.EXAMPLE");
    expectRefusal("nosuch.example", Status::NoController,
                  "name servers do not know nosuch.example");
}

TEST_P(LabUsers, DomainOfTheSameForestIsKnownByItsPartition) {
    Session admin = AdminSession();
    // The controller wants to see the domain that it is told of; any object will do.
    const std::string partition = "CN=EAST,CN=Partitions," + admin.Where().configurationDn;
    admin.Ldap().Add(partition,
                     {{LDAP_MOD_ADD, "objectClass", {"crossRef"}},
                      {LDAP_MOD_ADD, "nCName", {"OU=Servers,DC=corp,DC=example"}},
                      {LDAP_MOD_ADD, "dnsRoot", {"east.corp.example"}},
                      {LDAP_MOD_ADD, "nETBIOSName", {"EAST"}}},
                     admin.End());
    for (const char* name : {"east.corp.example", "EAST", "east"}) {
        EXPECT_EQ(plugin_.Operations().getDomainTrustRelationship(name),
                  TrustRelationshipWithinForest)
            << name;
        EXPECT_EQ(plugin_.HostPrincipal(name), plugin_.HostPrincipal("CORP")) << name;
    }
    EXPECT_EQ(plugin_.Trusted().size(), corp.Trusts().size()) << "there is no trust object";
    EXPECT_EQ(plugin_.User("EAST\\alice"), noController);
    admin.Ldap().Delete(partition, admin.End());
    EXPECT_EQ(plugin_.User("EAST\\alice"), noSuchDomain);
}

TEST_P(LabUsers, HostThatTheDomainDoesNotKnowHasNoAnswers) {
    corp.Ask({"samba-tool", "user", "setpassword", "HOST1$", "--newpassword=An0ther.one"});
    EXPECT_EQ(plugin_.User("alice"), keyRejected);
    EXPECT_EQ(plugin_.User("LAB\\bob"), keyRejected);
    EXPECT_EQ(plugin_.HostPrincipal("LAB"), keyRejected);
    EXPECT_EQ(plugin_.Controller(nullptr, "LAB"), keyRejected);
    EXPECT_NE(plugin_.HostPrincipal("CORP"), keyRejected) << "that the host knows by itself";
}

INSTANTIATE_TEST_SUITE_P(From, LabUsers, testing::Values(&corp), ControllerOf);

} // namespace
