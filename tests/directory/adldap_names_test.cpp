// Names that need no directory to be judged.

#include "directory/error.h"
#include "directory/names.h"
#include "directory/secret.h"
#include "directory/sid.h"

#include <gmock/gmock.h>

namespace tessary::directory {
namespace {

using testing::ElementsAre;

template <typename Function>
Status StatusOf(Function function) {
    try {
        function();
        return Status::Success;
    } catch (const Error& error) {
        return error.Code();
    }
}

TEST(DomainName, IsLowerCaseWithoutFinalDot) {
    EXPECT_EQ(NormalizeDomainName("Corp.EXAMPLE."), "corp.example");
    EXPECT_EQ(NormalizeDomainName("CORP"), "corp");
}

TEST(DomainName, MalformedOnesAreRefused) {
    for (const char* name : {"", ".", "a..b", ".corp", "bad domain", "a/b", "-a.b", "a-.b", "a=b"})
        EXPECT_EQ(StatusOf([&] { NormalizeDomainName(name); }), Status::InvalidDomainName) << name;
    EXPECT_EQ(StatusOf([] { NormalizeDomainName(std::string(64, 'a')); }),
              Status::InvalidDomainName);
    EXPECT_EQ(StatusOf([] { NormalizeDomainName(std::string(63, 'a')); }), Status::Success);
}

TEST(UserName, TakesThreeForms) {
    EXPECT_EQ(UserName::Parse("alice").name, "alice");
    EXPECT_EQ(UserName::Parse("alice").domain, "");
    EXPECT_EQ(UserName::Parse("alice@corp.example").name, "alice");
    EXPECT_EQ(UserName::Parse("alice@corp.example").domain, "corp.example");
    EXPECT_EQ(UserName::Parse("CORP\\alice").name, "alice");
    EXPECT_EQ(UserName::Parse("CORP\\alice").domain, "CORP");
}

TEST(UserName, MalformedOnesAreRefused) {
    for (const char* name : {"", "@corp", "alice@", "\\alice", "CORP\\", "A\\b@c", "a/b", "a\nb"})
        EXPECT_EQ(StatusOf([&] { UserName::Parse(name); }), Status::InvalidUserName) << name;
}

TEST(HostName, ShortOneGetsTheDomain) {
    const HostNames names = HostNames::Of("Web1", "corp.example");
    EXPECT_EQ(names.shortName, "web1");
    EXPECT_EQ(names.fullName, "web1.corp.example");
    EXPECT_EQ(names.AccountName(), "WEB1$");
    EXPECT_THAT(names.ServicePrincipals(),
                ElementsAre("HOST/web1", "HOST/web1.corp.example", "RestrictedKrbHost/web1",
                            "RestrictedKrbHost/web1.corp.example"));
}

TEST(HostName, FullOneKeepsItsDomain) {
    const HostNames names = HostNames::Of("web1.dmz.example", "corp.example");
    EXPECT_EQ(names.shortName, "web1");
    EXPECT_EQ(names.fullName, "web1.dmz.example");
}

TEST(HostName, AccountHasAtMostFifteenCharacters) {
    EXPECT_EQ(HostNames::Of("abcdefghijklmno", "c.d").account, "ABCDEFGHIJKLMNO");
    const std::string one = HostNames::Of("hypervisor-rack1-node1", "c.d").account;
    const std::string two = HostNames::Of("hypervisor-rack1-node2", "c.d").account;
    EXPECT_EQ(one.size(), 15u);
    EXPECT_EQ(one.substr(0, 11), "HYPERVISOR-");
    EXPECT_NE(one, two) << "long names with one beginning must not share an account";
    EXPECT_EQ(one, HostNames::Of("HYPERVISOR-rack1-node1", "x.y").account)
        << "the account is the same whenever the host joins";
}

TEST(HostName, UnusableOnesAreRefused) {
    for (const char* name : {"", "(none)", "localhost", "localhost.localdomain", "a_b", "a b"})
        EXPECT_EQ(StatusOf([&] { HostNames::Of(name, "c.d"); }), Status::InvalidComputerName)
            << name;
}

TEST(OrganizationalUnit, PathIsReadFromTheTop) {
    EXPECT_EQ(OrganizationalUnitDn("Servers", "DC=c,DC=d"), "OU=Servers,DC=c,DC=d");
    EXPECT_EQ(OrganizationalUnitDn("Servers/Hosts", "DC=c,DC=d"), "OU=Hosts,OU=Servers,DC=c,DC=d");
}

TEST(OrganizationalUnit, SignsInAPathAreEscaped) {
    EXPECT_EQ(OrganizationalUnitDn("R&D, East+West", "DC=c"), "OU=R&D\\, East\\+West,DC=c");
    EXPECT_EQ(EscapeDnValue("#a "), "\\#a\\ ");
}

TEST(OrganizationalUnit, DistinguishedNameMayLeaveOutTheDomain) {
    EXPECT_EQ(OrganizationalUnitDn("OU=Hosts,OU=Servers", "DC=c,DC=d"),
              "OU=Hosts,OU=Servers,DC=c,DC=d");
    EXPECT_EQ(OrganizationalUnitDn("ou=Hosts, dc=C, dc=D", "DC=c,DC=d"), "ou=Hosts,dc=C,dc=D");
}

TEST(OrganizationalUnit, MalformedOnesAreRefused) {
    for (const char* unit : {"/", "/Servers", "Servers//Hosts", "=x,", "OU=a,,DC=c"})
        EXPECT_EQ(StatusOf([&] { OrganizationalUnitDn(unit, "DC=c,DC=d"); }),
                  Status::NoSuchContainer)
            << unit;
}

TEST(MachinePassword, IsLongMixedAndNeverTheSame) {
    const Secret one = MakeMachinePassword();
    const Secret two = MakeMachinePassword();
    EXPECT_GE(one.Size(), 32u);
    EXPECT_NE(one.View(), two.View());
    EXPECT_THAT(std::string(one.View()), testing::ContainsRegex("[A-Z]"));
    EXPECT_THAT(std::string(one.View()), testing::ContainsRegex("[a-z]"));
    EXPECT_THAT(std::string(one.View()), testing::ContainsRegex("[0-9]"));
}

TEST(MachinePassword, IsEncodedQuotedInTwoBytesACharacter) {
    Secret password(2);
    password.Data()[0] = 'a';
    password.Data()[1] = '1';
    EXPECT_EQ(EncodeUnicodePassword(password.View()).View(),
              std::string_view("\"\0a\0001\0\"\0", 8));
}

TEST(Sid, IsWrittenAsText) {
    const std::string bytes("\1\2\0\0\0\0\0\5\x20\0\0\0\x1f\2\0\0", 16);
    EXPECT_EQ(SidText(bytes), "S-1-5-32-543");
    EXPECT_EQ(SidText(bytes.substr(0, 15)), "");
    EXPECT_EQ(SidText(""), "");
}

} // namespace
} // namespace tessary::directory
