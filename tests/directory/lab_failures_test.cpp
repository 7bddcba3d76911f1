// Every way in which a join can fail, made for real, and how it is told.

#include "lab_commands.h"

#include <map>
#include <set>
#include <string>

#include <gmock/gmock.h>

namespace {

using lab::Result;
using lab::Setting;
using lab::WithClock;
using lab::Words;
using testing::IsEmpty;

/// A kind of failure: what comes out of the library, and what a person is to do about it.
struct Kind {
    unsigned long code;
    const char* className;
    const char* text;
    const char* hint;
};

const Kind wrongPassword{86, "InvalidPasswordException",
                         "The specified network password is not correct.",
                         "the user name is known, the password is wrong: try again"};
const Kind unknownUser{1317, "NoSuchUserException", "The specified account does not exist.",
                       "check the user name, and that it is a user of this domain"};
const Kind malformedUser{1315, "InvalidAccountNameException",
                         "The name provided is not a properly formed account name.",
                         "write the user name as NAME or NAME@DOMAIN"};
const Kind passwordExpired{1330, "PasswordExpiredException",
                           "Logon failure: the specified account password has expired.",
                           "change the user's password first, then try again"};
const Kind userBarred{1331, "AccountDisabledException",
                      "Logon failure: account currently disabled.",
                      "the user is disabled, locked or expired; name another one or have it "
                      "enabled"};
const Kind clockOff{1398, "TimeSkewException",
                    "There is a time and/or date difference between the client and server.",
                    "set this host's clock, for instance from the domain controllers' time "
                    "service; they accept five minutes of difference"};
const Kind noRights{5, "AccessDeniedException", "Access is denied.",
                    "the account lacks the right to do this in the directory; name an account "
                    "that has it, or an organisational unit in which it has it (DOMAIN/UNIT)"};
const Kind noSuchUnit{267, "DirectoryException", "The directory name is invalid.",
                      "check the organisational unit; levels are written from the top: "
                      "DOMAIN/SERVERS/HOSTS"};
const Kind noSuchDomain{1355, "NoSuchDomainException",
                        "The specified domain either does not exist or could not be contacted.",
                        "check the name, and that the name servers in /etc/resolv.conf know the "
                        "domain"};
const Kind malformedDomain{1212, "InvalidDomainNameException",
                           "The format of the specified domain name is invalid.",
                           "write the domain by its DNS name, as corp.example"};
const Kind joinedElsewhere{2691, "SetupAlreadyJoinedException",
                           "This machine is already joined to a domain.",
                           "leave that domain first: tesauthctl leave"};
const Kind hostBarred{1331, "AccountDisabledException",
                      "Logon failure: account currently disabled.",
                      "the machine account is disabled, locked or expired: have it enabled in the "
                      "directory, or join the host again"};
const Kind keyRejected{1786, "NoTrustLSASecretException",
                       "The workstation does not have a trust secret.", "join the host again"};
const Kind noAccount{1787, "NoTrustSAMAccountException",
                     "The domain controller does not have an account for this workstation.",
                     "join the host again"};
const Kind internalError{1359, "InternalErrorException", "An internal error occurred.",
                         "`tesauthctl diagnose` looks at the host and the domain"};
const Kind otherJoin{1791, "RPCSCallInProgressException",
                     "A remote procedure call is already in progress for this thread.",
                     "another join, leave or change of the key is running: try again when it is "
                     "done"};
const Kind nobodyAnswers{1311, "NoLogonServersException",
                         "There are currently no logon servers available to service the logon "
                         "request.",
                         "no domain controller answered: check the network and the name servers "
                         "in /etc/resolv.conf"};
const Kind silence{10060, "WSATimedOutException",
                   "A connection attempt failed because the connected party did not properly "
                   "respond after a period of time, or established connection failed because "
                   "connected host has failed to respond.",
                   "the domain controllers don't answer: check the network and any firewall on "
                   "the way"};
const Kind nothingListens{
    1225, "ConnectionRefusedException", "The remote computer refused the network connection.",
    "the domain controller's host answers, its directory service does not: is it "
    "running?"};

std::string Told(const Kind& kind) {
    char number[16];
    std::snprintf(number, sizeof number, "0x%08lx", kind.code);
    return std::string("Exception ") + number + ": " + kind.text;
}

/// All that the command has printed, with what had gone wrong each time.
std::map<std::string, std::set<std::string>>& Printed() {
    static std::map<std::string, std::set<std::string>> printed;
    return printed;
}

Words JoinWords(const std::string& path, const std::string& user) {
    return {"tesauthctl", "join", path, "-U", user, "--password-stdin", "--json"};
}

class LabFailures : public testing::Test {
protected:
    LabFailures()
        : domain_(Setting("DOMAIN")), admin_(Setting("ADMIN")), password_(Setting("PASSWORD")),
          userPassword_(Setting("USER_PASSWORD")), before_(lab::Computers("dc1", domain_)) {}

    Result JoinAsAdmin(const std::string& host) const {
        return lab::RunOn(host, JoinWords(domain_, admin_), password_ + "\n");
    }

    /// \param what went wrong
    /// \param cause the sentence that says so
    static void ExpectFailure(const Result& result, const std::string& what, const Kind& kind,
                              const std::string& cause) {
        EXPECT_EQ(result.status, 1);
        EXPECT_EQ(result.err, "tesauthctl: " + Told(kind) + "\ncause: " + cause +
                                  "\nhint: " + std::string(kind.hint) + "\n");
        EXPECT_EQ(result.Json(), (nlohmann::json{{"error",
                                                  {{"text", Told(kind)},
                                                   {"code", kind.code},
                                                   {"cause", cause},
                                                   {"hint", kind.hint}}}}));
        Printed()[result.err].insert(what);
    }

    /// What a client of the library catches.
    static void ExpectThrown(const std::string& host, const Words& wrapped, const Kind& kind,
                             const std::string& password) {
        const Result result = lab::RunOn(host, wrapped, password + "\n");
        EXPECT_EQ(result.out, std::string("tessary::authentication::") + kind.className + "\n" +
                                  std::to_string(kind.code) + "\n" + Told(kind) + "\n");
    }

    static void ExpectNothingLeft(const std::string& host) {
        const Result left = lab::RunOn(host, {"find", "/etc", "/var/lib/tessary", "-name",
                                              "krb5.keytab*", "-o", "-name", "domain_state*"});
        EXPECT_THAT(left.out, IsEmpty());
        EXPECT_EQ(lab::Ctl(host, {"status", "--json"}).Json()["joined"], false);
    }

    void ExpectNoNewAccount() const { EXPECT_EQ(lab::Computers("dc1", domain_), before_); }

    std::string domain_;
    std::string admin_;
    std::string password_;
    std::string userPassword_; // everybody else's
    std::vector<std::string> before_;
};

struct Refusal {
    const char* what;
    std::string path;
    std::string user;
    std::string password;
    std::string clock; // how far the host's is off
    const Kind& kind;
    std::string cause;
};

TEST_F(LabFailures, RefusedJoinSaysWhyAndLeavesNothing) {
    const std::string login = "cannot log in to CORP.EXAMPLE as ";
    const Refusal refusals[] = {
        {"wrong password", domain_, admin_, "wrong", "", wrongPassword,
         login + "Administrator: the password or the key is wrong"},
        {"other user's wrong password", domain_, "alice", password_, "", wrongPassword,
         login + "alice: the password or the key is wrong"},
        {"unknown user", domain_, "nobody", password_, "", unknownUser,
         login + "nobody: the domain has no such account"},
        {"disabled user", domain_, "dave", userPassword_, "", userBarred,
         login + "dave: the account is disabled"},
        {"expired user", domain_, "frank", userPassword_, "", userBarred,
         login + "frank: the account has expired"},
        {"locked user", domain_, "lena", userPassword_, "", userBarred,
         login + "lena: the account may not be used now, probably because it is locked out"},
        {"password to be changed", domain_, "erin", userPassword_, "", passwordExpired,
         login + "erin: the password must be changed first"},
        {"clock too fast", domain_, admin_, password_, "+10m", clockOff,
         login + "Administrator: this host's clock is 10 minutes ahead of the domain controller's"},
        {"clock too slow", domain_, admin_, password_, "-10m", clockOff,
         login + "Administrator: this host's clock is 10 minutes behind the domain controller's"},
        {"clock of last year", domain_, admin_, password_, "-365d", clockOff,
         login + "Administrator: this host's clock is 365 days behind the domain controller's"},
        {"clock too fast", domain_, admin_, "wrong", "+10m", clockOff,
         login + "Administrator: this host's clock is 10 minutes ahead of the domain controller's"},
        {"no rights", domain_, "alice", userPassword_, "", noRights,
         "cannot create CN=HOST1,CN=Computers,DC=corp,DC=example: Insufficient access (acl: unable "
         "to get access to CN=HOST1,CN=Computers,DC=corp,DC=example)"},
        {"no rights", domain_, "joiner", userPassword_, "", noRights,
         "cannot create CN=HOST1,CN=Computers,DC=corp,DC=example: Insufficient access (acl: unable "
         "to get access to CN=HOST1,CN=Computers,DC=corp,DC=example)"},
        {"no such unit", domain_ + "/Servers/Nowhere", admin_, password_, "", noSuchUnit,
         "cannot search OU=Nowhere,OU=Servers,DC=corp,DC=example: No such object"},
        {"no such unit by its name", domain_ + "/OU=Nowhere,DC=corp,DC=example", admin_, password_,
         "", noSuchUnit, "cannot search OU=Nowhere,DC=corp,DC=example: No such object"},
        {"malformed unit", domain_ + "/OU=,=", admin_, password_, "", noSuchUnit,
         "malformed distinguished name OU=,="},
        {"no such domain", "nosuch.example", admin_, password_, "", noSuchDomain,
         "no service record _ldap._tcp.dc._msdcs.nosuch.example"},
        {"malformed domain", "bad domain", admin_, password_, "", malformedDomain,
         "'bad domain' is not a domain name"},
        {"malformed user", domain_, "a/b", password_, "", malformedUser,
         "'a/b' is not a user name"},
        {"user of a malformed domain", domain_, "alice@bad domain", password_, "", malformedUser,
         "'alice@bad domain' is not a user name"},
    };
    lab::Lab({"fresh", "host1"});
    for (const Refusal& refusal : refusals) {
        SCOPED_TRACE(refusal.what);
        const auto wrapped = [&](const Words& words) {
            return refusal.clock.empty() ? words : WithClock(refusal.clock, words);
        };
        ExpectFailure(lab::RunOn("host1", wrapped(JoinWords(refusal.path, refusal.user)),
                                 refusal.password + "\n"),
                      refusal.what, refusal.kind, refusal.cause);
        ExpectThrown("host1", wrapped({LAB_JOIN_PROGRAM_FILE, refusal.path, refusal.user}),
                     refusal.kind, refusal.password);
        ExpectNothingLeft("host1");
    }
    ExpectNoNewAccount();
}

TEST_F(LabFailures, ClockThatIsOffByLessIsNoReasonToRefuse) {
    lab::Lab({"fresh", "host1"});
    const Result joined =
        lab::RunOn("host1", WithClock("-4m", JoinWords(domain_, admin_)), password_ + "\n");
    EXPECT_EQ(joined.status, 0) << joined.err;
    const Result left =
        lab::Ctl("host1", {"leave", "-U", admin_, "--password-stdin"}, password_ + "\n");
    EXPECT_EQ(left.status, 0) << left.err;
    ExpectNoNewAccount();
}

struct Outage {
    const char* fault;
    const char* recovery;
    std::string ofNameServer; ///< the cause, on a host that has no other name server
    const Kind& kind;         ///< the failure of a host that has one, so that it knows an address
    std::string ofController; ///< and its cause
};

TEST_F(LabFailures, ControllerThatIsAwayIsToldFromOneThatIsSilent) {
    const Outage outages[] = {
        {"freeze", "thaw",
         "no name server answers the question for _ldap._tcp.dc._msdcs.corp.example", silence,
         "no domain controller answers in time: dc1.corp.example: it takes the connection and says "
         "nothing"},
        {"cut", "join", "no name server answers the question for _ldap._tcp.dc._msdcs.corp.example",
         silence,
         "no domain controller answers in time: dc1.corp.example: no answer to the attempt to "
         "connect"},
        {"kill", "start", "no name server can tell _ldap._tcp.dc._msdcs.corp.example",
         nothingListens,
         "every domain controller refuses the connection: dc1.corp.example: cannot connect: "
         "Connection refused"},
    };
    lab::Lab({"fresh", "host1"});
    lab::Lab({"fresh", "host2"});
    lab::UseOwnNameServer("host2");
    for (const Outage& outage : outages) {
        SCOPED_TRACE(outage.fault);
        lab::Lab({outage.fault, "dc1"});
        lab::Command host1(lab::WordsOn("host1", JoinWords(domain_, admin_)));
        lab::Command host2(lab::WordsOn("host2", JoinWords(domain_, admin_)));
        host1.Write(password_ + "\n");
        host2.Write(password_ + "\n");
        ExpectFailure(host1.Finish(), outage.ofNameServer, nobodyAnswers, outage.ofNameServer);
        ExpectFailure(host2.Finish(), std::string("controller: ") + outage.fault, outage.kind,
                      outage.ofController);
        ExpectNothingLeft("host1");
        ExpectNothingLeft("host2");
        lab::Lab({outage.recovery, "dc1"});
        ExpectNoNewAccount();
    }
    EXPECT_EQ(JoinAsAdmin("host2").status, 0) << "nothing was wrong with the host itself";
    EXPECT_EQ(
        lab::Ctl("host2", {"leave", "-U", admin_, "--password-stdin"}, password_ + "\n").status, 0);
}

TEST_F(LabFailures, HostOfAnotherDomainStaysThere) {
    lab::Lab({"fresh", "host1"});
    ASSERT_EQ(JoinAsAdmin("host1").status, 0);
    const std::string keytab = lab::RunOn("host1", {"sha256sum", "/etc/krb5.keytab"}).out;
    ExpectFailure(lab::RunOn("host1", JoinWords("lab.example", admin_), password_ + "\n"),
                  "joined to another domain", joinedElsewhere,
                  "the host is joined to corp.example");
    EXPECT_EQ(lab::RunOn("host1", {"sha256sum", "/etc/krb5.keytab"}).out, keytab);
    const auto status = lab::Ctl("host1", {"status", "--json"}).Json();
    EXPECT_EQ(status["domain"], domain_);
    EXPECT_EQ(status["trustState"]["name"], "good");
    EXPECT_EQ(
        lab::Ctl("host1", {"leave", "-U", admin_, "--password-stdin"}, password_ + "\n").status, 0);
    ExpectNoNewAccount();
}

TEST_F(LabFailures, HostWithoutANameOfItsOwnIsNotJoined) {
    lab::Lab({"fresh", "host1"});
    ASSERT_EQ(lab::RunOn("host1", {"hostname", "localhost"}).status, 0);
    const Result result = JoinAsAdmin("host1");
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err, "tesauthctl: The current hostname is invalid: hostname is in blacklist\n"
                          "hint: give the host a name of its own and a line in /etc/hosts: ADDRESS "
                          "NAME.DOMAIN NAME\n");
    ExpectNothingLeft("host1");
    ExpectNoNewAccount();
}

/// What the host itself has that a join cannot do with.
struct Obstacle {
    const char* what;
    Words command; ///< that puts it there
    const Kind& kind;
    std::string cause;
};

TEST_F(LabFailures, HostThatCannotBeJoinedIsLeftAlone) {
    const Obstacle obstacles[] = {
        {"name of the controller",
         {"hostname", "dc1"},
         noRights,
         "CN=DC1,OU=Domain Controllers,DC=corp,DC=example is no workstation's account"},
        {"no keytab",
         {"sh", "-c", "echo no keytab > /etc/krb5.keytab"},
         internalError,
         "cannot read /etc/krb5.keytab: Unsupported key table format version number"},
    };
    for (const Obstacle& obstacle : obstacles) {
        SCOPED_TRACE(obstacle.what);
        lab::Lab({"fresh", "host1"});
        ASSERT_EQ(lab::RunOn("host1", obstacle.command).status, 0);
        const std::string keytab = lab::RunOn("host1", {"cat", "/etc/krb5.keytab"}).out;
        Words join = JoinWords(domain_, admin_);
        join.push_back("--skip-hostname-check");
        ExpectFailure(lab::RunOn("host1", join, password_ + "\n"), obstacle.what, obstacle.kind,
                      obstacle.cause);
        EXPECT_EQ(lab::RunOn("host1", {"cat", "/etc/krb5.keytab"}).out, keytab);
        EXPECT_EQ(lab::Ctl("host1", {"status", "--json"}).Json()["joined"], false);
    }
    ExpectNoNewAccount();
}

TEST_F(LabFailures, SecondJoinAtOnceIsToldToComeBack) {
    lab::Lab({"fresh", "host1"});
    ASSERT_EQ(lab::RunOn("host1", {"mkdir", "-p", "-m", "0700", "/var/lib/tessary"}).status, 0);
    lab::Command other(lab::WordsOn(
        "host1", {"flock", "/var/lib/tessary/domain_lock", "sh", "-c", "echo locked; cat"}));
    other.AwaitOutput();
    const Words join = lab::InHaste(30, JoinWords(domain_, admin_));
    ExpectFailure(lab::RunOn("host1", join, password_ + "\n"), "another join", otherJoin,
                  "another process is changing /var/lib/tessary");
    other.Finish();
    ExpectNoNewAccount();
}

/// What has become of a member's account.
struct Fate {
    const char* what;
    std::string change; ///< by the domain's administrator
    const Kind& kind;
    std::string cause;
};

TEST_F(LabFailures, MemberIsToldWhatBecameOfItsAccount) {
    const Fate fates[] = {
        {"machine account disabled", "samba-tool user disable 'HOST1$'", hostBarred,
         "cannot log in to CORP.EXAMPLE as HOST1$: the account is disabled"},
        {"other machine password",
         "samba-tool user enable 'HOST1$' && "
         "samba-tool user setpassword 'HOST1$' --newpassword=An0ther.one",
         keyRejected, "cannot log in to CORP.EXAMPLE as HOST1$: the password or the key is wrong"},
        {"machine account deleted", "samba-tool computer delete HOST1", noAccount,
         "cannot log in to CORP.EXAMPLE as HOST1$: the domain has no such account"},
    };
    lab::Lab({"fresh", "host1"});
    ASSERT_EQ(JoinAsAdmin("host1").status, 0);
    for (const Fate& fate : fates) {
        SCOPED_TRACE(fate.what);
        lab::Lab({"on", "dc1", "sh", "-c", "(" + fate.change + ") > /dev/null"});
        ExpectFailure(lab::Ctl("host1", {"trusts", "--json"}), fate.what, fate.kind, fate.cause);
    }
    ExpectNoNewAccount();
}

// The last one: it looks at what all the others have seen.
TEST(LabFailureTexts, NoTwoCausesPrintTheSame) {
    EXPECT_GT(Printed().size(), 20u);
    for (const auto& [text, causes] : Printed())
        EXPECT_EQ(causes.size(), 1u) << text << "is printed for " << testing::PrintToString(causes);
}

} // namespace
