#include "tesauth/apx_proxy.h"

#include <cstddef>
#include <filesystem>
#include <optional>
#include <stdexcept>

#include "scripted_proxy_host.h"
#include "tesauth/exceptions.h"

namespace {

using namespace tessary::authentication;
using namespace scripted;

const std::string folder = pluginDirectory;

/// A host with no plug-in but those that a test installs.
class APXProxyLoadingTest : public HostTest {
protected:
    std::string LoadError(const std::string& name) {
        return TextOf<IOError>([&] { APXProxy(name, "10.0.0.1", false, "", ""); });
    }
    std::string InvalidError(const std::string& name) {
        return TextOf<InvalidAPXProxyProviderException>(
            [&] { APXProxy(name, "10.0.0.1", false, "", ""); });
    }
};

TEST_F(APXProxyLoadingTest, LoadsAndUnloads) {
    for (const std::string subfolder : {"", "lib64/"}) {
        InstallPlugin(SCRIPTED_PROXY_FILE, "one", subfolder);
        {
            const APXProxy proxy("one", "10.0.0.1", false, "", "");
            const APXProxy second("one", "10.0.0.1", false, "", "");
            EXPECT_TRUE(IsLoaded(folder + subfolder + "libone.so"));
        }
        EXPECT_FALSE(IsLoaded(folder + subfolder + "libone.so"));
    }
}

TEST_F(APXProxyLoadingTest, StaysLoadedAsLongAsOneObjectLives) {
    InstallPlugin(SCRIPTED_PROXY_FILE, "one");
    auto first = std::make_unique<APXProxy>("one", "10.0.0.1", false, "", "");
    const APXProxy second("one", "10.0.0.1", false, "", "");
    first.reset();
    EXPECT_TRUE(IsLoaded(folder + "libone.so"));
    EXPECT_EQ(second.GetDNSDomainName(), "corp.example");
}

TEST_F(APXProxyLoadingTest, FirstFolderGoesBeforeTheSecond) {
    InstallPlugin(SCRIPTED_PROXY_FILE, "two");
    InstallPlugin(SCRIPTED_PROXY_FILE, "two", "lib64/");
    const APXProxy proxy("two", "10.0.0.1", false, "", "");
    EXPECT_TRUE(IsLoaded(folder + "lib64/libtwo.so"));
    EXPECT_FALSE(IsLoaded(folder + "libtwo.so"));
}

TEST_F(APXProxyLoadingTest, ErrorIsTheLoadersForTheSecondPath) {
    EXPECT_EQ(LoadError("none"), "Unable to open APX provider: " + folder +
                                     "libnone.so: cannot open shared object file: No such file or "
                                     "directory");
    std::filesystem::create_directories(folder + "lib64");
    WriteFile(folder + "lib64/libbad.so", "bad");
    WriteFile(folder + "libbad.so", "bad");
    EXPECT_EQ(LoadError("bad"),
              "Unable to open APX provider: " + folder + "libbad.so: file too short");
    EXPECT_EQ(LoadError(""), "Unable to open APX provider: " + folder +
                                 "lib.so: cannot open shared object file: No such file or "
                                 "directory");
}

TEST_F(APXProxyLoadingTest, NameIsUsedAsGiven) {
    std::filesystem::create_directories(folder + "libdir");
    std::filesystem::copy_file(SCRIPTED_PROXY_FILE, folder + "libdir/x.so");
    std::filesystem::create_directories(folder + "other");
    std::filesystem::copy_file(SCRIPTED_PROXY_FILE, folder + "other/liby.so");
    EXPECT_NO_THROW(APXProxy("dir/x", "10.0.0.1", false, "", ""));
    EXPECT_NO_THROW(APXProxy("dir/../other/liby", "10.0.0.1", false, "", ""));
}

TEST_F(APXProxyLoadingTest, MissingTableTellsTheLoadersText) {
    InstallPlugin(SCRIPTED_PROXY_WITHOUT_TABLE_FILE, "blind");
    dlopen("/nowhere/libpending.so", RTLD_LAZY); // leaves an error that is not ours
    EXPECT_EQ(InvalidError("blind"),
              "The specified APXProxy provider 'blind' is invalid: " + folder +
                  "libblind.so: undefined symbol: APXProxyClientOperations");
    EXPECT_FALSE(IsLoaded(folder + "libblind.so"));
    try {
        APXProxy("blind", "10.0.0.1", false, "", "");
    } catch (const InvalidAPXProxyProviderException& failure) {
        EXPECT_EQ(failure.GetCode(), 0u);
    }
}

TEST_F(APXProxyLoadingTest, MissingEntryIsALogicError) {
    for (const auto& [file, name] : {std::pair(SCRIPTED_PROXY_WITHOUT_ENTRY_1_FILE, "first"),
                                     std::pair(SCRIPTED_PROXY_WITHOUT_ENTRY_2_FILE, "second"),
                                     std::pair(SCRIPTED_PROXY_WITHOUT_ENTRY_3_FILE, "third")}) {
        InstallPlugin(file, name);
        dlopen("/nowhere/libpending.so", RTLD_LAZY);
        EXPECT_THROW(APXProxy(name, "10.0.0.1", false, "", ""), std::logic_error) << name;
        EXPECT_FALSE(IsLoaded(folder + "lib" + name + ".so")) << name;
    }
}

class APXProxyTest : public HostTest {
protected:
    APXProxy Proxy(const std::string& thumbprint = "", const std::string& certificate = "",
                   bool verify = false) {
        return {"script", "10.0.0.1", verify, thumbprint, certificate};
    }

    const InstalledProxy script;
};

TEST_F(APXProxyTest, DomainInformationIsCopiedAndGivenBackInOrder) {
    std::string netbiosName = "old", dnsName = "old", domainSid = "old";
    Proxy().GetDomainInfo(netbiosName, dnsName, domainSid);
    EXPECT_EQ(netbiosName, "CORP");
    EXPECT_EQ(dnsName, "corp.example");
    EXPECT_EQ(domainSid, "S-1-5-21-1-2-3");
    EXPECT_EQ(script.TakeCalls(), "getDomainInfo|10.0.0.1|0||(null)\n"
                                  "freeString|CORP\nfreeString|corp.example\n"
                                  "freeString|S-1-5-21-1-2-3\n");
    EXPECT_EQ(script->outstanding, 0);
}

TEST_F(APXProxyTest, EachQuestionIsARoundTripOfItsOwn) {
    const APXProxy proxy = Proxy();
    const std::string trip = "getDomainInfo|10.0.0.1|0||(null)\n"
                             "freeString|CORP\nfreeString|corp.example\n"
                             "freeString|S-1-5-21-1-2-3\n";
    EXPECT_EQ(proxy.GetNetBIOSDomainName(), "CORP");
    EXPECT_EQ(script.TakeCalls(), trip);
    EXPECT_EQ(proxy.GetDNSDomainName(), "corp.example");
    EXPECT_EQ(script.TakeCalls(), trip);
    EXPECT_EQ(proxy.GetDomainSID(), "S-1-5-21-1-2-3");
    EXPECT_EQ(script.TakeCalls(), trip);
    script->dnsName = "new.example";
    EXPECT_EQ(proxy.GetDNSDomainName(), "new.example");
}

TEST_F(APXProxyTest, ControllerAndContainerAreEmptyAndAskNobody) {
    script->domainStatus = script->accountStatus = 5;
    const APXProxy proxy = Proxy();
    EXPECT_EQ(proxy.GetDomainController(), "");
    EXPECT_EQ(proxy.GetDefaultComputerContainer(), "");
    EXPECT_EQ(script.TakeCalls(), "");
}

TEST_F(APXProxyTest, TrustedCertificateIsPassedOn) {
    std::string a, b, c;
    struct Row {
        const char *thumbprint, *certificate;
        bool verify;
        const char* arguments;
    };
    const Row table[] = {
        {"", "", false, "|0||(null)"},          {"", "", true, "|1||(null)"},
        {"0A:1B", "", true, "|1|0A:1B|(null)"}, {"0A:1B", "PEM", true, "|1|0A:1B|PEM"},
        {"", "PEM", false, "|0||PEM"},
    };
    for (const Row& row : table) {
        const APXProxy proxy = Proxy(row.thumbprint, row.certificate, row.verify);
        proxy.GetDomainInfo(a, b, c);
        EXPECT_EQ(
            script.TakeCalls().find("getDomainInfo|10.0.0.1" + std::string(row.arguments) + "\n"),
            0u);
        proxy.CreateMachineAccount("web1.corp.example", "");
        EXPECT_EQ(script.TakeCalls().find("createMachineAccount|10.0.0.1|web1.corp.example|(null)" +
                                          std::string(row.arguments) + "\n"),
                  0u);
    }
}

TEST_F(APXProxyTest, MachineAccount) {
    const ComputerPrincipalInfo account =
        Proxy("0A", "PEM", true).CreateMachineAccount("web1.corp.example", "OU=Hosts");
    EXPECT_EQ(account.reserved, "");
    EXPECT_EQ(account.accountName, "WEB1$");
    EXPECT_EQ(account.password, "one-time password of the account");
    EXPECT_EQ(script.TakeCalls(),
              "createMachineAccount|10.0.0.1|web1.corp.example|OU=Hosts|1|0A|PEM\n"
              "freeString|WEB1$\nfreeString|one-time password of the account\n");
    Proxy().CreateMachineAccount("", "");
    EXPECT_EQ(script.TakeCalls().find("createMachineAccount|10.0.0.1||(null)|0||(null)\n"), 0u);
    EXPECT_EQ(script->outstanding, 0);
}

TEST_F(APXProxyTest, OutputsThatStayNullAreEmptyAndNotGivenBack) {
    script->dnsName = nullptr;
    script->accountName = nullptr;
    std::string netbiosName = "old", dnsName = "old", domainSid = "old";
    Proxy().GetDomainInfo(netbiosName, dnsName, domainSid);
    EXPECT_EQ(dnsName, "");
    EXPECT_EQ(script.TakeCalls(), "getDomainInfo|10.0.0.1|0||(null)\n"
                                  "freeString|CORP\nfreeString|S-1-5-21-1-2-3\n");
    EXPECT_EQ(Proxy().CreateMachineAccount("h", "").accountName, "");
    EXPECT_EQ(script->outstanding, 0);
}

/// The class that a status comes out as; the text is checked beside it.
template <typename Failure>
void ExpectFailure(const std::function<void()>& action, unsigned long code,
                   const std::string& text) {
    try {
        action();
        ADD_FAILURE() << "nothing was thrown";
    } catch (const Exception& failure) {
        EXPECT_EQ(typeid(failure), typeid(Failure)) << typeid(failure).name();
        EXPECT_EQ(failure.GetCode(), code);
        EXPECT_EQ(failure.what(), text);
    }
}

TEST_F(APXProxyTest, StatusesBecomeExceptions) {
    const auto check = [&](uint32_t status, auto type, unsigned long code,
                           const std::string& text) {
        using Failure = typename decltype(type)::type;
        SCOPED_TRACE(status);
        script->domainStatus = script->accountStatus = status;
        std::string netbiosName = "a", dnsName = "b", domainSid = "c";
        ExpectFailure<Failure>([&] { Proxy().GetDomainInfo(netbiosName, dnsName, domainSid); },
                               code, text);
        EXPECT_EQ(netbiosName + dnsName + domainSid, "abc") << "they keep what they held";
        ExpectFailure<Failure>([&] { Proxy().GetNetBIOSDomainName(); }, code, text);
        ExpectFailure<Failure>([&] { Proxy().GetDNSDomainName(); }, code, text);
        ExpectFailure<Failure>([&] { Proxy().GetDomainSID(); }, code, text);
        ExpectFailure<Failure>([&] { Proxy().CreateMachineAccount("h", ""); }, code, text);
        EXPECT_EQ(script.TakeCalls().find("freeString"), std::string::npos);
    };
    check(2148074277u, std::common_type<InvalidAPXCertificateException>(), 0,
          "The APX server's certificate cannot be verified.");
    check(10060, std::common_type<WSATimedOutException>(), 10060,
          "Exception 0x0000274c: A connection attempt failed because the connected party did not "
          "properly respond after a period of time, or established connection failed because "
          "connected host has failed to respond.");
    check(1229, std::common_type<ConnectionInvalidException>(), 1229,
          "Exception 0x000004cd: An operation was attempted on a nonexistent network connection.");
    check(1225, std::common_type<ConnectionRefusedException>(), 1225,
          "Exception 0x000004c9: The remote computer refused the network connection.");
    check(8, std::common_type<NotEnoughMemoryException>(), 8,
          "Exception 0x00000008: Not enough memory");
    // All others, also those that a directory provider's mapping knows.
    check(5, std::common_type<UnknownException>(), 5, "Exception 0x00000005: Unknown exception");
    check(87, std::common_type<UnknownException>(), 87, "Exception 0x00000057: Unknown exception");
    check(1355, std::common_type<UnknownException>(), 1355,
          "Exception 0x0000054b: Unknown exception");
    check(1, std::common_type<UnknownException>(), 1, "Exception 0x00000001: Unknown exception");
    check(0xFFFFFFFFu, std::common_type<UnknownException>(), 0xFFFFFFFFul,
          "Exception 0xffffffff: Unknown exception");
}

TEST(APXProxyLayoutTest, Table) {
    using Table = APXProxyClientOperations;
    constexpr std::size_t word = sizeof(void*);
    EXPECT_EQ(sizeof(Table), 4 * word);
    EXPECT_EQ(offsetof(Table, reserved), 0u);
    EXPECT_EQ(offsetof(Table, getDomainInfo), word);
    EXPECT_EQ(offsetof(Table, createMachineAccount), 2 * word);
    EXPECT_EQ(offsetof(Table, freeString), 3 * word);
}

} // namespace
