#include <syslog.h>
#include <unistd.h>

#include <filesystem>

#include "faults.h"
#include "log_recorder.h"
#include "orvcfg/config_store.h"
#include "scripted_host.h"
#include "spoiled_store.h"
#include "tesauth/config_store.h"
#include "tesauth/configuration.h"
#include "test_store.h"

namespace {

using namespace tessary::authentication;
using namespace scripted;
using OrvConfigStore::ConfigStoreException;

using Words = std::vector<std::string>;
using Lines = std::vector<std::pair<int, std::string>>;

const Credentials joiner = {"joiner", "secret"};
class MembershipTest : public ProviderTest {
protected:
    MembershipTest() { TestStore::ResetCache(); }
    ~MembershipTest() override {
        provider->reset();
        TestStore::WaitUntilIdle();
        TestStore::ResetCache();
    }

    Lines Log() { return log.TakeLines(); }

    LogRecorder log;
    TestStore store{10};
};

using ConstructionTest = MembershipTest;

TEST_F(ConstructionTest, LoadsTheProviderThatTheSettingsName) {
    const TestStore other(17);
    EXPECT_EQ(other.timeoutSeconds, 17);
    ASSERT_NE(other.provider, nullptr);
    EXPECT_EQ(other.provider->PAMModule(), "pam_scripted.so");
}

TEST_F(ConstructionTest, SettingsThatNameNoUsableProvider) {
    struct Row {
        const char *file, *text;
    };
    const Row table[] = {
        {nullptr, "The specified Active Directory provider '(none installed)' is invalid"},
        {"provider =\n", "The specified Active Directory provider '(unset)' is invalid"},
        {"provider = \"\"\n", "The specified Active Directory provider '(unset)' is invalid"},
        {"provider = nowhere\n", "The specified Active Directory provider 'nowhere' is invalid"},
    };
    for (const Row& row : table) {
        std::filesystem::remove(providerFile);
        if (row.file != nullptr) {
            WriteFile(providerFile, row.file);
        }
        EXPECT_EQ(TextOf<InvalidActiveDirectoryProviderException>([] { ActiveDirectoryStore(1); }),
                  row.text);
    }
}

TEST_F(ConstructionTest, ProviderThatIsRefusedTellsWhy) {
    InstallPlugin(SCRIPTED_PROVIDER_WITHOUT_METADATA_FILE, "blind");
    WriteFile(providerFile, "provider = blind\n");
    EXPECT_EQ(TextOf<InvalidActiveDirectoryProviderException>([] { ActiveDirectoryStore(1); }),
              "The specified Active Directory provider 'blind' is invalid: /usr/libexec/tesauth/"
              "libblind.so: undefined symbol: ActiveDirectoryClientMetadata");
}

TEST_F(ConstructionTest, SettingsThatAreBrokenFailAsTheyAre) {
    WriteFile(providerFile, "broken\n");
    EXPECT_THROW(ActiveDirectoryStore(1), ConfigurationError);
    WriteFile(providerFile, "other = x\n");
    EXPECT_EQ(TextOf<InvalidKeyException>([] { ActiveDirectoryStore(1); }),
              "The specified key 'provider' was not found in this configuration");
}

using ActivationTest = MembershipTest;

TEST_F(ActivationTest, RecordsTheStoreAndRefreshes) {
    WriteFile(authenticationFile, "zeta = 1\nremote-authentication-store = Noted\n");
    store.MakeActive();
    EXPECT_EQ(ReadFile(authenticationFile),
              "remote-authentication-store = \"Active Directory\"\nzeta = \"1\"\n");
    EXPECT_TRUE(store.IsActive());
    EXPECT_EQ(Calls("getActiveDomain"), 1u);
    EXPECT_EQ(Calls("getSmartCardEnabledServices"), 1u);
    EXPECT_EQ(log.Take().size(), 1u);
}

TEST_F(ActivationTest, PolicyStaysAsItIs) {
    TestStore::Cache().SetPcscdSvcPolicyOn(true);
    store.MakeActive();
    EXPECT_TRUE(TestStore::Cache().IsSmartCardAuthenticationEnabled(nullptr, 0));
    store.MakeInactive();
    EXPECT_TRUE(TestStore::Cache().IsSmartCardAuthenticationEnabled(nullptr, 0));
}

TEST_F(ActivationTest, SettingsThatCannotBeChangedEndIt) {
    std::filesystem::remove(authenticationFile);
    EXPECT_THROW(store.MakeActive(), IOError);
    WriteFile(authenticationFile, "other = 1\n");
    EXPECT_THROW(store.MakeActive(), InvalidKeyException);
    WriteFile(authenticationFile, "remote-authentication-store = None\n");
    const faults::Scope scope;
    faults::hooks.rename = [](const char*) { return EROFS; };
    EXPECT_THROW(store.MakeActive(), IOError);
    EXPECT_EQ(ReadFile(authenticationFile), "remote-authentication-store = None\n");
    EXPECT_EQ(Calls("getActiveDomain"), 0u) << "nothing is refreshed";
}

TEST_F(ActivationTest, ProvidersFailureDoesNotHinderIt) {
    Set("getActiveDomain.status", "1355");
    Set("getMachineAccountDN.status", "1355");
    EXPECT_NO_THROW(store.MakeActive());
    EXPECT_TRUE(store.IsActive());
}

TEST_F(ActivationTest, DeactivationRefreshesAndLeavesTheSettingsAlone) {
    store.MakeActive();
    const std::string before = ReadFile(authenticationFile);
    store.MakeInactive();
    EXPECT_EQ(ReadFile(authenticationFile), before);
    EXPECT_EQ(Calls("getActiveDomain"), 2u);
    EXPECT_EQ(Calls("partDomain"), 0u);
}

using JoinTest = MembershipTest;

TEST_F(JoinTest, CredentialsAreCheckedFirst) {
    struct Row {
        Credentials credentials;
        const char* text;
    };
    const char* const noPassword =
        "The credentials that were provided were invalid: empty or no password was specified; the "
        "account must have a non-empty password to join the host to domain";
    const Row table[] = {
        {{nullptr, "secret"},
         "The credentials that were provided were invalid: no username was specified"},
        {{nullptr, nullptr},
         "The credentials that were provided were invalid: no username was specified"},
        {{"joiner", nullptr}, noPassword},
        {{"joiner", ""}, noPassword},
        {{"", ""}, noPassword},
    };
    const std::string hosts = ReadFile("/etc/hosts");
    for (const bool skip : {true, false}) {
        for (const Row& row : table) {
            EXPECT_EQ(TextOf<InvalidCredentialsException>(
                          [&] { store.JoinDomain("corp.example", row.credentials, skip); }),
                      row.text);
        }
    }
    EXPECT_EQ(Calls("joinDomain"), 0u);
    EXPECT_EQ(ReadFile("/etc/hosts"), hosts);
    EXPECT_EQ(StoredDomain(), "(none)");
}

TEST_F(JoinTest, EmptyUserNameIsTheProvidersToJudge) {
    store.JoinDomain("corp.example", {"", "secret"}, true);
    EXPECT_EQ(Arguments("joinDomain"), (Words{"corp.example", "(null)", "", "secret"}));
}

TEST_F(JoinTest, PathIsSplitAtItsFirstSlash) {
    struct Row {
        const char *path, *domain, *unit;
    };
    const Row table[] = {
        {"corp.example", "corp.example", ""},
        {"corp.example/Servers", "corp.example", "Servers"},
        {"corp.example/Servers/Hosts", "corp.example", "Servers/Hosts"},
        {"corp.example/", "corp.example", ""},
        {"corp.example//x/", "corp.example", "/x/"},
        {"/Servers", "", "Servers"},
        {"", "", ""},
    };
    for (const Row& row : table) {
        provider->reset();
        store.JoinDomain(row.path, joiner, true);
        EXPECT_EQ(Arguments("joinDomain"),
                  (Words{row.domain, *row.unit != '\0' ? row.unit : "(null)", "joiner", "secret"}));
        EXPECT_EQ(provider->lastRecord("joinDomain"), &joiner);
        EXPECT_EQ(StoredDomain(), row.domain);
        EXPECT_EQ(ActiveDirectoryConfigStore().GetOrganizationalUnit(), row.unit);
        EXPECT_EQ(ActiveDirectoryConfigStore().GetAuthProxyAddr(), "");
    }
}

TEST_F(JoinTest, ReplacesWhatAnEarlierJoinStored) {
    ActiveDirectoryConfigStore().StoreDomainInfo("old.example", "Old", "proxy.example");
    store.JoinDomain("corp.example", joiner, true);
    EXPECT_EQ(StoredDomain(), "corp.example");
    EXPECT_EQ(ActiveDirectoryConfigStore().GetOrganizationalUnit(), "");
    EXPECT_EQ(ActiveDirectoryConfigStore().GetAuthProxyAddr(), "");
}

TEST_F(JoinTest, ProvidersFailureStoresNothing) {
    Set("joinDomain.status", "86");
    EXPECT_THROW(store.JoinDomain("corp.example", joiner, true), InvalidPasswordException);
    EXPECT_EQ(StoredDomain(), "(none)");
    EXPECT_EQ(Calls("partDomain"), 0u);
    EXPECT_EQ(Log(), Lines());
}

TEST_F(JoinTest, IsUndoneWhenItCannotBeStored) {
    const std::string reason = BreakConfigStore();
    EXPECT_EQ(TextOf<ConfigStoreException>([&] { store.JoinDomain("corp.example", joiner, true); }),
              reason);
    EXPECT_EQ(Log(), (Lines{{LOG_ERR, "Failed to store domain details to Config Store: " + reason +
                                          ".Leaving Domain..."}}));
    EXPECT_EQ(Calls("joinDomain"), 1u);
    EXPECT_EQ(Calls("partDomain"), 1u);
    EXPECT_EQ(provider->lastRecord("partDomain"), nullptr) << "without credentials";
}

TEST_F(JoinTest, IsUndoneWhenTheOpenedStoreRefusesTheChange) {
    const std::string reason = RefuseChanges();
    EXPECT_EQ(TextOf<ConfigStoreException>([&] { store.JoinDomain("corp.example", joiner, true); }),
              reason);
    EXPECT_EQ(Log(), (Lines{{LOG_ERR, "Failed to store domain details to Config Store: " + reason +
                                          ".Leaving Domain..."}}));
    EXPECT_EQ(Calls("partDomain"), 1u);
    EXPECT_EQ(provider->lastRecord("partDomain"), nullptr) << "without credentials";
    EXPECT_EQ(StoredDomain(), "(none)");
}

TEST_F(JoinTest, FailureToUndoItDoesNotHideTheReason) {
    const std::string reason = BreakConfigStore();
    Set("partDomain.status", "5");
    EXPECT_EQ(TextOf<ConfigStoreException>([&] { store.JoinDomain("corp.example", joiner, true); }),
              reason);
    EXPECT_EQ(Calls("partDomain"), 1u);
    Set("partDomain.missing", "1");
    EXPECT_THROW(store.JoinDomain("corp.example", joiner, true), ConfigStoreException);
}

TEST_F(JoinTest, CacheLearnsOfItAtTheNextQuery) {
    store.JoinDomain("corp.example", joiner, true);
    EXPECT_FALSE(TestStore::Cache().IsDomainMember());
    EXPECT_EQ(Calls("getActiveDomain"), 0u);
}

using LeaveTest = MembershipTest;

TEST_F(LeaveTest, RemovesWhatIsStored) {
    store.JoinDomain("corp.example", joiner, true);
    store.PartDomain();
    EXPECT_EQ(provider->lastRecord("partDomain"), nullptr);
    EXPECT_EQ(StoredDomain(), "(none)");
    store.PartDomain();
    EXPECT_EQ(Calls("partDomain"), 2u) << "nothing stored is no failure";
}

TEST_F(LeaveTest, ProvidersFailureKeepsWhatIsStored) {
    store.JoinDomain("corp.example", joiner, true);
    Set("partDomain.status", "1355");
    EXPECT_THROW(store.PartDomain(), NoSuchDomainException);
    EXPECT_EQ(StoredDomain(), "corp.example");
    EXPECT_EQ(Log(), Lines());
}

TEST_F(LeaveTest, StoreThatFailsIsLoggedAndThrown) {
    const std::string reason = BreakConfigStore();
    EXPECT_EQ(TextOf<ConfigStoreException>([&] { store.PartDomain(); }), reason);
    EXPECT_EQ(Log(),
              (Lines{{LOG_ERR, "Failed to remove domain details from Config Store: " + reason}}));
    EXPECT_EQ(Calls("partDomain"), 1u);
}

TEST_F(LeaveTest, OpenedStoreThatRefusesTheChangeIsLoggedAndThrown) {
    store.JoinDomain("corp.example", joiner, true);
    RefuseChanges();
    const std::string reason =
        TextOf<ConfigStoreException>([] { ActiveDirectoryConfigStore().RemoveDomainInfo(); });
    EXPECT_NE(reason.find("refused"), std::string::npos) << reason;
    EXPECT_EQ(TextOf<ConfigStoreException>([&] { store.PartDomain(); }), reason);
    EXPECT_EQ(Log(),
              (Lines{{LOG_ERR, "Failed to remove domain details from Config Store: " + reason}}));
    EXPECT_EQ(Calls("partDomain"), 1u);
    EXPECT_EQ(StoredDomain(), "corp.example");
}

TEST_F(LeaveTest, WithCredentialsKeepsWhatIsStored) {
    store.JoinDomain("corp.example/Servers", joiner, true);
    store.PartDomain(joiner);
    EXPECT_EQ(provider->lastRecord("partDomain"), &joiner);
    EXPECT_EQ(StoredDomain(), "corp.example");
    EXPECT_EQ(ActiveDirectoryConfigStore().GetOrganizationalUnit(), "Servers");
    Set("partDomain.status", "5");
    EXPECT_THROW(store.PartDomain(joiner), AccessDeniedException);
    BreakConfigStore();
    Set("partDomain.status", "0");
    EXPECT_NO_THROW(store.PartDomain(joiner)) << "the store is not opened";
}

} // namespace
