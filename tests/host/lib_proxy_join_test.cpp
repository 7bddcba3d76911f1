#include <netdb.h>
#include <syslog.h>

#include <filesystem>
#include <stdexcept>

#include "faults.h"
#include "hostctl/host.h"
#include "log_recorder.h"
#include "named_host.h"
#include "orvcfg/config_store.h"
#include "scripted_proxy_host.h"
#include "spoiled_store.h"
#include "tesauth/config_store.h"
#include "tesauth/exceptions.h"
#include "test_store.h"

namespace {

using namespace tessary::authentication;
using namespace scripted;
using OrvConfigStore::ConfigStoreException;

using Words = std::vector<std::string>;
using Lines = std::vector<std::pair<int, std::string>>;

constexpr const char* address = "10.99.7.9";
constexpr const char* thumbprint = "0A:1B:2C:3D:4E:5F:60:71:82:93:A4:B5:C6:D7:E8:F9:0A:1B:2C:3D";
constexpr const char* attempt = "Adding host to domain: Attempt (1/4)";

void StoreOption(const std::string& value) {
    using namespace OrvConfigStore;
    const auto object = std::make_shared<ConfigStoreObject>(
        ConfigStoreObjectId("UserVars", "advanced_options", "hostctl"));
    object->SetValue("ActiveDirectoryVerifyAPXCertificate", value);
    ConfigStore::GetStore(sGlobalNamespace)->SetObject(object, 0);
}

/// The host web1.corp.example, a proxy at hand, and its certificate not verified.
class ProxyJoinTest : public NamedHostTest {
protected:
    ProxyJoinTest() {
        Name("web1.corp.example", "10.99.7.5 web1.corp.example web1\n");
        StoreOption("0");
    }

    void Join(const std::string& unit = "", bool skipHostnameCheck = true) {
        store.JoinDomainWithAPX(address, unit, skipHostnameCheck);
    }

    /// What the proxy was asked, without what it got back.
    Words Questions() const {
        Words questions;
        std::istringstream lines(proxy.TakeCalls());
        for (std::string line; std::getline(lines, line);) {
            if (line.rfind("freeString|", 0) != 0) {
                questions.push_back(line);
            }
        }
        return questions;
    }

    void ExpectNothingDone() {
        EXPECT_EQ(proxy.TakeCalls(), "");
        EXPECT_EQ(Calls("joinDomainWithMachineAccount"), 0u);
        EXPECT_EQ(StoredDomain(), "(none)");
        EXPECT_EQ(log.TakeLines(), Lines());
    }

    const InstalledProxy proxy;
    LogRecorder log;
    TestStore store{10};
};

const std::string domainQuestion = std::string("getDomainInfo|") + address + "|0||(null)";

std::string AccountQuestion(const std::string& host, const std::string& container) {
    return std::string("createMachineAccount|") + address + "|" + host + "|" + container +
           "|0||(null)";
}

TEST_F(ProxyJoinTest, AsksCreatesJoinsAndRecords) {
    Join("OU=Hosts,DC=corp,DC=example");
    EXPECT_EQ(Questions(),
              (Words{AccountQuestion("web1.corp.example", "OU=Hosts,DC=corp,DC=example"),
                     domainQuestion, domainQuestion, domainQuestion}));
    EXPECT_EQ(proxy->outstanding, 0);
    EXPECT_EQ(Arguments("joinDomainWithMachineAccount"),
              (Words{"", "CORP", "corp.example", "S-1-5-21-1-2-3", "web1", "corp.example", "",
                     "WEB1$", "one-time password of the account"}));
    EXPECT_EQ(Calls("joinDomain"), 0u);
    ActiveDirectoryConfigStore settings;
    EXPECT_EQ(settings.GetDomainName(), "corp.example");
    EXPECT_EQ(settings.GetOrganizationalUnit(), "OU=Hosts,DC=corp,DC=example");
    EXPECT_EQ(settings.GetAuthProxyAddr(), address);
    EXPECT_EQ(log.TakeLines(), (Lines{{LOG_INFO, attempt}}));
    EXPECT_FALSE(store.IsActive()) << "joining does not choose the store";
}

TEST_F(ProxyJoinTest, AddressIsCheckedBeforeAnythingElse) {
    WriteFile(proxyProviderFile, "broken\n");
    BreakConfigStore();
    const faults::Scope scope;
    faults::hooks.getHostName = [](char*, std::size_t) {
        ADD_FAILURE() << "the host name is asked for";
        return -1;
    };
    for (const std::string bad : {"10.0.0.256", "proxy.corp.example", "", "10.0.0", "::1",
                                  "10.0.0.1 ", "10.0.0.1:8447", "010.0.0.1.", "1.2.3.4.5"}) {
        const std::string text = "The IP Address is invalid: IPv4 address '" + bad +
                                 "' cannot be parsed as an IP address";
        EXPECT_EQ(
            TextOf<InvalidIPAddressException>([&] { store.JoinDomainWithAPX(bad, "", false); }),
            text);
        EXPECT_EQ(TextOf<InvalidIPAddressException>([&] { store.GetDomainForAPXService(bad); }),
                  text);
    }
    EXPECT_EQ(proxy.TakeCalls(), "");
    EXPECT_EQ(log.TakeLines(), Lines());
}

TEST_F(ProxyJoinTest, OptionHasTwoValues) {
    const std::string before = "The VerifyAPXCertificate option is invalid: ";
    for (const char* value :
         {"2", "-1", "10", "9223372036854775807", "-9223372036854775808", "4294967296"}) {
        StoreOption(value);
        EXPECT_EQ(TextOf<InvalidVerifyAPXCertificateOptionException>([&] { Join(); }),
                  before + "Invalid value for UserVars.ActiveDirectoryVerifyAPXCertificate");
    }
    for (const char* value : {"", "yes", "1x"}) { // the host's own failure is not passed on
        StoreOption(value);
        EXPECT_EQ(TextOf<InvalidVerifyAPXCertificateOptionException>([&] { Join(); }),
                  before +
                      "Unable to get advanced option UserVars.ActiveDirectoryVerifyAPXCertificate");
    }
    ExpectNothingDone();
    BreakConfigStore();
    EXPECT_EQ(TextOf<InvalidVerifyAPXCertificateOptionException>([&] { Join(); }),
              before +
                  "Unable to get advanced option UserVars.ActiveDirectoryVerifyAPXCertificate");
    EXPECT_EQ(proxy.TakeCalls(), "");
}

TEST_F(ProxyJoinTest, OptionIsReadBeforeTheHostName) {
    StoreOption("2");
    const faults::Scope scope;
    faults::hooks.getHostName = [](char*, std::size_t) {
        ADD_FAILURE() << "the host name is asked for";
        return -1;
    };
    EXPECT_THROW(Join(), InvalidVerifyAPXCertificateOptionException);
}

TEST_F(ProxyJoinTest, HostNameHasToBeHadAndResolved) {
    WriteFile(proxyProviderFile, "broken\n"); // read only afterwards
    const faults::Scope scope;
    const auto refusal = [&] { return TextOf<InvalidHostNameException>([&] { Join(); }); };
    faults::hooks.getHostName = [](char*, std::size_t) { return -1; };
    EXPECT_EQ(refusal(), "The current hostname is invalid: unable to get hostname");
    faults::hooks = faults::Hooks();
    for (const int code : {HOST_NOT_FOUND, TRY_AGAIN, NO_RECOVERY, NO_DATA}) {
        faults::hooks.resolveReentrantly = [code](const char* name, hostent** result, int* error) {
            EXPECT_STREQ(name, "web1.corp.example") << "the whole name, not the short one";
            *result = nullptr;
            *error = code;
            return 1;
        };
        EXPECT_EQ(refusal(), std::string("The current hostname is invalid: ") + hstrerror(code));
    }
    faults::hooks.resolveReentrantly = [](const char*, hostent** result, int*) {
        *result = nullptr;
        return 0;
    };
    EXPECT_EQ(refusal(), "The current hostname is invalid: hostname cannot be resolved");
    ExpectNothingDone();
}

TEST_F(ProxyJoinTest, ResolverHasAKibibyteForItsAnswer) {
    const auto hosts = [](std::size_t aliases) {
        std::string line = "10.99.7.5 web1.corp.example web1";
        for (std::size_t i = 0; i < aliases; ++i) {
            line += " alias" + std::to_string(i) + ".of.this.host";
        }
        return line + "\n";
    };
    Name("web1", hosts(31)); // they take their texts and a pointer to each
    Join();
    EXPECT_EQ(Questions().front(), AccountQuestion("web1.corp.example", "(null)"));
    Name("web1", hosts(36));
    EXPECT_EQ(TextOf<InvalidHostNameException>([&] { Join(); }),
              std::string("The current hostname is invalid: ") + hstrerror(NETDB_INTERNAL));
}

TEST_F(ProxyJoinTest, NamesGoWhereTheyBelong) {
    struct Row {
        const char *name, *hosts, *full, *shortName;
    };
    const Row table[] = {
        {"web1", "10.99.7.5 web1.corp.example web1\n", "web1.corp.example", "web1"},
        {"web1.corp.example", "10.99.7.5 web1.corp.example\n", "web1.corp.example", "web1"},
        {"web1", "10.99.7.5 web1\n", "web1", "web1"}, // what the resolver says
        {"web1.a.b", "10.99.7.5 web9.other.example web1.a.b\n", "web9.other.example", "web1"},
        {"Web1", "10.99.7.5 WEB1.Corp.Example Web1\n", "WEB1.Corp.Example", "Web1"},
    };
    for (const Row& row : table) {
        SCOPED_TRACE(row.hosts);
        provider->reset();
        Name(row.name, row.hosts);
        Join();
        EXPECT_EQ(Questions().front(), AccountQuestion(row.full, "(null)"));
        const Words arguments = Arguments("joinDomainWithMachineAccount");
        EXPECT_EQ(arguments[4], row.shortName);
        EXPECT_EQ(arguments[5], "corp.example") << "as the proxy says";
        EXPECT_EQ(StoredDomain(), "corp.example");
    }
}

TEST_F(ProxyJoinTest, ClientOfTheSettings) {
    const auto refusal = [&] { return TextOf<InvalidAPXProxyProviderException>([&] { Join(); }); };
    const std::string before = "The specified APXProxy provider '";
    const std::string noneInstalled = before + "(none installed)' is invalid";
    WriteFile(proxyProviderFile, "provider =\n");
    EXPECT_EQ(refusal(), before + "(unset)' is invalid");
    WriteFile(proxyProviderFile, "provider = nowhere\n");
    EXPECT_EQ(refusal(), noneInstalled);
    std::filesystem::remove(proxyProviderFile);
    EXPECT_EQ(refusal(), noneInstalled);
    WriteFile(proxyProviderFile, "other = x\n");
    EXPECT_EQ(TextOf<InvalidKeyException>([&] { Join(); }),
              "The specified key 'provider' was not found in this configuration");
    WriteFile(proxyProviderFile, "broken\n");
    EXPECT_THROW(Join(), ConfigurationError);
    InstallPlugin(SCRIPTED_PROXY_WITHOUT_TABLE_FILE, "blind");
    WriteFile(proxyProviderFile, "provider = blind\n");
    EXPECT_EQ(refusal(), before + "blind' is invalid: " + pluginDirectory +
                             "libblind.so: undefined symbol: APXProxyClientOperations");
    InstallPlugin(SCRIPTED_PROXY_WITHOUT_ENTRY_2_FILE, "half");
    WriteFile(proxyProviderFile, "provider = half\n");
    EXPECT_THROW(Join(), std::logic_error);
    ExpectNothingDone();
}

TEST_F(ProxyJoinTest, ClientIsReadBeforeTheTrustedCertificate) {
    StoreOption("1"); // and no certificate stored
    WriteFile(proxyProviderFile, "provider =\n");
    EXPECT_THROW(Join(), InvalidAPXProxyProviderException);
    WriteFile(proxyProviderFile, "provider = nowhere\n"); // opened only afterwards
    EXPECT_THROW(Join(), InvalidThumbprintStoreException);
}

TEST_F(ProxyJoinTest, VerifiesAgainstTheStoredCertificate) {
    StoreOption("1");
    ActiveDirectoryConfigStore().StoreAuthProxyCertInfo(thumbprint, "PEM");
    Join();
    const std::string trusted = std::string("|1|") + thumbprint + "|PEM";
    const std::string domain = std::string("getDomainInfo|") + address + trusted;
    EXPECT_EQ(Questions(), (Words{std::string("createMachineAccount|") + address +
                                      "|web1.corp.example|(null)" + trusted,
                                  domain, domain, domain}));
    ActiveDirectoryConfigStore().StoreAuthProxyCertInfo(thumbprint, "");
    Join();
    EXPECT_EQ(Questions()[1],
              std::string("getDomainInfo|") + address + "|1|" + thumbprint + "|(null)");
}

TEST_F(ProxyJoinTest, NothingStoredToVerifyAgainst) {
    StoreOption("1");
    EXPECT_EQ(TextOf<InvalidThumbprintStoreException>([&] { Join(); }),
              "The specified thumbprint store 'auth_proxy_certificate' is invalid");
    EXPECT_EQ(log.TakeLines(), (Lines{{LOG_ERR, "Unable to fetch thumbprint from Config Store: "
                                                "Failed to get the requested object"}}));
    EXPECT_EQ(proxy.TakeCalls(), "");
}

TEST_F(ProxyJoinTest, StoreThatCannotBeReadToVerifyAgainst) {
    StoreOption("1");
    const faults::Scope scope;
    std::string reason;
    faults::hooks.getHostName = [&](char* name, std::size_t size) { // after the option was read
        reason = BreakConfigStore();
        std::snprintf(name, size, "web1.corp.example");
        return 0;
    };
    EXPECT_EQ(TextOf<InvalidThumbprintStoreException>([&] { Join(); }),
              "The specified thumbprint store 'auth_proxy_certificate' is invalid");
    EXPECT_EQ(log.TakeLines(),
              (Lines{{LOG_ERR, "Unable to fetch thumbprint from Config Store: " + reason}}));
    EXPECT_EQ(proxy.TakeCalls(), "");
}

TEST_F(ProxyJoinTest, WithoutVerificationNothingStoredIsRead) {
    ActiveDirectoryConfigStore().StoreAuthProxyCertInfo(thumbprint, "PEM");
    Join();
    for (const std::string& question : Questions()) {
        EXPECT_EQ(question.find(thumbprint), std::string::npos);
        EXPECT_EQ(question.find("PEM"), std::string::npos);
    }
}

TEST_F(ProxyJoinTest, HostNameIsSanitisedForTheProxysDomain) {
    Name("web1", "127.0.1.1 web1\n");
    Join("", false);
    EXPECT_EQ(Questions(), (Words{domainQuestion, AccountQuestion("web1", "(null)"), domainQuestion,
                                  domainQuestion, domainQuestion}))
        << "the name is resolved before it is repaired";
    EXPECT_NE(ReadFile(hostsFile).find("web1.corp.example"), std::string::npos);
    Name("linux", "127.0.1.1 linux.corp.example linux\n");
    EXPECT_EQ(TextOf<InvalidHostNameException>([&] { Join("", false); }),
              "The current hostname is invalid: hostname is in blacklist");
    EXPECT_EQ(Questions(), Words{domainQuestion}) << "no account is made";
}

TEST_F(ProxyJoinTest, SkippedCheckTouchesNothing) {
    const std::string hosts = "127.0.1.1 linux.lab.example linux\n10.99.0.10 corp.example\n";
    Name("linux", hosts);
    Join("", true);
    EXPECT_EQ(ReadFile(hostsFile), hosts);
    EXPECT_EQ(ReadFile(resolverFile), resolver);
}

TEST_F(ProxyJoinTest, EmptyUnitIsTheProxysDefaultAndStoredEmpty) {
    ActiveDirectoryConfigStore().StoreDomainInfo("old.example", "OU=Old", "");
    Join("");
    EXPECT_EQ(Questions().front(), AccountQuestion("web1.corp.example", "(null)"));
    EXPECT_EQ(ActiveDirectoryConfigStore().GetOrganizationalUnit(), "");
    EXPECT_EQ(ActiveDirectoryConfigStore().GetAuthProxyAddr(), address);
}

TEST_F(ProxyJoinTest, ProxysFailuresEndItWhereTheyHappen) {
    proxy->domainStatus = 1225;
    EXPECT_THROW(Join("", false), ConnectionRefusedException);
    EXPECT_EQ(Questions(), Words{domainQuestion}) << "step by step: nothing was created";
    for (unsigned succeeding = 0; succeeding < 3; ++succeeding) {
        proxy->domainSuccesses = succeeding;
        EXPECT_THROW(Join(), ConnectionRefusedException);
        EXPECT_EQ(Questions().size(), 2u + succeeding);
    }
    proxy->domainStatus = 0;
    proxy->accountStatus = 5;
    EXPECT_EQ(TextOf<UnknownException>([&] { Join(); }), "Exception 0x00000005: Unknown exception");
    EXPECT_EQ(Questions(), Words{AccountQuestion("web1.corp.example", "(null)")});
    proxy->accountStatus = 0x80090325u;
    EXPECT_THROW(Join(), InvalidAPXCertificateException);
    proxy.TakeCalls();
    ExpectNothingDone();
    EXPECT_EQ(Calls("partDomain"), 0u);
}

TEST_F(ProxyJoinTest, ProvidersFailureIsPassedOnAndNothingIsStored) {
    Set("joinDomainWithMachineAccount.status", "1810");
    EXPECT_THROW(Join(), DomainTrustInconsistentException);
    EXPECT_EQ(StoredDomain(), "(none)");
    EXPECT_EQ(Calls("partDomain"), 0u);
    EXPECT_EQ(Questions().size(), 4u) << "the account is not taken back";
}

TEST_F(ProxyJoinTest, JoinIsTriedAgainWithTheSameAccount) {
    const faults::Scope scope;
    std::vector<unsigned> sleeps;
    faults::hooks.sleep = [&](unsigned seconds) {
        sleeps.push_back(seconds);
        return 0u;
    };
    Set("joinDomainWithMachineAccount.status", "1326,0xffff0000,0");
    Join();
    EXPECT_EQ(sleeps, (std::vector<unsigned>{30, 30}));
    EXPECT_EQ(Questions().size(), 4u);
    EXPECT_EQ(log.TakeLines(), (Lines{{LOG_INFO, attempt},
                                      {LOG_INFO, "Adding host to domain: Attempt (2/4)"},
                                      {LOG_INFO, "Adding host to domain: Attempt (3/4)"}}));
    EXPECT_EQ(Arguments("joinDomainWithMachineAccount", 2)[8], "one-time password of the account");
}

TEST_F(ProxyJoinTest, IsUndoneWhenItCannotBeStored) {
    for (const bool opens : {true, false}) {
        const std::string reason = opens ? RefuseChanges() : "";
        static std::string broken;
        if (!opens) {
            proxy->whenCreated = [] { broken = BreakConfigStore(); };
        }
        provider->reset();
        const std::string text = TextOf<ConfigStoreException>([&] { Join(); });
        EXPECT_EQ(text, opens ? reason : broken);
        EXPECT_EQ(log.TakeLines(),
                  (Lines{{LOG_INFO, attempt},
                         {LOG_ERR, "Failed to store domain details to Config Store: " + text +
                                       ".Leaving Domain..."}}));
        EXPECT_EQ(Calls("partDomain"), 1u);
        EXPECT_EQ(provider->lastRecord("partDomain"), nullptr) << "without credentials";
    }
}

TEST_F(ProxyJoinTest, IsLoggedBeforeItIsUndone) {
    RefuseChanges();
    const faults::Scope scope;
    int logged = 0;
    faults::hooks.seeLog = [&](int priority, const char*) {
        logged += priority == LOG_ERR;
        EXPECT_EQ(Calls("partDomain"), 0u);
    };
    EXPECT_THROW(Join(), ConfigStoreException);
    EXPECT_EQ(logged, 1);
    EXPECT_EQ(Calls("partDomain"), 1u);
}

TEST_F(ProxyJoinTest, EachQuestionIsForItsOwnName) {
    // The proxy answers otherwise each time.
    static ScriptedProxy* asked;
    asked = proxy.operator->();
    proxy->whenAsked = [](unsigned before) {
        static const char* const netbiosNames[] = {"ONE", "TWO", "THREE"};
        static const char* const dnsNames[] = {"one.example", "two.example", "three.example"};
        static const char* const sids[] = {"S-1", "S-2", "S-3"};
        asked->netbiosName = netbiosNames[before];
        asked->dnsName = dnsNames[before];
        asked->domainSid = sids[before];
    };
    Join();
    const Words arguments = Arguments("joinDomainWithMachineAccount");
    EXPECT_EQ(Words(arguments.begin(), arguments.begin() + 6),
              (Words{"", "ONE", "two.example", "S-3", "web1", "two.example"}));
    EXPECT_EQ(StoredDomain(), "two.example");
}

TEST_F(ProxyJoinTest, FailureToUndoItDoesNotHideTheReason) {
    const std::string reason = RefuseChanges();
    Set("partDomain.status", "5");
    EXPECT_EQ(TextOf<ConfigStoreException>([&] { Join(); }), reason);
    EXPECT_EQ(Calls("partDomain"), 1u);
}

TEST_F(ProxyJoinTest, ClientIsClosedOnEveryPath) {
    const auto loads = [] { return IsLoaded(pluginDirectory + std::string("libother.so")); };
    InstallPlugin(SCRIPTED_PROXY_FILE, "other"); // a second one, which the test does not hold
    WriteFile(proxyProviderFile, "provider = other\n");
    const faults::Scope scope;
    faults::hooks.sleep = [&](unsigned) {
        EXPECT_TRUE(loads()) << "it lives until the end of the join";
        return 0u;
    };
    Set("joinDomainWithMachineAccount.status", "1326,0");
    Join();
    EXPECT_FALSE(loads());
    Set("joinDomainWithMachineAccount.status", "5");
    EXPECT_THROW(Join(), AccessDeniedException);
    EXPECT_FALSE(loads());
    WriteFile("/etc/tessary/scripted-proxy.conf", "accountStatus=8\n");
    EXPECT_THROW(Join(), NotEnoughMemoryException);
    EXPECT_FALSE(loads());
    std::filesystem::remove("/etc/tessary/scripted-proxy.conf");
    Name("linux", "127.0.1.1 linux.corp.example linux\n");
    EXPECT_THROW(Join("", false), InvalidHostNameException);
    EXPECT_FALSE(loads());
    Name("web1.corp.example", "10.99.7.5 web1.corp.example web1\n");
    EXPECT_EQ(store.GetDomainForAPXService(address), "corp.example");
    EXPECT_FALSE(loads());
}

TEST_F(ProxyJoinTest, DomainOfAProxyIsAskedForWithoutVerification) {
    StoreOption("1");
    ActiveDirectoryConfigStore().StoreAuthProxyCertInfo(thumbprint, "PEM");
    EXPECT_EQ(store.GetDomainForAPXService(address), "corp.example");
    EXPECT_EQ(Questions(), Words{domainQuestion});
    proxy->domainStatus = 10060;
    EXPECT_THROW(store.GetDomainForAPXService(address), WSATimedOutException);
    proxy->domainStatus = 0;
    BreakConfigStore();
    const faults::Scope scope;
    faults::hooks.getHostName = [](char*, std::size_t) {
        ADD_FAILURE() << "the host name is asked for";
        return -1;
    };
    EXPECT_EQ(store.GetDomainForAPXService(address), "corp.example") << "it needs no store either";
    EXPECT_EQ(log.TakeLines(), Lines());
}

TEST_F(ProxyJoinTest, DomainOfAProxyNeedsAClient) {
    const auto ask = [&] { store.GetDomainForAPXService(address); };
    WriteFile(proxyProviderFile, "provider = \"\"\n");
    EXPECT_EQ(TextOf<InvalidAPXProxyProviderException>(ask),
              "The specified APXProxy provider '(unset)' is invalid");
    std::filesystem::remove(proxyProviderFile);
    EXPECT_EQ(TextOf<InvalidAPXProxyProviderException>(ask),
              "The specified APXProxy provider '(none installed)' is invalid");
    WriteFile(proxyProviderFile, "provider = nowhere\n");
    // Kept on purpose: unlike in a join, the loader's text comes out.
    EXPECT_EQ(TextOf<IOError>(ask).rfind("Unable to open APX provider: ", 0), 0u);
    ExpectNothingDone();
}

} // namespace
