// Hosts without any credentials join through an authentication proxy on a machine of its own.

#include "lab_proxy_machine.h"

#include <sstream>
#include <string>

#include <gmock/gmock.h>

namespace {

using lab::Command;
using lab::ProxyMachine;
using lab::Result;
using lab::Setting;
using lab::Words;
using testing::Each;
using testing::HasSubstr;
using testing::IsEmpty;

const std::string account = "HOST1$";

Result On(const Words& words, const std::string& input = "") {
    return lab::RunOn("host1", words, input);
}

Result Ctl(const Words& words) {
    return lab::Ctl("host1", words);
}

Result Join(const ProxyMachine& proxy, const Words& more = {}) {
    Words words = {"join", "--proxy", proxy.Address()};
    words.insert(words.end(), more.begin(), more.end());
    return Ctl(words);
}

std::vector<std::string> Computers() {
    return lab::Computers("dc1", Setting("DOMAIN"));
}

/// The place of the host's account.
std::string Place() {
    const auto found =
        lab::Search("dc1", Setting("DOMAIN"), "(sAMAccountName=" + account + ")", {"dn"});
    return found.size() == 1 ? lab::Values(found[0], "dn")[0] : "";
}

/// Whether the directory lets the account in, with the host's key or with a password.
bool KeyWorks() {
    return On({"kinit", "-k", account + "@" + Setting("REALM")}).status == 0;
}
bool PasswordWorks(const std::string& password) {
    return On({"kinit", account + "@" + Setting("REALM")}, password + "\n").status == 0;
}

/// The host host1, and a proxy on host2.
class LabProxyJoin : public testing::Test {
protected:
    void SetUp() override {
        lab::MakeClient("host1");
        DeleteComputers();
        ASSERT_THAT(Computers(), IsEmpty());
    }

    static void DeleteComputers() {
        for (const std::string& left : Computers())
            lab::Lab({"on", "dc1", "samba-tool", "computer", "delete", left});
    }

    void Trust(const ProxyMachine& proxy) { lab::ImportCertificate("host1", proxy.Certificate()); }

    /// Nothing was made, here or there.
    void ExpectNothingMade() {
        EXPECT_THAT(Computers(), IsEmpty());
        lab::ExpectNothingLeft("host1");
    }
};

TEST_F(LabProxyJoin, NeedsNoCredentialsAndLeavesNoneBehind) {
    const ProxyMachine proxy("host2", {"host1"});
    Trust(proxy);
    EXPECT_EQ(Ctl({"proxy", "show", "--json"}).Json()["thumbprint"], proxy.Thumbprint());
    EXPECT_EQ(Ctl({"proxy", "domain", proxy.Address()}).out, Setting("DOMAIN") + "\n");
    const Result installed = On({"install", SPYING_PROXY_FILE, "/usr/libexec/tesauth/libspy.so"});
    ASSERT_EQ(installed.status, 0) << installed.err;
    ASSERT_EQ(On({"tee", "/etc/tessary/tesauth/apxprovider.conf"}, "provider = \"spy\"\n").status,
              0);

    const Result joined = Join(proxy);
    ASSERT_EQ(joined.status, 0) << joined.err;
    EXPECT_EQ(joined.out, "joined " + Setting("DOMAIN") + "\n");
    EXPECT_EQ(joined.err, "");
    EXPECT_EQ(Place(), "CN=HOST1," + Setting("PROXY_CONTAINER"));
    EXPECT_TRUE(KeyWorks());
    const std::string handedOut = On({"cat", "/run/spied-password"}).out;
    EXPECT_GE(handedOut.size(), 32u);
    EXPECT_FALSE(PasswordWorks(handedOut)) << "it was good for one join";
    const auto status = Ctl({"status", "--json"}).Json();
    EXPECT_EQ(status["joined"], true);
    EXPECT_EQ(status["trustState"]["name"], "good");

    // Nothing of it is in a log, on either side.
    EXPECT_EQ(proxy
                  .On({"grep", "-rF", handedOut, "/run/apxd.out", "/run/apxd.err",
                       "/var/lib/tesauth-apxd"})
                  .status,
              1);
    EXPECT_EQ(Ctl({"leave"}).status, 0);
}

TEST_F(LabProxyJoin, PlacesTheAccountWhereTheProxyMayWrite) {
    const ProxyMachine proxy("host2", {"host1"});
    Trust(proxy);
    const Result outside = Join(proxy, {"--ou", "OU=Servers,DC=corp,DC=example"});
    EXPECT_EQ(outside.status, 1);
    EXPECT_THAT(outside.err, HasSubstr("cause: this proxy makes no accounts in that"));
    ExpectNothingMade();
    const Result inside = Join(proxy, {"--ou", "OU=Web," + Setting("PROXY_CONTAINER")});
    EXPECT_EQ(inside.status, 0) << inside.err;
    EXPECT_EQ(Place(), "CN=HOST1,OU=Web," + Setting("PROXY_CONTAINER"));
}

TEST_F(LabProxyJoin, VerifiesTheProxy) {
    const ProxyMachine proxy("host2", {"host1"});
    const Result nothingImported = Join(proxy);
    EXPECT_EQ(nothingImported.status, 1);
    EXPECT_THAT(nothingImported.err, HasSubstr("tesauthctl proxy import-certificate FILE"));

    // Another certificate with the same subject.
    ASSERT_EQ(On({"sh", "-c",
                  "openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes "
                  "-subj /CN=host2 -keyout /dev/null -out /run/other.pem 2>/dev/null && "
                  "tesauthctl proxy import-certificate /run/other.pem"})
                  .status,
              0);
    const Result other = Join(proxy);
    EXPECT_EQ(other.status, 1);
    EXPECT_THAT(other.err, HasSubstr("The APX server's certificate cannot be verified."));
    EXPECT_THAT(other.err, HasSubstr("its thumbprint is another"));
    ExpectNothingMade();

    Trust(proxy);
    const Result trusted = Join(proxy);
    EXPECT_EQ(trusted.status, 0) << trusted.err;
}

TEST_F(LabProxyJoin, VerifiesNothingWhereTheHostWantsItSo) {
    const ProxyMachine proxy("host2", {"host1"});
    ASSERT_EQ(Ctl({"option", "set", "UserVars.ActiveDirectoryVerifyAPXCertificate", "0"}).status,
              0);
    const Result joined = Join(proxy);
    EXPECT_EQ(joined.status, 0) << joined.err;
    EXPECT_TRUE(KeyWorks());
}

TEST_F(LabProxyJoin, RefusalsAreToldWithTheProxysReason) {
    const ProxyMachine stranger("host2", {});
    Trust(stranger);
    const Result unknown = Join(stranger);
    EXPECT_EQ(unknown.status, 1);
    EXPECT_THAT(unknown.err, HasSubstr("Exception 0x00000005: Unknown exception\ncause: "));
    EXPECT_THAT(unknown.err, HasSubstr("\nhint: ask the proxy's administrator"));
    ExpectNothingMade();
}

TEST_F(LabProxyJoin, AccountInUseIsGivenAwayOnlyWhenItWasReleased) {
    const ProxyMachine proxy("host2", {"host1"});
    Trust(proxy);
    ASSERT_EQ(Join(proxy).status, 0);
    lab::MakeClient("host1"); // installed anew, and its keys gone
    Trust(proxy);
    const Result again = Join(proxy);
    EXPECT_EQ(again.status, 1);
    EXPECT_THAT(again.err, HasSubstr("tesauth-apxd release host1.corp.example"));
    const Result released = proxy.On({"tesauth-apxd", "release", "host1.corp.example"});
    EXPECT_EQ(released.status, 0) << released.err;
    const Result joined = Join(proxy);
    EXPECT_EQ(joined.status, 0) << joined.err;
    EXPECT_TRUE(KeyWorks());
}

TEST_F(LabProxyJoin, ProxyThatIsGoneOrHangs) {
    ProxyMachine proxy("host2", {"host1"});
    Trust(proxy);
    proxy.Signal("STOP");
    const Result hanging = Join(proxy);
    EXPECT_EQ(hanging.status, 1);
    EXPECT_THAT(hanging.err, HasSubstr("Exception 0x0000274c: "));
    proxy.Signal("CONT");
    proxy.Stop();
    const Result gone = Join(proxy);
    EXPECT_EQ(gone.status, 1);
    EXPECT_THAT(gone.err, HasSubstr("The remote computer refused the network connection."));
    EXPECT_THAT(gone.err, HasSubstr("hint: is tesauth-apxd running there"));
    ExpectNothingMade();
    proxy.Start();
    const Result back = Join(proxy);
    EXPECT_EQ(back.status, 0) << back.err;
}

/// Someone on the way to the proxy, whom the host takes for it at its own address 127.0.0.1.
class Middleman {
public:
    static constexpr const char* address = "127.0.0.1";

    explicit Middleman(const ProxyMachine& proxy, const Words& more = {})
        : command_(WordsFor(proxy, more)) {
        command_.AwaitOutput();
    }

    /// Ends it.
    /// \return what it reports, by line
    Words Finish() {
        const Result ended = command_.Finish();
        EXPECT_EQ(ended.status, 0) << ended.err;
        std::istringstream report(On({"cat", "/run/middleman"}).out);
        Words lines;
        for (std::string line; std::getline(report, line);)
            lines.push_back(line);
        return lines;
    }

private:
    static Words WordsFor(const ProxyMachine& proxy, const Words& more) {
        On({"rm", "-f", "/run/middleman"});
        Words words = {"python3", MIDDLEMAN_FILE, proxy.Address(), "/run/middleman"};
        words.insert(words.end(), more.begin(), more.end());
        return lab::WordsOn("host1", words);
    }

    Command command_;
};

const Words joinThroughMiddleman = {"tesauthctl", "join", "--proxy", Middleman::address};

/// A connection of a join, and how much of what the proxy says in it reaches the host.
struct Cut {
    std::size_t connection;
    long bytes;
};

/// Moments of all connections that a join makes: at the begin, in the handshake, in the answer.
std::vector<Cut> MomentsOfAJoin(const ProxyMachine& proxy) {
    Middleman middleman(proxy);
    const Result joined = On(joinThroughMiddleman);
    EXPECT_EQ(joined.status, 0) << joined.err;
    const Words report = middleman.Finish();
    EXPECT_GE(report.size(), 4u) << "a join asks about the domain, and for the account";
    std::vector<Cut> moments;
    for (std::size_t i = 0; i < report.size(); ++i)
        for (const long bytes : {0L, 300L, std::stol(report[i]) - 100})
            moments.push_back({i + 1, bytes});
    EXPECT_EQ(Ctl({"leave"}).status, 0);
    return moments;
}

TEST_F(LabProxyJoin, ProxyThatDiesOrHangsAtEachStep) {
    const ProxyMachine proxy("host2", {"host1"}, "requests_per_minute_per_address = 1000\n");
    Trust(proxy);
    const std::vector<Cut> moments = MomentsOfAJoin(proxy);
    const struct {
        const char* name;
        const char* error;
        Words command;
    } ends[] = {{"die", "Exception 0x000004cd: ", joinThroughMiddleman},
                {"hang", "Exception 0x0000274c: ", lab::InHaste(30, joinThroughMiddleman)}};
    for (const auto& end : ends) {
        for (const Cut& cut : moments) {
            SCOPED_TRACE(end.name + (" in connection " + std::to_string(cut.connection)) +
                         " after " + std::to_string(cut.bytes) + " bytes");
            DeleteComputers();
            Middleman middleman(
                proxy, {end.name, std::to_string(cut.connection), std::to_string(cut.bytes)});
            const Result joined = On(end.command);
            EXPECT_EQ(joined.status, 1);
            EXPECT_THAT(joined.err, HasSubstr(end.error));
            lab::ExpectNothingLeft("host1");
            EXPECT_THAT(middleman.Finish(), testing::SizeIs(cut.connection));
            EXPECT_LE(Computers().size(), 1u);
        }
    }
    DeleteComputers();
    const Result joined = Join(proxy);
    EXPECT_EQ(joined.status, 0) << joined.err;
}

TEST_F(LabProxyJoin, ManInTheMiddleHearsNothingUnlessNobodyLooks) {
    const ProxyMachine proxy("host2", {"host1"});
    Trust(proxy);
    const Result made =
        On({"sh", "-c",
            "openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -subj /CN=host2 "
            "-keyout /run/middleman.pem -out /run/middleman.crt && "
            "cat /run/middleman.crt >>/run/middleman.pem"});
    ASSERT_EQ(made.status, 0) << made.err;
    {
        Middleman middleman(proxy, {"--identity", "/run/middleman.pem"});
        const Result joined = On(joinThroughMiddleman);
        EXPECT_EQ(joined.status, 1);
        EXPECT_THAT(joined.err, HasSubstr("The APX server's certificate cannot be verified."));
        EXPECT_THAT(middleman.Finish(), Each(testing::StartsWith("no connection: ")))
            << "not even the question";
        ExpectNothingMade();
    }
    ASSERT_EQ(Ctl({"option", "set", "UserVars.ActiveDirectoryVerifyAPXCertificate", "0"}).status,
              0);
    Middleman middleman(proxy, {"--identity", "/run/middleman.pem"});
    const Result joined = On(joinThroughMiddleman);
    EXPECT_EQ(joined.status, 0) << joined.err;
    EXPECT_THAT(middleman.Finish(), testing::Contains("POST /v1/machine-accounts HTTP/1.1"));
}

TEST_F(LabProxyJoin, CertificateThatHasExpiredOrIsNotYetValid) {
    const ProxyMachine proxy("host2", {"host1"});
    Trust(proxy);
    for (const char* offset : {"+4000d", "-2d"}) {
        const Result joined =
            On(lab::WithClock(offset, {"tesauthctl", "join", "--proxy", proxy.Address()}));
        EXPECT_EQ(joined.status, 1);
        EXPECT_THAT(joined.err, HasSubstr("The APX server's certificate cannot be verified."));
        EXPECT_THAT(joined.err, HasSubstr(*offset == '+' ? "expired" : "not valid yet"));
        ExpectNothingMade();
    }
}

TEST_F(LabProxyJoin, ProxyWithoutAController) {
    const ProxyMachine proxy("host2", {"host1"});
    Trust(proxy);
    lab::Lab({"kill", "dc1"});
    const Result joined = Join(proxy, {"--skip-hostname-check"});
    lab::Lab({"start", "dc1"});
    EXPECT_EQ(joined.status, 1);
    EXPECT_THAT(joined.err, testing::AnyOf(HasSubstr("Exception 0x0000051f: Unknown"),
                                           HasSubstr("Exception 0x0000054b: Unknown")));
    ExpectNothingMade();
}

} // namespace
