// What a diagnosis says of a host's membership and its keys, with each thing of them gone wrong.

#include "lab_diagnosis.h"

namespace lab_diagnosis {
namespace {

using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
TEST_F(LabDiagnose, KeytabWithoutAKeyToLogInWith) {
    Join();
    Succeed({"cp", "-a", "/etc/krb5.keytab", "/run/kept"});
    const auto expect = [this](const std::string& said, const std::string& remedy) {
        const Report report = Diagnose();
        EXPECT_THAT(report.Problems(), ElementsAre("failure keytab", "warning trust"));
        EXPECT_THAT(report.Text("keytab"), HasSubstr(said));
        EXPECT_EQ(report.Text("trust"), "not looked at: see keytab");
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
    EXPECT_THAT(report.Problems(), ElementsAre("warning keytab", "failure trust"));
    EXPECT_THAT(report.Text("keytab"),
                AllOf(HasSubstr("not the one that HOST1$ has"), HasSubstr("see trust")));
    EXPECT_EQ(report.Remedy("keytab"), joinCommand_);
    EXPECT_THAT(report.Text("trust"), HasSubstr("does not take this host's key"));
    Join();
    EXPECT_THAT(Diagnose().Problems(), IsEmpty()) << "the remedy helps";
}

TEST_F(LabDiagnose, ControllerThatHasNotHeardOfTheLatestKey) {
    Join();
    const std::string said = Diagnose().Text("keytab");
    const int version = std::stoi(said.substr(said.find("version ") + 8));
    std::string entries;
    for (const char* name : {"HOST1$", "host/host1", "host/host1.corp.example"})
        entries += "addent -password -p " + std::string(name) + "@CORP.EXAMPLE -k " +
                   std::to_string(version + 1) +
                   " -e aes256-cts-hmac-sha1-96 -s salt\nLater-12345-key\n";
    Succeed({"ktutil"}, entries + "wkt /etc/krb5.keytab\nquit\n");
    const Report report = Diagnose();
    EXPECT_THAT(report.Problems(), ElementsAre("warning trust"));
    EXPECT_THAT(report.Text("trust"), HasSubstr("the controller is behind"));
    EXPECT_THAT(report.Text("keytab"), HasSubstr("see trust"));
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

/// The commands that add the key of a password, of the version after the newest, to the keytab for
/// one service, as a change of keys does before it asks the domain.
std::string WaitingKey(const Report& before, const std::string& password) {
    const std::string said = before.Text("keytab");
    const int version = std::stoi(said.substr(said.find("version ") + 8));
    return "addent -password -p host/host1@CORP.EXAMPLE -k " + std::to_string(version + 1) +
           " -e aes256-cts-hmac-sha1-96 -s CORP.EXAMPLEhosthost1.corp.example\n" + password +
           "\nwkt /etc/krb5.keytab\nquit\n";
}

TEST_F(LabDiagnose, KeyThatIsRefusedLikeTheOneThatWaitsBesideIt) {
    Join();
    Succeed({"ktutil"}, WaitingKey(Diagnose(), "Never-12345-taken"));
    OnController({"samba-tool", "user", "setpassword", "HOST1$", "--newpassword=Other-12345-key"});
    const Report report = Diagnose();
    EXPECT_THAT(report.Problems(), ElementsAre("warning keytab", "failure trust"));
    EXPECT_THAT(report.Text("keytab"), HasSubstr("not the one that HOST1$ has"));
    EXPECT_THAT(report.Text("trust"), HasSubstr("does not take this host's key"));
    EXPECT_EQ(report.Remedy("trust"), joinCommand_);
}

TEST_F(LabDiagnose, ChangeOfKeysThatWasNotFinished) {
    Join();
    const std::string password = "Other-12345-key";
    Succeed({"ktutil"}, WaitingKey(Diagnose(), password));
    EXPECT_THAT(Diagnose().Problems(), IsEmpty()) << "the account still has the old key";
    OnController({"samba-tool", "user", "setpassword", "HOST1$", "--newpassword=" + password});
    for (int i = 0; i < 2; ++i) { // looking does not finish it
        const Report report = Diagnose();
        EXPECT_THAT(report.Problems(), ElementsAre("warning keytab", "warning trust"));
        EXPECT_THAT(report.Text("keytab"),
                    HasSubstr("a change of keys is not finished everywhere"));
        EXPECT_THAT(report.Text("trust"), HasSubstr("takes another key of this host"));
        EXPECT_THAT(report.Remedy("keytab"), HasSubstr("tesauthctl status"));
    }
    EXPECT_EQ(lab::Ctl("host1", {"status", "--json"}).Json()["trustState"]["name"], "good");
    EXPECT_THAT(Diagnose().Problems(), IsEmpty()) << "the other services have the key as well";
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
} // namespace lab_diagnosis
