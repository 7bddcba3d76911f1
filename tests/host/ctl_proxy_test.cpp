#include <unistd.h>

#include <cstring>
#include <filesystem>

#include "ctl_host.h"
#include "tesauth/config_store.h"

namespace ctl_test {
namespace {

using scripted::ReadFile;
using scripted::Shell;
using scripted::WriteFile;

constexpr const char* address = "127.0.0.9";
constexpr const char* calls = "/run/ctl-test-proxy.log";
constexpr const char* certificateFile = "/run/ctl-test-proxy.pem";
constexpr const char* verifyOption = "UserVars.ActiveDirectoryVerifyAPXCertificate";

/// The name of the host itself.
constexpr const char* hostName = "host1";

/// It was valid in January 2020, and its key is nobody's.
constexpr const char* expiredCertificate =
    "-----BEGIN CERTIFICATE-----\n"
    "MIIBizCCATGgAwIBAgIULEuREd6EuRlyK9Omb09KoYTcS+MwCgYIKoZIzj0EAwIw\n"
    "GzEZMBcGA1UEAwwQb2xkLmNvcnAuZXhhbXBsZTAeFw0yMDAxMDEwMDAwMDBaFw0y\n"
    "MDAxMzEwMDAwMDBaMBsxGTAXBgNVBAMMEG9sZC5jb3JwLmV4YW1wbGUwWTATBgcq\n"
    "hkjOPQIBBggqhkjOPQMBBwNCAARp3vv6Zw7d34Jp+tOfjVITSDNljuptYXTrbxVv\n"
    "MfEUy4VrocbhcU75qOw/ToT22cP8IpjdDjPa2o41LDFr0fnBo1MwUTAdBgNVHQ4E\n"
    "FgQUfZ2nMAcVuhhqQ2NItgP4MS28Yc0wHwYDVR0jBBgwFoAUfZ2nMAcVuhhqQ2NI\n"
    "tgP4MS28Yc0wDwYDVR0TAQH/BAUwAwEB/zAKBggqhkjOPQQDAgNIADBFAiEA17c8\n"
    "d3oC/Kgb+HYcrePeIc5rKLUT6eXJm/HVt+ves6MCIEl0dmdaH7F+Rl/Tc/131GvI\n"
    "EeoM5O6qKcIy4A/rc6Pm\n"
    "-----END CERTIFICATE-----\n";

class ProxyTest : public CtlTest {
protected:
    ProxyTest() {
        scripted::InstallPlugin(SCRIPTED_PROXY_FILE, "script");
        WriteFile(scripted::proxyProviderFile, "provider = \"script\"\n");
        ScriptProxy("");
        std::filesystem::remove(calls);
    }
    ~ProxyTest() override {
        std::filesystem::remove(calls);
        std::filesystem::remove(certificateFile);
    }

    static void ScriptProxy(const std::string& lines) {
        WriteFile("/etc/tessary/scripted-proxy.conf", "log=" + std::string(calls) + "\n" + lines);
    }

    static void VerifyNothing() { ASSERT_EQ(Ctl({"option", "set", verifyOption, "0"}).status, 0); }

    static void MakeCertificate() {
        Shell("openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -days 30"
              " -subj '/O=Corp/CN=proxy.corp.example' -keyout /run/ctl-test-proxy.key -out " +
              std::string(certificateFile) + " 2>/dev/null");
    }

    static Result TryJoin(const Words& more = {}) {
        Words words = {"join", "--proxy", address, "--skip-hostname-check"};
        words.insert(words.end(), more.begin(), more.end());
        return Ctl(words);
    }
};

TEST_F(ProxyTest, JoinNeedsNoCredentials) {
    VerifyNothing();
    const Result result = TryJoin();
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out, "joined corp.example\n");
    EXPECT_EQ(result.err, "");
    EXPECT_EQ(Calls("joinDomainWithMachineAccount"),
              "joinDomainWithMachineAccount||CORP|corp.example|S-1-5-21-1-2-3|" +
                  std::string(hostName) +
                  "|corp.example||WEB1$|one-time password of the account\n");
    EXPECT_EQ(Calls("joinDomain"), "");
    EXPECT_EQ(ReadFile(calls).find("createMachineAccount|127.0.0.9|"), 0u);
}

TEST_F(ProxyTest, HostNameIsCheckedUnlessThatIsSkipped) {
    VerifyNothing();
    const std::string hosts = ReadFile("/etc/hosts");
    WriteFile("/etc/hosts", "127.0.1.1 linux.corp.example linux\n");
    ASSERT_EQ(sethostname("linux", 5), 0);
    const Result result = Ctl({"join", "--proxy", address});
    const Result skipping = TryJoin();
    ASSERT_EQ(sethostname(hostName, std::strlen(hostName)), 0);
    WriteFile("/etc/hosts", hosts);
    ExpectFailure(result, 1, "tesauthctl: The current hostname is invalid: hostname is in black");
    EXPECT_EQ(skipping.status, 0) << skipping.err;
}

TEST_F(ProxyTest, JoinInJson) {
    VerifyNothing();
    EXPECT_EQ(JsonOf(TryJoin({"--json"})),
              Json::parse(R"({"joined": "corp.example", "organizationalUnit": null,
                              "proxy": "127.0.0.9"})"));
    EXPECT_EQ(JsonOf(TryJoin({"--ou", "OU=Hosts,DC=corp,DC=example", "--json"})),
              Json::parse(R"({"joined": "corp.example", "proxy": "127.0.0.9",
                              "organizationalUnit": "OU=Hosts,DC=corp,DC=example"})"));
    EXPECT_NE(ReadFile(calls).find("|OU=Hosts,DC=corp,DC=example|0||(null)\n"), std::string::npos);
}

TEST_F(ProxyTest, CommandLineNamesADomainOrAProxy) {
    const Words wrong[] = {
        {"join"},
        {"join", "corp.example"},
        {"join", "-U", "bob"},
        {"join", "--skip-hostname-check"},
        {"join", "corp.example", "--proxy", address},
        {"join", "--proxy", address, "-U", "bob"},
        {"join", "--proxy", address, "--password-stdin"},
        {"join", "--proxy", ""},
        {"join", "--proxy", address, "--ou", ""},
        {"join", "corp.example", "-U", "bob", "--ou", "Hosts"},
        {"proxy"},
        {"proxy", "domain"},
        {"proxy", "import-certificate"},
        {"proxy", "show", "more"},
    };
    for (const Words& words : wrong) {
        for (const bool asNobody : {false, true}) {
            const Result result = Ctl(words, {.input = "secret\n", .asNobody = asNobody});
            EXPECT_EQ(result.status, 2) << testing::PrintToString(words);
            EXPECT_EQ(result.out, "");
        }
    }
    EXPECT_EQ(Ctl({"join"}).err,
              "DOMAIN or --proxy is required\nRun with --help for more information.\n");
    EXPECT_EQ(Ctl({"join", "corp.example"}).err,
              "--user or --proxy is required\nRun with --help for more information.\n");
    EXPECT_EQ(ReadFile(calls), "(missing)");
}

TEST_F(ProxyTest, NothingImportedNamesTheCommandToRun) {
    const Result result = TryJoin();
    ExpectFailure(result, 1,
                  "tesauthctl: The specified thumbprint store 'auth_proxy_certificate' is "
                  "invalid\nhint: import the proxy's certificate first: tesauthctl proxy "
                  "import-certificate FILE\n");
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(ReadFile(calls), "(missing)");
}

TEST_F(ProxyTest, JoinVerifiesWithTheImportedCertificate) {
    MakeCertificate();
    const Json imported = JsonOf(Ctl({"proxy", "import-certificate", certificateFile, "--json"}));
    ASSERT_EQ(TryJoin().status, 0);
    EXPECT_NE(ReadFile(calls).find("|1|" + imported["thumbprint"].get<std::string>() +
                                   "|-----BEGIN CERTIFICATE-----\n"),
              std::string::npos);
}

struct Told {
    const char *orders, *text;
};

class ProxyFailureTest : public ProxyTest, public testing::WithParamInterface<Told> {};

TEST_P(ProxyFailureTest, IsToldWithItsHint) {
    VerifyNothing();
    ScriptProxy(GetParam().orders);
    const Result result = TryJoin();
    ExpectFailure(result, 1, GetParam().text);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(Calls("joinDomainWithMachineAccount"), "");
}

INSTANTIATE_TEST_SUITE_P(
    Statuses, ProxyFailureTest,
    testing::Values(
        Told{"accountStatus=5\n",
             "Exception 0x00000005: Unknown exception\nhint: ask the proxy's administrator"},
        Told{"accountStatus=5\nsentence=this host has an account already\n",
             "Unknown exception\ncause: this host has an account already (5)\nhint: ask"},
        Told{"accountStatus=87\n", "hint: the proxy does not take this host's full name"},
        Told{"domainStatus=1355\n", "hint: the proxy does not find its domain"},
        Told{"domainStatus=1311\n", "hint: no domain controller answers the proxy"},
        Told{"domainStatus=1359\n", "hint: ask the proxy's administrator"},
        Told{"domainStatus=1225\n", "hint: is tesauth-apxd running there, on"},
        Told{"domainStatus=1229\n", "hint: is this the address of an authentication proxy"},
        Told{"domainStatus=10060\n", "hint: the proxy, or else a domain controller"},
        Told{"domainStatus=2148074277\nsentence=it expired yesterday\n",
             "The APX server's certificate cannot be verified.\n"
             "cause: it expired yesterday (2148074277)\nhint: compare `tesauthctl proxy show`"}));

TEST_F(ProxyTest, ProvidersFailureHasTheProvidersCause) {
    VerifyNothing();
    ScriptProxy("sentence=the proxy's\n");
    Script("joinDomainWithMachineAccount.status=1225\n"
           "describeFailure.cause.1225=dc1 refused\n");
    ExpectFailure(TryJoin(), 1, "\ncause: dc1 refused\nhint: the domain controller's host answers");
}

TEST_F(ProxyTest, ClientThatTellsNoMoreIsFine) {
    scripted::InstallPlugin(SILENT_PROXY_FILE, "script");
    VerifyNothing();
    ScriptProxy("domainStatus=1225\nsentence=gone by then\n");
    const Result result = TryJoin();
    ExpectFailure(result, 1, "hint: is tesauth-apxd running there, on");
    EXPECT_EQ(result.err.find("cause:"), std::string::npos);
}

TEST_F(ProxyTest, SettingsThatAreWrong) {
    ExpectFailure(Ctl({"join", "--proxy", "proxy.corp.example"}), 1,
                  "hint: write the proxy's IPv4 address");
    ASSERT_EQ(Ctl({"option", "set", verifyOption, "2"}).status, 0);
    ExpectFailure(TryJoin(), 1, "hint: set it to 1, or to 0 to verify nothing");
    VerifyNothing();
    WriteFile(scripted::proxyProviderFile, "provider = \"\"\n");
    ExpectFailure(TryJoin(), 1, "hint: check the key \"provider\" in /etc/tessary/tesauth/apx");
    const Result asNobody = Ctl({"join", "--proxy", address}, {.asNobody = true});
    ExpectFailure(asNobody, 3, "hint: try again as root");
    WriteFile(scripted::proxyProviderFile, "provider = \"nowhere\"\n");
    ExpectFailure(Ctl({"proxy", "domain", address}), 1,
                  "hint: is the proxy client that /etc/tessary/tesauth/apxprovider.conf names in");
    scripted::InstallPlugin(INCOMPLETE_PROXY_FILE, "script");
    WriteFile(scripted::proxyProviderFile, "provider = \"script\"\n");
    ExpectFailure(TryJoin(), 1, "apxprovider.conf names lacks an operation");
    std::filesystem::permissions(scripted::proxyProviderFile, std::filesystem::perms::owner_read);
    ExpectFailure(Ctl({"proxy", "domain", address}, {.asNobody = true}), 3, "try again as root");
}

TEST_F(ProxyTest, DomainOfAProxy) {
    const Result result = Ctl({"proxy", "domain", address});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out, "corp.example\n");
    EXPECT_EQ(result.err, "");
    EXPECT_EQ(JsonOf(Ctl({"proxy", "domain", address, "--json"})),
              Json::parse(R"({"proxy": "127.0.0.9", "domain": "corp.example"})"));
    EXPECT_EQ(ReadFile(calls).find("getDomainInfo|127.0.0.9|0||(null)\n"), 0u) << "not verified";
    ScriptProxy("domainStatus=10060\n");
    ExpectFailure(Ctl({"proxy", "domain", address}), 1,
                  "hint: the proxy, or else a domain controller");
    ScriptProxy("dnsName=corp\x1b[2Jexample\n");
    EXPECT_EQ(Ctl({"proxy", "domain", address}).out.find('\x1b'), std::string::npos);
}

TEST_F(ProxyTest, CertificateIsImportedAndShown) {
    const Result none = Ctl({"proxy", "show"});
    EXPECT_EQ(none.status, 0);
    EXPECT_EQ(none.out, "no proxy's certificate has been imported\n");
    EXPECT_EQ(JsonOf(Ctl({"proxy", "show", "--json"})),
              Json::parse(R"({"thumbprint": null, "subject": null, "expires": null,
                              "expired": null})"));
    MakeCertificate();
    const Result imported = Ctl({"proxy", "import-certificate", certificateFile});
    EXPECT_EQ(imported.status, 0);
    EXPECT_EQ(imported.err, "");
    EXPECT_EQ(Ctl({"proxy", "show"}).out, imported.out);
    const Json shown = JsonOf(Ctl({"proxy", "show", "--json"}));
    EXPECT_EQ(shown["subject"], "CN=proxy.corp.example,O=Corp");
    EXPECT_EQ(shown["expired"], false);
    Shell("openssl x509 -noout -fingerprint -sha1 -in " + std::string(certificateFile) +
          " | sed 's/.*=//' | tr -d '\\n' > /run/ctl-test-thumbprint");
    EXPECT_EQ(shown["thumbprint"], ReadFile("/run/ctl-test-thumbprint"));
    Shell("date -u -d \"$(openssl x509 -noout -enddate -in " + std::string(certificateFile) +
          " | sed 's/.*=//')\" +%Y-%m-%dT%H:%M:%SZ | tr -d '\\n' > /run/ctl-test-expiry");
    EXPECT_EQ(shown["expires"], ReadFile("/run/ctl-test-expiry"));
    EXPECT_EQ(imported.out, "thumbprint  " + shown["thumbprint"].get<std::string>() +
                                "\nsubject     CN=proxy.corp.example,O=Corp\nexpires     " +
                                shown["expires"].get<std::string>() + "\n");
}

TEST_F(ProxyTest, ExpiredCertificateIsCalledSo) {
    WriteFile(certificateFile, expiredCertificate);
    const Result imported = Ctl({"proxy", "import-certificate", certificateFile});
    EXPECT_EQ(imported.status, 0);
    EXPECT_NE(imported.out.find("2020-01-31T00:00:00Z (expired)\n"), std::string::npos);
    EXPECT_EQ(JsonOf(Ctl({"proxy", "show", "--json"}))["expired"], true);
}

TEST_F(ProxyTest, CertificateThatCannotBeImported) {
    MakeCertificate();
    Shell("openssl x509 -in " + std::string(certificateFile) +
          " -outform DER -out /run/ctl-test-proxy.der");
    ExpectFailure(Ctl({"proxy", "import-certificate", "/run/ctl-test-proxy.der"}), 1,
                  "tesauthctl: The certificate format is invalid; only PEM format is supported.\n"
                  "hint: convert it first, as: openssl x509");
    ExpectFailure(Ctl({"proxy", "import-certificate", "/run/nowhere.pem"}), 1, "/run/nowhere.pem");
    ExpectFailure(Ctl({"proxy", "import-certificate", "/run"}), 1, "/run");
    ExpectFailure(Ctl({"proxy", "import-certificate", certificateFile}, {.asNobody = true}), 3,
                  "needs root");
    Shell("cat /run/ctl-test-proxy.key >> " + std::string(certificateFile));
    ExpectFailure(
        Ctl({"proxy", "import-certificate", certificateFile}), 1,
        "/run/ctl-test-proxy.pem has a private key in it\n"
        "hint: leave the key with the proxy and import the certificate alone: openssl x509 "
        "-in /run/ctl-test-proxy.pem -out proxy.pem\n");
    EXPECT_EQ(Ctl({"proxy", "show"}).out, "no proxy's certificate has been imported\n");
}

TEST_F(ProxyTest, StoredCertificateThatCannotBeRead) {
    tessary::authentication::ActiveDirectoryConfigStore().StoreAuthProxyCertInfo("AB", "damaged");
    ExpectFailure(Ctl({"proxy", "show"}), 1,
                  "the stored certificate cannot be read\n"
                  "hint: import it again: tesauthctl proxy import-certificate FILE\n");
}

} // namespace
} // namespace ctl_test
