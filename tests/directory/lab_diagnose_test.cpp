// What a diagnosis says of a host and its domain, with each thing that it knows of gone wrong.

#include "lab_commands.h"

#include <chrono>
#include <set>
#include <string>
#include <vector>

#include <gmock/gmock.h>

namespace {

using namespace std::chrono_literals;
using lab::Result;
using lab::Setting;
using lab::Words;
using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::Not;

const std::string latency = "[0-9]+[.][0-9] ms";

Words operator+(Words words, const Words& more) {
    words.insert(words.end(), more.begin(), more.end());
    return words;
}

/// The words that run a command under a clock that is off by so much.
Words WithClock(const std::string& offset, const Words& command) {
    return Words{"env", "LD_PRELOAD=/usr/$LIB/faketime/libfaketime.so.1", "FAKETIME=" + offset,
                 "DONT_FAKE_MONOTONIC=1"} +
           command;
}

/// A host that a domain's service records name.
struct Named {
    std::string host;
    std::string address; ///< empty for a name that does not resolve
    int priority;
};

/// A second network of a host, with the way to everywhere else in two halves, which goes before a
/// default one; gone at the end.
class SecondNetwork {
public:
    SecondNetwork() {
        const Words up{"sh", "-ec",
                       "ip link add second type veth peer name far\n"
                       "ip address add 198.51.100.7/24 dev second\n"
                       "ip link set second up\n"
                       "ip link set far up\n"
                       "ip route add 0.0.0.0/1 via 198.51.100.1\n"
                       "ip route add 128.0.0.0/1 via 198.51.100.1"};
        const Result result = lab::RunOn("host1", up);
        EXPECT_EQ(result.status, 0) << result.err;
    }
    ~SecondNetwork() { lab::RunOn("host1", {"ip", "link", "delete", "second"}); }
    SecondNetwork(const SecondNetwork&) = delete;
    SecondNetwork& operator=(const SecondNetwork&) = delete;
};

/// Findings in the order in which they came.
class Report {
public:
    explicit Report(const nlohmann::json& findings) : findings_(findings) {
        for (const auto& finding : findings_) {
            const bool inOrder = finding["severity"] == "ok";
            EXPECT_EQ(finding["remedy"] == "", inOrder) << finding;
            EXPECT_NE(finding["text"], "") << finding;
            EXPECT_TRUE(checks_.insert(finding["check"].get<std::string>()).second) << finding;
        }
    }

    /// "ok keytab" and so on.
    Words Outline() const {
        Words lines;
        for (const auto& finding : findings_)
            lines.push_back(finding["severity"].get<std::string>() + " " +
                            finding["check"].get<std::string>());
        return lines;
    }
    /// The outline of what is not in order.
    Words Problems() const {
        Words lines;
        for (const std::string& line : Outline())
            if (line.compare(0, 3, "ok ") != 0)
                lines.push_back(line);
        return lines;
    }
    std::string Text(const std::string& check) const { return Field(check, "text"); }
    std::string Remedy(const std::string& check) const { return Field(check, "remedy"); }

private:
    std::string Field(const std::string& check, const char* name) const {
        for (const auto& finding : findings_)
            if (finding["check"] == check)
                return finding[name];
        ADD_FAILURE() << "nothing was said of " << check << ": " << findings_;
        return "";
    }

    nlohmann::json findings_;
    std::set<std::string> checks_;
};

class LabDiagnose : public testing::Test {
protected:
    LabDiagnose()
        : domain_(Setting("DOMAIN")), controller_(Setting("DC1")), address_(Setting("DC1_ADDRESS")),
          joinCommand_("tesauthctl join " + domain_ + " -U USER") {}

    void SetUp() override { lab::Lab({"fresh", "host1"}); }

    static Result On(const Words& words, const std::string& input = "") {
        return lab::RunOn("host1", words, input);
    }
    static void Succeed(const Words& words, const std::string& input = "") {
        const Result result = On(words, input);
        ASSERT_EQ(result.status, 0) << testing::PrintToString(words) << result.err << result.out;
    }
    static void Write(const std::string& file, const std::string& text) {
        Succeed({"tee", file}, text);
    }
    /// Whatever the name; programs that set one refuse some.
    static void SetHostName(const std::string& name) {
        Write("/proc/sys/kernel/hostname", name + "\n");
    }
    void OnController(const Words& words) {
        const Result result = lab::Run(Words{std::getenv("TESAUTH_LAB"), "on", "dc1"} + words);
        ASSERT_EQ(result.status, 0) << result.err << result.out;
    }

    void Join() {
        const Result joined =
            lab::Ctl("host1", {"join", domain_, "-U", Setting("ADMIN"), "--password-stdin"},
                     Setting("PASSWORD") + "\n");
        ASSERT_EQ(joined.status, 0) << joined.err;
    }

    /// Also sees that the host's files are left alone, down to their times.
    static Report DiagnoseAs(const Words& words) {
        const Words look{"find", "/etc", "/var/lib/tessary", "-printf", "%p %y %m %U %G %s %C@\\n"};
        const std::string before = On(look).out;
        const auto started = std::chrono::steady_clock::now();
        const Result result = On(words);
        // What is promised, whatever is dead.
        EXPECT_LT(std::chrono::steady_clock::now() - started, 15s);
        EXPECT_EQ(result.status, 0) << result.err;
        EXPECT_THAT(result.err, IsEmpty());
        EXPECT_EQ(On(look).out, before) << "something on the host was changed";
        return Report(result.Json());
    }
    static Report Diagnose(const std::string& domain = "") { return DiagnoseAs(Program(domain)); }
    static Words Program(const std::string& domain = "") {
        return domain.empty() ? Words{LAB_DIAGNOSE_PROGRAM_FILE}
                              : Words{LAB_DIAGNOSE_PROGRAM_FILE, domain};
    }

    /// Gives the host a name server of its own, which knows these controllers and nothing else.
    void UseOwnNameServer(const std::vector<Named>& controllers) {
        Words server{"dnsmasq",           "--conf-file=/dev/null", "--no-resolv",
                     "--no-hosts",        "--user=root",           "--listen-address=127.0.0.1",
                     "--bind-interfaces", "--address=/#/",         "--pid-file=/run/dnsmasq.pid"};
        for (const Named& named : controllers) {
            const std::string rank = "," + std::to_string(named.priority) + ",1";
            server.push_back("--srv-host=" + controllerRecord_ + "," + named.host + ",389" + rank);
            server.push_back("--srv-host=" + ticketRecord_ + "," + named.host + ",88" + rank);
            if (!named.address.empty())
                server.push_back("--host-record=" + named.host + "," + named.address);
        }
        Succeed(server);
        Write("/etc/resolv.conf", "nameserver 127.0.0.1\n");
    }

    std::string domain_;
    std::string controller_;
    std::string address_;
    std::string joinCommand_;
    std::string controllerRecord_ = "_ldap._tcp.dc._msdcs." + domain_;
    std::string ticketRecord_ = "_kerberos._tcp." + domain_;
};

constexpr char hostsFile[] = "127.0.0.1\tlocalhost\n10.99.0.101\thost1.corp.example host1\n";

TEST_F(LabDiagnose, HealthyHostIsInOrderThroughout) {
    Join();
    const Report report = Diagnose();
    EXPECT_THAT(report.Outline(),
                ElementsAre("ok name server " + address_, "ok service record " + controllerRecord_,
                            "ok service record " + ticketRecord_, "ok controller " + controller_,
                            "ok clock of " + controller_, "ok host name", "ok keytab", "ok trust"));
    EXPECT_THAT(report.Text("name server " + address_), MatchesRegex("answers in " + latency));
    EXPECT_EQ(report.Text("service record " + controllerRecord_),
              "names 1 controller: " + controller_);
    EXPECT_THAT(report.Text("controller " + controller_),
                AllOf(HasSubstr(address_ + ": Kerberos (88) "), HasSubstr("LDAP (389) "),
                      HasSubstr("password changes (464) "), HasSubstr("serves " + domain_)));
    EXPECT_EQ(report.Text("clock of " + controller_), "agrees with this host's within 1 s");
    EXPECT_THAT(report.Text("host name"), HasSubstr("10.99.0.101"));
    EXPECT_THAT(report.Text("keytab"), HasSubstr("newest key of version "));

    for (const std::string& name : {domain_, std::string("CORP")})
        EXPECT_EQ(Diagnose(name).Outline(), report.Outline()) << name;
    const Report other = Diagnose("lab.example");
    EXPECT_THAT(other.Problems(), IsEmpty());
    EXPECT_THAT(other.Text("membership"), HasSubstr("joined to " + domain_));
}

TEST_F(LabDiagnose, HostThatIsNotJoinedCanAskAboutADomain) {
    const Report report = Diagnose(domain_);
    EXPECT_THAT(report.Problems(), ElementsAre("warning membership"));
    EXPECT_EQ(report.Remedy("membership"), joinCommand_);

    const Report none = Diagnose();
    EXPECT_THAT(none.Outline(),
                ElementsAre("ok name server " + address_, "failure domain", "ok host name"));
    EXPECT_EQ(none.Remedy("domain"), "tesauthctl diagnose DOMAIN");
    EXPECT_THAT(Diagnose("no domain").Problems(), ElementsAre("failure domain"));
}

TEST_F(LabDiagnose, ShortNameIsKnownOnlyOfTheJoinedDomain) {
    SetHostName("localhost");
    const Report report = Diagnose("CORP");
    EXPECT_THAT(report.Problems(), ElementsAre("failure domain", "failure host name"));
    EXPECT_THAT(report.Text("domain"), HasSubstr("CORP is a short name"));
    EXPECT_THAT(report.Remedy("domain"), HasSubstr("write the domain by its DNS name"));
    for (const char* check : {"domain", "host name"})
        EXPECT_THAT(report.Remedy(check),
                    Not(testing::AnyOf(HasSubstr("corp "), HasSubstr("hostnamectl"))));
    SetHostName("host1");
    Join();
    EXPECT_THAT(Diagnose("CORP").Problems(), IsEmpty());
    EXPECT_THAT(Diagnose("LAB").Problems(), ElementsAre("failure domain"));
}

TEST_F(LabDiagnose, DomainThatDoesNotExist) {
    const Report report = Diagnose("nosuch.example");
    EXPECT_THAT(report.Problems(),
                ElementsAre("failure service record _ldap._tcp.dc._msdcs.nosuch.example",
                            "warning service record _kerberos._tcp.nosuch.example",
                            "warning membership"));
    EXPECT_EQ(report.Text("service record _ldap._tcp.dc._msdcs.nosuch.example"),
              "does not exist: by it, a host finds the controllers");
    EXPECT_EQ(report.Text("service record _kerberos._tcp.nosuch.example"),
              "does not exist: by it, kinit and the like find the controllers");

    for (const char* name : {"localhost", "host9"}) { // no domain, so none to be called after
        SetHostName(name);
        EXPECT_THAT(Diagnose("nosuch.example").Remedy("host name"),
                    HasSubstr("see that the domain is found"))
            << name;
    }
}

TEST_F(LabDiagnose, NoNameServer) {
    Join();
    Write("/etc/resolv.conf", "# nameserver " + address_ + "\nsearch corp.example\n");
    const Report report = Diagnose();
    EXPECT_THAT(report.Problems(),
                ElementsAre("failure name servers", "failure service record " + controllerRecord_,
                            "warning service record " + ticketRecord_, "failure trust"));
    EXPECT_EQ(report.Text("name servers"), "/etc/resolv.conf names no name server");
    EXPECT_THAT(report.Text("keytab"), HasSubstr("not compared"));
    EXPECT_THAT(report.Text("trust"), HasSubstr("no controller of " + domain_));
}

TEST_F(LabDiagnose, NameServersThatDoNotAnswer) {
    Join();
    lab::Lab({"cut", "dc2"});
    const std::string silent = Setting("DC2_ADDRESS");

    Write("/etc/resolv.conf", "search x\nnameserver " + silent + "\nnameserver " + address_ + "\n");
    const Report one = Diagnose();
    EXPECT_THAT(one.Problems(), ElementsAre("warning name server " + silent));
    EXPECT_THAT(one.Text("name server " + silent), HasSubstr("does not answer within 3 s"));
    EXPECT_THAT(one.Remedy("name server " + silent), HasSubstr("line 2 of /etc/resolv.conf"));

    Write("/etc/resolv.conf",
          "nameserver " + silent + "\nnameserver 10.99.0.101\nnameserver elsewhere\n");
    const Report all = Diagnose();
    lab::Lab({"join", "dc2"});
    EXPECT_THAT(all.Problems(),
                ElementsAre("failure name server " + silent, "failure name server 10.99.0.101",
                            "failure name server elsewhere",
                            "failure service record " + controllerRecord_,
                            "warning service record " + ticketRecord_, "failure trust"));
    EXPECT_THAT(all.Text("name server 10.99.0.101"), HasSubstr("no name server runs there"));
    EXPECT_THAT(all.Text("name server elsewhere"), HasSubstr("is not an address"));
    EXPECT_THAT(all.Remedy("name server 10.99.0.101"), HasSubstr("line 2 of /etc/resolv.conf"));
}

TEST_F(LabDiagnose, NameServerThatDoesNotKnowTheDomain) {
    UseOwnNameServer({});
    Write("/etc/resolv.conf", "nameserver " + address_ + "\nnameserver 127.0.0.1\n");
    const Report report = Diagnose(domain_);
    EXPECT_THAT(report.Problems(),
                ElementsAre("warning name server 127.0.0.1", "warning membership"));
    EXPECT_THAT(report.Text("name server 127.0.0.1"),
                AllOf(HasSubstr("does not know " + domain_), HasSubstr(address_)));
}

TEST_F(LabDiagnose, WhatNoNameServerToldIsNotSaidToBeMissing) {
    lab::Lab({"cut", "dc2"});
    Write("/etc/resolv.conf", "nameserver " + Setting("DC2_ADDRESS") + "\n");
    Write("/etc/hosts", "127.0.0.1 localhost\n");
    Succeed({"mkdir", "-p", "/var/lib/tessary"});
    Write("/var/lib/tessary/preferred_controllers", controller_ + "\n");
    const Report report = Diagnose(domain_);
    lab::Lab({"join", "dc2"});
    for (const std::string& check : {std::string("host name"), "controller " + controller_}) {
        EXPECT_THAT(report.Text(check),
                    HasSubstr("could not be looked up: no name server answers"));
        EXPECT_EQ(report.Remedy(check), "mend what is said of the name servers");
    }
}

struct Outage {
    const char* fault;
    const char* recovery;
    const char* said;
};

TEST_F(LabDiagnose, ControllerThatIsAway) {
    Join();
    UseOwnNameServer({{controller_, address_, 1}});
    for (const Outage& outage :
         {Outage{"kill", "start", "Kerberos (88) refused"},
          Outage{"freeze", "thaw", "LDAP takes the connection, then: no answer within 5 s"},
          Outage{"cut", "join", "LDAP (389) no answer within 5 s"}}) {
        SCOPED_TRACE(outage.fault);
        lab::Lab({outage.fault, "dc1"});
        const Report report = Diagnose();
        lab::Lab({outage.recovery, "dc1"});
        EXPECT_THAT(report.Problems(),
                    ElementsAre("failure controller " + controller_, "failure trust"));
        EXPECT_THAT(report.Text("controller " + controller_), HasSubstr(outage.said));
        EXPECT_THAT(report.Outline(), Not(testing::Contains("ok clock of " + controller_)));
    }
    EXPECT_THAT(Diagnose().Problems(), IsEmpty());
}

TEST_F(LabDiagnose, DeadControllersBesideOneThatWorks) {
    Join();
    UseOwnNameServer({{"none." + domain_, "", 1},
                      {"other." + domain_, Setting("DC2_ADDRESS"), 2},
                      {"nobody." + domain_, "10.99.0.77", 3},
                      {controller_, address_, 4},
                      {"self." + domain_, "10.99.0.101", 5}});
    const Report report = Diagnose();
    EXPECT_THAT(report.Outline(),
                ElementsAre("ok name server 127.0.0.1", "ok service record " + controllerRecord_,
                            "ok service record " + ticketRecord_,
                            "warning controller none.corp.example",
                            "warning controller other.corp.example",
                            "warning controller nobody.corp.example",
                            "ok controller " + controller_, "warning controller self.corp.example",
                            "ok clock of " + controller_, "ok host name", "ok keytab", "ok trust"));
    EXPECT_THAT(report.Text("controller none.corp.example"), HasSubstr("has no address"));
    EXPECT_THAT(report.Text("controller other.corp.example"),
                HasSubstr("serves lab.example, not corp.example"));
    EXPECT_THAT(report.Text("controller self.corp.example"), HasSubstr("refused"));
    EXPECT_THAT(report.Text("controller " + controller_),
                MatchesRegex(address_ + ": [^;]*; serves corp.example"))
        << "both services tell of it, and it is looked at once";
}

TEST_F(LabDiagnose, ControllerWithAnAddressThatIsDead) {
    Write("/etc/hosts", std::string(hostsFile) + address_ + " " + controller_ + "\nfd98::1 " +
                            controller_ + "\n");
    const Report noRoute = Diagnose(domain_);
    EXPECT_THAT(noRoute.Problems(), ElementsAre("warning membership"));
    EXPECT_THAT(noRoute.Text("controller " + controller_), HasSubstr("fd98::1: not asked"));

    Write("/etc/hosts", std::string(hostsFile) + "10.99.0.101 " + controller_ + "\n" + address_ +
                            " " + controller_ + "\n");
    EXPECT_THAT(Diagnose(domain_).Problems(),
                ElementsAre("warning controller " + controller_, "warning membership"));
}

TEST_F(LabDiagnose, PreferredControllersAreLookedAtToo) {
    Join();
    Write("/var/lib/tessary/preferred_controllers", controller_ + "\n10.99.0.101\n");
    const Report report = Diagnose();
    EXPECT_THAT(report.Problems(), ElementsAre("warning controller 10.99.0.101"));
}

TEST_F(LabDiagnose, RemedyOfAControllerGoesByWhereItsNameIsFrom) {
    const std::string recorded = "none." + domain_, both = "neither." + domain_,
                      preferred = "nobody." + domain_;
    UseOwnNameServer({{recorded, "", 1}, {both, "", 2}, {controller_, address_, 3}});
    Succeed({"mkdir", "-p", "/var/lib/tessary"});
    Write("/var/lib/tessary/preferred_controllers", both + "\n" + preferred + "\n");
    const Report report = Diagnose(domain_);
    const auto records = HasSubstr("out of the service records of " + domain_);
    const auto list = HasSubstr("tesauthctl dcs set");
    EXPECT_THAT(report.Remedy("controller " + recorded), AllOf(records, Not(list)));
    EXPECT_THAT(report.Remedy("controller " + both), AllOf(records, list));
    EXPECT_THAT(report.Remedy("controller " + preferred), AllOf(Not(records), list));
}

TEST_F(LabDiagnose, ClockThatIsOff) {
    Join();
    const std::string check = "clock of " + controller_;

    const Report little = DiagnoseAs(WithClock("+20s", Program()));
    EXPECT_THAT(little.Problems(), IsEmpty());
    EXPECT_THAT(little.Text(check), MatchesRegex("this host's clock is (19|20|21) s ahead of it"));

    const Report more = DiagnoseAs(WithClock("-90s", Program()));
    EXPECT_THAT(more.Problems(), ElementsAre("warning " + check));
    EXPECT_THAT(more.Text(check), MatchesRegex("this host's clock is (89|90|91) s behind it.*"));
    EXPECT_EQ(more.Remedy(check), "timedatectl set-ntp true");

    for (const char* offset : {"+10m", "-10m"}) {
        const Report much = DiagnoseAs(WithClock(offset, Program()));
        EXPECT_THAT(much.Problems(), ElementsAre("failure " + check, "failure trust"));
        EXPECT_THAT(much.Text(check), MatchesRegex("this host's clock is (599|600|601) s .*"));
        EXPECT_THAT(much.Text("trust"), HasSubstr("clock"));
    }
}

TEST_F(LabDiagnose, HostName) {
    struct Case {
        const char* name;
        std::string hosts;
        const char* severity;
        const char* said;
        const char* remedy;
    };
    const std::string nobody = "127.0.0.1 localhost\n";
    for (const Case& each : {
             Case{"localhost", hostsFile, "failure", "no name of its own", "set-hostname NAME"},
             Case{"linux", hostsFile, "failure", "no name of its own", "set-hostname NAME"},
             Case{"my_host", hostsFile, "failure", "my_host", "set-hostname NAME"},
             Case{"host1", nobody, "failure", "host1.corp.example has no address",
                  "echo '10.99.0.101 host1.corp.example host1' >>/etc/hosts"},
             Case{"host1", nobody + "10.99.0.77 host1.corp.example host1\n", "failure",
                  "leads to 10.99.0.77", "10.99.0.101 host1.corp.example host1"},
             Case{"host1", "127.0.0.1 localhost host1\n", "failure", "another name of localhost",
                  "10.99.0.101 host1.corp.example host1"},
             Case{"host1.other.example", nobody + "10.99.0.101 host1.other.example host1\n",
                  "warning", "no name in corp.example", "set-hostname host1.corp.example"},
             Case{"host1", nobody + "10.99.0.101 HOST1.corp.example host1\n", "warning",
                  "capitals from small letters", "10.99.0.101 host1.corp.example host1"},
             Case{"Host1", hostsFile, "warning", "capitals from small letters",
                  "set-hostname host1, and"},
             Case{"host1", nobody + "127.0.1.1 host1.corp.example host1\n", "ok", "127.0.1.1", ""},
             Case{"host1.corp.example", hostsFile, "ok", "10.99.0.101", ""},
         }) {
        SCOPED_TRACE(each.name + each.hosts);
        SetHostName(each.name);
        Write("/etc/hosts", each.hosts);
        const Report report = Diagnose(domain_);
        EXPECT_THAT(report.Outline(), testing::Contains(std::string(each.severity) + " host name"));
        EXPECT_EQ(report.Problems().size(), each.severity == std::string("ok") ? 1u : 2u);
        EXPECT_THAT(report.Text("host name"), HasSubstr(each.said));
        EXPECT_THAT(report.Remedy("host name"), HasSubstr(each.remedy));
    }
}

TEST_F(LabDiagnose, LineForTheHostsFileHasTheAddressTowardsTheControllers) {
    const SecondNetwork second;
    Write("/etc/hosts", "127.0.0.1 localhost\n");
    EXPECT_EQ(Diagnose(domain_).Remedy("host name"),
              "echo '10.99.0.101 host1.corp.example host1' >>/etc/hosts");
}

TEST_F(LabDiagnose, HostThatHasGotAnotherNameSinceItJoined) {
    Join();
    SetHostName("host9");
    Write("/etc/hosts", "127.0.0.1 localhost\n10.99.0.101 host9.corp.example host9\n");
    const Report report = Diagnose();
    EXPECT_THAT(report.Problems(), ElementsAre("warning host name"));
    EXPECT_THAT(report.Text("host name"), HasSubstr("joined as host1"));
}

TEST_F(LabDiagnose, KeytabWithoutAKeyToLogInWith) {
    Join();
    Succeed({"cp", "-a", "/etc/krb5.keytab", "/run/kept"});
    const auto expect = [this](const std::string& said, const std::string& remedy) {
        const Report report = Diagnose();
        EXPECT_THAT(report.Problems(), ElementsAre("failure keytab", "failure trust"));
        EXPECT_THAT(report.Text("keytab"), HasSubstr(said));
        EXPECT_EQ(report.Text("trust"), "was not tried: " + report.Text("keytab"));
        for (const char* check : {"keytab", "trust"})
            EXPECT_EQ(report.Remedy(check), remedy);
    };

    Succeed({"rm", "/etc/krb5.keytab"});
    expect("/etc/krb5.keytab is not there", joinCommand_);

    // Its last entries are those of the services.
    Succeed({"ktutil"}, "rkt /run/kept\ndelent 1\ndelent 1\nwkt /etc/krb5.keytab\nquit\n");
    expect("/etc/krb5.keytab has no key of HOST1$", joinCommand_);

    Succeed({"sh", "-c", "umask 077; echo nonsense >/etc/krb5.keytab"});
    expect("cannot read /etc/krb5.keytab",
           "mv /etc/krb5.keytab /etc/krb5.keytab.damaged && " + joinCommand_);
    Succeed({"sh", "-c", "mv /etc/krb5.keytab /etc/krb5.keytab.damaged"});
    Join();
    EXPECT_THAT(Diagnose().Problems(), IsEmpty()) << "the remedy helps";
}

TEST_F(LabDiagnose, KeytabThatIsNotAsItShouldBe) {
    Join();
    Succeed({"cp", "-a", "/etc/krb5.keytab", "/run/kept"});

    // Who may read it is for others to look at; the keys are looked at all the same.
    Succeed({"chmod", "0644", "/etc/krb5.keytab"});
    const Report mode = Diagnose();
    EXPECT_THAT(mode.Problems(), IsEmpty());
    EXPECT_THAT(mode.Text("keytab"), HasSubstr("newest key of version "));

    // The first entries of a keytab that a join made are the account's own.
    Succeed({"ktutil"}, "rkt /run/kept\ndelent 10\nwkt /run/some\nquit\n");
    Succeed({"sh", "-c", "umask 077; cat /run/some >/etc/krb5.keytab"});
    Succeed({"ktutil"}, "rkt /run/kept\ndelent 10\ndelent 9\nwkt /run/fewer\nquit\n");
    EXPECT_THAT(Diagnose().Problems(), IsEmpty()) << "one kind of encryption is left";
    Succeed({"sh", "-c", "cat /run/fewer >/etc/krb5.keytab"});
    const Report service = Diagnose();
    EXPECT_THAT(service.Problems(), ElementsAre("failure keytab"));
    EXPECT_THAT(service.Text("keytab"), HasSubstr("has no key for RestrictedKrbHost/"));
}

TEST_F(LabDiagnose, KeyThatIsNotTheAccountsAnyMore) {
    Join();
    OnController({"samba-tool", "user", "setpassword", "HOST1$", "--newpassword=Other-12345-key"});
    const Report report = Diagnose();
    EXPECT_THAT(report.Problems(), ElementsAre("failure keytab", "failure trust"));
    EXPECT_THAT(report.Text("keytab"), HasSubstr("not the one that HOST1$ has"));
    EXPECT_EQ(report.Remedy("keytab"), joinCommand_);
    EXPECT_THAT(report.Text("trust"), HasSubstr("does not take this host's key"));
    Join();
    EXPECT_THAT(Diagnose().Problems(), IsEmpty()) << "the remedy helps";
}

/// Gives the keytab's entries of the host's services, and perhaps those of the account itself,
/// another version. A version stands in the last four bytes of an entry.
std::string ChangeVersions(const std::string& version, bool ofAccount) {
    return "import struct\n"
           "path = '/etc/krb5.keytab'\n"
           "data = bytearray(open(path, 'rb').read())\n"
           "start = 2\n"
           "while start < len(data):\n"
           "    end = start + 4 + struct.unpack('>i', data[start:start + 4])[0]\n"
           "    old = struct.unpack('>i', data[end - 4:end])[0]\n"
           "    if b'HOST1$' not in data[start:end]" +
           std::string(ofAccount ? " or True" : "") +
           ":\n"
           "        data[end - 4:end] = struct.pack('>i', " +
           version +
           ")\n"
           "    start = end\n"
           "open(path, 'wb').write(data)\n";
}

TEST_F(LabDiagnose, KeyVersionsThatAreNotTheAccounts) {
    Join();
    Join(); // so that there is an older version than the account's, and no version is 0
    struct Case {
        const char* version;
        const char* severity;
        const char* said;
    };
    for (const Case& each : {Case{"old + 7", "warning", "does not know the newest key yet"},
                             Case{"old - 1", "failure", "has only old keys for HOST1$"}}) {
        Succeed({"cp", "-a", "/etc/krb5.keytab", "/run/kept"});
        Succeed({"python3", "-"}, ChangeVersions(each.version, true));
        const Report report = Diagnose();
        EXPECT_THAT(report.Problems(), ElementsAre(each.severity + std::string(" keytab")));
        EXPECT_THAT(report.Text("keytab"),
                    AllOf(HasSubstr(each.said), HasSubstr("HOST1$ has version ")));
        EXPECT_THAT(report.Remedy("keytab"), HasSubstr(joinCommand_));
        Succeed({"cp", "-a", "/run/kept", "/etc/krb5.keytab"});
    }
    Succeed({"python3", "-"}, ChangeVersions("old - 1", false));
    const Report services = Diagnose();
    EXPECT_THAT(services.Problems(), ElementsAre("failure keytab"));
    EXPECT_THAT(services.Text("keytab"), HasSubstr("only old keys for host/host1@CORP.EXAMPLE"));
}

TEST_F(LabDiagnose, ChangeOfKeysThatWasNotFinished) {
    Join();
    const std::string said = Diagnose().Text("keytab");
    const int version = std::stoi(said.substr(said.find("version ") + 8));
    const std::string password = "Other-12345-key";
    Succeed({"ktutil"}, "addent -password -p host/host1@CORP.EXAMPLE -k " +
                            std::to_string(version + 1) +
                            " -e aes256-cts-hmac-sha1-96 -s CORP.EXAMPLEhosthost1.corp.example\n" +
                            password + "\nwkt /etc/krb5.keytab\nquit\n");
    EXPECT_THAT(Diagnose().Problems(), IsEmpty()) << "the account still has the old key";
    OnController({"samba-tool", "user", "setpassword", "HOST1$", "--newpassword=" + password});
    for (int i = 0; i < 2; ++i) { // looking does not finish it
        const Report report = Diagnose();
        EXPECT_THAT(report.Problems(), ElementsAre("warning keytab", "warning trust"));
        EXPECT_THAT(report.Text("keytab"), HasSubstr("a change of keys was not finished"));
        EXPECT_THAT(report.Remedy("keytab"), HasSubstr("tesauthctl status"));
    }
    EXPECT_EQ(lab::Ctl("host1", {"status", "--json"}).Json()["trustState"]["name"], "good");
    // The services that were given no new key here go on lacking it.
    EXPECT_THAT(Diagnose().Problems(), ElementsAre("failure keytab"));
}

TEST_F(LabDiagnose, AccountThatIsDisabledOrGone) {
    Join();
    OnController({"samba-tool", "user", "disable", "HOST1$"});
    const Report disabled = Diagnose();
    EXPECT_THAT(disabled.Problems(), ElementsAre("failure trust"));
    EXPECT_THAT(disabled.Text("trust"), HasSubstr("does not let HOST1$ log in"));

    OnController({"samba-tool", "computer", "delete", "HOST1$"});
    const Report gone = Diagnose();
    EXPECT_THAT(gone.Problems(), ElementsAre("failure trust"));
    EXPECT_EQ(gone.Text("trust"), domain_ + " has no account HOST1$ any more");
    EXPECT_EQ(gone.Remedy("trust"), joinCommand_);
}

TEST_F(LabDiagnose, UserWithoutRightsIsToldWhatTakesRoot) {
    Join();
    const Words user{"setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"};
    const Report report = DiagnoseAs(user + Program(domain_));
    EXPECT_THAT(report.Problems(), ElementsAre("warning membership"));
    EXPECT_EQ(report.Remedy("membership"), "run as root: tesauthctl diagnose " + domain_);
    const Report none = DiagnoseAs(user + Program());
    EXPECT_THAT(none.Problems(), ElementsAre("warning membership"));
    EXPECT_EQ(none.Remedy("membership"), "run as root: tesauthctl diagnose");
    EXPECT_EQ(DiagnoseAs(user + Program("x;reboot")).Remedy("membership"),
              "run as root: tesauthctl diagnose 'x;reboot'");
}

TEST_F(LabDiagnose, DamagedMembership) {
    Join();
    const std::string damaged = "/var/lib/tessary/domain_state is damaged";
    for (const char* content : {"", "domain="}) {
        Write("/var/lib/tessary/domain_state", content);
        const Report none = Diagnose();
        EXPECT_THAT(none.Problems(), ElementsAre("failure membership"));
        EXPECT_EQ(none.Text("membership"), damaged);
        EXPECT_EQ(none.Remedy("membership"), "tesauthctl join DOMAIN -U USER");
        const Report named = Diagnose(domain_);
        EXPECT_THAT(named.Problems(), ElementsAre("failure membership"));
        EXPECT_EQ(named.Text("membership"), damaged);
        EXPECT_EQ(named.Remedy("membership"), joinCommand_);
    }
    Join();
    EXPECT_THAT(Diagnose().Problems(), IsEmpty()) << "the remedy helps";
}

} // namespace
