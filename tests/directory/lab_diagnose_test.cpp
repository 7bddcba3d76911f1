// What a diagnosis says of a domain and the way to it, with each thing that it knows of gone wrong.

#include "lab_diagnosis.h"

namespace lab_diagnosis {
namespace {

using lab::WithClock;
using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::Not;
using testing::StartsWith;
const std::string latency = "[0-9]+[.][0-9] ms";

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

TEST_F(LabDiagnose, ListOfPreferredControllersThatCannotBeRead) {
    Succeed({"mkdir", "-p", "/var/lib/tessary/preferred_controllers"});
    const Report report = Diagnose(domain_);
    EXPECT_THAT(report.Problems(),
                ElementsAre("failure preferred controllers", "warning membership"));
    EXPECT_THAT(report.Text("preferred controllers"),
                HasSubstr("/var/lib/tessary/preferred_controllers"));
    const std::string remedy = report.Remedy("preferred controllers");
    EXPECT_THAT(remedy, StartsWith("mv /var/lib/tessary/preferred_controllers "));
    Succeed({"sh", "-c", remedy});
    EXPECT_THAT(Diagnose(domain_).Problems(), ElementsAre("warning membership"));
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

} // namespace
} // namespace lab_diagnosis
