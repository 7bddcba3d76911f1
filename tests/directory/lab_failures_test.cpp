// Every way in which a join can fail, made for real, and how it is told.

#include "lab_commands.h"

#include <map>
#include <string>

#include <gmock/gmock.h>

namespace {

using lab::Result;
using lab::Setting;
using lab::Words;
using testing::IsEmpty;

/// What goes wrong, from the point of view of a person who is to put it right.
struct Cause {
    unsigned long code;
    const char* text;
    const char* hint;
};

const Cause wrongPassword{86, "The specified network password is not correct.",
                          "the user name is known, the password is wrong: try again"};
const Cause unknownUser{1317, "The specified account does not exist.",
                        "check the user name, and that it is a user of this domain"};
const Cause malformedUser{1315, "The name provided is not a properly formed account name.",
                          "write the user name as NAME or NAME@DOMAIN"};
const Cause passwordExpired{1330, "Logon failure: the specified account password has expired.",
                            "change the user's password first, then try again"};
// One cause, as far as the directory tells a stranger: the user cannot be used now.
const Cause userBarred{1331, "Logon failure: account currently disabled.",
                       "the user is disabled, locked or expired; name another one or have it "
                       "enabled"};
const Cause clockOff{1398, "There is a time and/or date difference between the client and server.",
                     "set this host's clock, for instance from the domain controllers' time "
                     "service; they accept five minutes of difference"};
const Cause noRights{5, "Access is denied.",
                     "the account lacks the right to do this in the directory; name an account "
                     "that has it, or an organisational unit in which it has it (DOMAIN/UNIT)"};
const Cause noSuchUnit{267, "The directory name is invalid.",
                       "check the organisational unit; levels are written from the top: "
                       "DOMAIN/SERVERS/HOSTS"};
const Cause noSuchDomain{1355,
                         "The specified domain either does not exist or could not be contacted.",
                         "check the name, and that the name servers in /etc/resolv.conf know the "
                         "domain"};
const Cause malformedDomain{1212, "The format of the specified domain name is invalid.",
                            "write the domain by its DNS name, as corp.example"};
const Cause joinedElsewhere{2691, "This machine is already joined to a domain.",
                            "leave that domain first: tesauthctl leave"};
const Cause nobodyAnswers{1311,
                          "There are currently no logon servers available to service the logon "
                          "request.",
                          "no domain controller answered: check the network and the name servers "
                          "in /etc/resolv.conf"};
const Cause silence{10060,
                    "A connection attempt failed because the connected party did not properly "
                    "respond after a period of time, or established connection failed because "
                    "connected host has failed to respond.",
                    "the domain controllers don't answer: check the network and any firewall on "
                    "the way"};
const Cause nothingListens{
    1225, "The remote computer refused the network connection.",
    "the domain controller's host answers, its directory service does not: is it "
    "running?"};

std::string Told(const Cause& cause) {
    char number[16];
    std::snprintf(number, sizeof number, "0x%08lx", cause.code);
    return std::string("Exception ") + number + ": " + cause.text;
}

Words JoinWords(const std::string& path, const std::string& user) {
    return {"tesauthctl", "join", path, "-U", user, "--password-stdin", "--json"};
}

/// The words that run a command under a clock that is off by so much.
Words WithClock(const std::string& offset, const Words& command) {
    Words words{"env", "LD_PRELOAD=/usr/$LIB/faketime/libfaketime.so.1", "FAKETIME=" + offset,
                "DONT_FAKE_MONOTONIC=1"};
    words.insert(words.end(), command.begin(), command.end());
    return words;
}

class LabFailures : public testing::Test {
protected:
    LabFailures()
        : domain_(Setting("DOMAIN")), admin_(Setting("ADMIN")), password_(Setting("PASSWORD")),
          userPassword_(Setting("USER_PASSWORD")), before_(lab::Computers("dc1", domain_)) {}

    Result JoinAsAdmin(const std::string& host) const {
        return lab::RunOn(host, JoinWords(domain_, admin_), password_ + "\n");
    }

    static void ExpectFailure(const Result& result, const Cause& cause) {
        EXPECT_EQ(result.status, 1);
        EXPECT_EQ(result.err,
                  "tesauthctl: " + Told(cause) + "\nhint: " + std::string(cause.hint) + "\n");
        EXPECT_EQ(result.Json(),
                  (nlohmann::json{{"error", {{"text", Told(cause)}, {"code", cause.code}}}}));
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
    const Cause& cause;
};

TEST_F(LabFailures, RefusedJoinSaysWhyAndLeavesNothing) {
    const std::string noUser = "nobody";
    const Refusal refusals[] = {
        {"wrong password", domain_, admin_, "wrong", "", wrongPassword},
        {"other user's wrong password", domain_, "alice", password_, "", wrongPassword},
        {"unknown user", domain_, noUser, password_, "", unknownUser},
        {"disabled user", domain_, "dave", userPassword_, "", userBarred},
        {"expired user", domain_, "frank", userPassword_, "", userBarred},
        {"locked user", domain_, "lena", userPassword_, "", userBarred},
        {"expired password", domain_, "erin", userPassword_, "", passwordExpired},
        {"clock too fast", domain_, admin_, password_, "+10m", clockOff},
        {"clock too slow", domain_, admin_, password_, "-10m", clockOff},
        {"clock of last year", domain_, admin_, password_, "-365d", clockOff},
        {"no rights", domain_, "alice", userPassword_, "", noRights},
        {"no rights there", domain_, "joiner", userPassword_, "", noRights},
        {"no such unit", domain_ + "/Servers/Nowhere", admin_, password_, "", noSuchUnit},
        {"no such unit by its name", domain_ + "/OU=Nowhere,DC=corp,DC=example", admin_, password_,
         "", noSuchUnit},
        {"malformed unit", domain_ + "/OU=,=", admin_, password_, "", noSuchUnit},
        {"no such domain", "nosuch.example", admin_, password_, "", noSuchDomain},
        {"malformed domain", "bad domain", admin_, password_, "", malformedDomain},
        {"malformed user", domain_, "a/b", password_, "", malformedUser},
        {"user of a malformed domain", domain_, "alice@bad domain", password_, "", malformedUser},
    };
    lab::Lab({"fresh", "host1"});
    for (const Refusal& refusal : refusals) {
        SCOPED_TRACE(refusal.what);
        const Words join = JoinWords(refusal.path, refusal.user);
        ExpectFailure(lab::RunOn("host1",
                                 refusal.clock.empty() ? join : WithClock(refusal.clock, join),
                                 refusal.password + "\n"),
                      refusal.cause);
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
    const Cause& withNameServer; ///< the controller's name is still to be had
};

TEST_F(LabFailures, ControllerThatIsAwayIsToldFromOneThatIsSilent) {
    const Outage outages[] = {
        {"freeze", "thaw", silence},
        {"cut", "join", silence},
        {"kill", "start", nothingListens},
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
        // The controller is the only name server that host1 has.
        ExpectFailure(host1.Finish(), nobodyAnswers);
        ExpectFailure(host2.Finish(), outage.withNameServer);
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
                  joinedElsewhere);
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

TEST(LabFailureTexts, EachCauseHasItsOwn) {
    std::map<std::string, unsigned long> texts;
    for (const Cause* cause :
         {&wrongPassword, &unknownUser, &malformedUser, &passwordExpired, &userBarred, &clockOff,
          &noRights, &noSuchUnit, &noSuchDomain, &malformedDomain, &joinedElsewhere, &nobodyAnswers,
          &silence, &nothingListens}) {
        EXPECT_TRUE(texts.emplace(cause->text, cause->code).second) << cause->text;
        EXPECT_TRUE(texts.emplace(cause->hint, cause->code).second) << cause->hint;
    }
}

} // namespace
