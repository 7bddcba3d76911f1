#include <sys/stat.h>

#include <filesystem>
#include <memory>
#include <stdexcept>
#include <typeinfo>

#include "faults.h"
#include "log_recorder.h"
#include "scripted_host.h"
#include "tesauth/tesauth.h"
#include "test_store.h"

namespace {

using namespace tessary::authentication;
using namespace scripted;

using Factory = AuthenticationStoreFactory;

const std::string adName = "Active Directory";

AuthenticationStoreFactory* Current() {
    return Singleton<AuthenticationStoreFactory>::_instance;
}

const std::type_info& ClassOf(const AuthenticationStore& store) {
    return typeid(store);
}

std::string ActiveName() {
    return AuthenticationConfiguration()["remote-authentication-store"];
}

void NameActive(const std::string& name) {
    WriteFile(authenticationFile, "remote-authentication-store = \"" + name + "\"\n");
}

/// A remote store that notes what is done to it.
class NotedStore : public RemoteAuthenticationStore {
public:
    explicit NotedStore(std::vector<std::string>& notes) : notes_(notes) {}
    ~NotedStore() override { notes_.push_back("destroyed"); }
    StoreConfiguration* GetStoreConfiguration() const override { return nullptr; }
    std::string GetDisplayName() const override { return "Noted"; }
    void MakeActive() override { notes_.push_back("active"); }
    void MakeInactive() override { notes_.push_back("inactive, file says " + ActiveName()); }

private:
    std::vector<std::string>& notes_;
};

/// A store that cannot be torn down.
class StubbornStore : public NotedStore {
public:
    using NotedStore::NotedStore;
    void MakeInactive() override { throw std::domain_error("stubborn"); }
};

/// A store that is no remote store.
class LocalStore : public AuthenticationStore {
public:
    StoreConfiguration* GetStoreConfiguration() const override { return nullptr; }
    std::string GetDisplayName() const override { return "Local"; }
    bool IsActive() const override { return false; }
    void MakeActive() override {}
};

class FactoryTest : public ProviderTest {
protected:
    ~FactoryTest() override {
        TestStore::WaitUntilIdle();
        TestStore::ResetCache();
    }
};

TEST_F(FactoryTest, KnowsTwoStores) {
    const Factory factory;
    EXPECT_EQ(factory.GetRegisteredStores(), (std::vector<std::string>{adName, "None"}));
}

TEST_F(FactoryTest, MakesStoresByExactName) {
    Factory factory;
    const auto none = factory.CreateInstance("None");
    ASSERT_NE(none, nullptr);
    EXPECT_EQ(none->GetDisplayName(), "None");
    EXPECT_EQ(ClassOf(*none), typeid(NoRemoteAuthenticationStore));
    const auto ad = factory.CreateInstance(adName);
    ASSERT_NE(ad, nullptr);
    EXPECT_EQ(ad->GetDisplayName(), adName);
    EXPECT_EQ(ClassOf(*ad), typeid(ActiveDirectoryStore));
    EXPECT_NE(factory.CreateInstance("None"), none) << "a new one each time";
    for (const char* name : {"none", "NONE", "None ", "", "active directory", "Foo"}) {
        EXPECT_EQ(factory.CreateInstance(name), nullptr) << name;
    }
}

TEST_F(FactoryTest, ActiveDirectoryStoreWaitsSixtySeconds) {
    const auto made = Constructor<ActiveDirectoryStore>();
    time_t deadline = 0;
    const faults::Scope scope;
    faults::hooks.waitOnCondition = [&](const timespec& until) {
        deadline = until.tv_sec;
        return -1;
    };
    Set("getActiveDomain.delay_ms", "20");
    const time_t before = time(nullptr);
    delete made->GetStoreConfiguration();
    EXPECT_GE(deadline, before + 60);
    EXPECT_LE(deadline, time(nullptr) + 60);
}

TEST_F(FactoryTest, CreatorsFailAsTheStoresDo) {
    Factory factory;
    std::filesystem::remove(providerFile);
    EXPECT_EQ(
        TextOf<InvalidActiveDirectoryProviderException>([&] { factory.CreateInstance(adName); }),
        "The specified Active Directory provider '(none installed)' is invalid");
    EXPECT_NE(factory.CreateInstance("None"), nullptr);
}

TEST_F(FactoryTest, RegisteringAddsOrReplaces) {
    std::vector<std::string> notes;
    Factory factory;
    factory.RegisterType("Noted", [&] { return std::make_unique<NotedStore>(notes); });
    factory.RegisterType("Aaa", Constructor<NoRemoteAuthenticationStore>);
    factory.RegisterType("active", Constructor<NoRemoteAuthenticationStore>);
    EXPECT_EQ(factory.GetRegisteredStores(),
              (std::vector<std::string>{"Aaa", adName, "None", "Noted", "active"}));
    EXPECT_EQ(factory.CreateInstance("Noted")->GetDisplayName(), "Noted");
    factory.RegisterType("Noted", Constructor<NoRemoteAuthenticationStore>);
    EXPECT_EQ(factory.CreateInstance("Noted")->GetDisplayName(), "None");
    EXPECT_EQ(factory.GetRegisteredStores().size(), 5u);
}

TEST_F(FactoryTest, IsTheProcesssFactoryWhileItExists) {
    EXPECT_EQ(Current(), nullptr);
    {
        const Factory factory;
        EXPECT_EQ(Current(), &factory);
        {
            const Factory second;
            EXPECT_EQ(Current(), &second);
        }
        EXPECT_EQ(Current(), nullptr) << "destroying either takes it away";
    }
    EXPECT_EQ(Current(), nullptr);
}

TEST_F(FactoryTest, StoresTellTheirOwnKindOfConfiguration) {
    const auto none = Constructor<NoRemoteAuthenticationStore>();
    const std::unique_ptr<StoreConfiguration> one(none->GetStoreConfiguration());
    const std::unique_ptr<StoreConfiguration> two(none->GetStoreConfiguration());
    EXPECT_NE(one, two);
    EXPECT_NE(dynamic_cast<NoRemoteAuthenticationStoreConfiguration*>(one.get()), nullptr);
    const auto ad = Constructor<ActiveDirectoryStore>();
    const std::unique_ptr<StoreConfiguration> configuration(ad->GetStoreConfiguration());
    const auto* told = dynamic_cast<ActiveDirectoryStoreConfiguration*>(configuration.get());
    ASSERT_NE(told, nullptr);
    EXPECT_EQ(told->dnsDomainName, "corp.example");
}

TEST_F(FactoryTest, ActiveIsWhatTheFileNames) {
    struct Row {
        const char* file;
        bool none, ad;
    };
    const Row table[] = {
        {"remote-authentication-store = \"None\"\n", true, false},
        {"remote-authentication-store = None\n", true, false},
        {"remote-authentication-store = \"Active Directory\"\n", false, true},
        {"remote-authentication-store = \"none\"\n", false, false},
        {"remote-authentication-store = \"None \"\n", false, false},
        {"remote-authentication-store = \" None\"\n", false, false},
        {"remote-authentication-store = \"Non\"\n", false, false},
        {"remote-authentication-store = None\r\n", false, false},
        {"remote-authentication-store = \"\"\n", false, false},
    };
    const NoRemoteAuthenticationStore none;
    const TestStore ad(0);
    for (const Row& row : table) {
        WriteFile(authenticationFile, row.file);
        EXPECT_EQ(none.IsActive(), row.none) << row.file;
        EXPECT_EQ(ad.IsActive(), row.ad) << row.file;
        EXPECT_EQ(ReadFile(authenticationFile), row.file) << "nothing is written back";
    }
}

TEST_F(FactoryTest, AskingWhichIsActiveFailsAsTheFileDoes) {
    const NoRemoteAuthenticationStore none;
    const TestStore ad(0);
    for (const AuthenticationStore* store : {static_cast<const AuthenticationStore*>(&none),
                                             static_cast<const AuthenticationStore*>(&ad)}) {
        WriteFile(authenticationFile, "other = x\n");
        EXPECT_EQ(TextOf<InvalidKeyException>([&] { store->IsActive(); }),
                  "The specified key 'remote-authentication-store' was not found in this "
                  "configuration");
        WriteFile(authenticationFile, "broken\n");
        EXPECT_THROW(store->IsActive(), ConfigurationError);
        std::filesystem::remove(authenticationFile);
        EXPECT_THROW(store->IsActive(), IOError);
    }
}

class NoneStoreTest : public FactoryTest {
protected:
    NoneStoreTest() {
        factory.RegisterType("Noted", [this] { return std::make_unique<NotedStore>(notes); });
        factory.RegisterType("Stubborn", [this] { return std::make_unique<StubbornStore>(notes); });
        factory.RegisterType("Local", [] { return std::make_unique<LocalStore>(); });
        factory.RegisterType("Broken", []() -> std::unique_ptr<AuthenticationStore> {
            throw std::domain_error("cannot be made");
        });
    }

    std::vector<std::string> notes;
    Factory factory;
    NoRemoteAuthenticationStore store;
};

TEST_F(FactoryTest, NoneStoreWithoutAFactoryKnowsNoPredecessor) {
    ASSERT_EQ(Current(), nullptr);
    NameActive(adName);
    NoRemoteAuthenticationStore store;
    EXPECT_EQ(TextOf<UnknownRemoteAuthenticationStoreException>([&] { store.MakeActive(); }),
              "The specified store 'Active Directory' is unknown");
    EXPECT_EQ(ActiveName(), "None");
    EXPECT_EQ(Calls("getActiveDomain"), 0u) << "nobody was torn down";
}

TEST_F(NoneStoreTest, AlreadyActiveWritesNothing) {
    WriteFile(authenticationFile, "remote-authentication-store = 'None'\nother = 1\n");
    struct stat before, after;
    ASSERT_EQ(stat(authenticationFile, &before), 0);
    store.MakeActive();
    ASSERT_EQ(stat(authenticationFile, &after), 0);
    EXPECT_EQ(after.st_ino, before.st_ino);
    EXPECT_EQ(after.st_mtim.tv_nsec, before.st_mtim.tv_nsec);
    EXPECT_EQ(ReadFile(authenticationFile), "remote-authentication-store = 'None'\nother = 1\n");
}

TEST_F(NoneStoreTest, TearsDownThePredecessorAfterRecordingItself) {
    WriteFile(authenticationFile, "zeta = 1\nremote-authentication-store = Noted\n");
    store.MakeActive();
    EXPECT_EQ(notes, (std::vector<std::string>{"inactive, file says None", "destroyed"}));
    EXPECT_EQ(ReadFile(authenticationFile),
              "remote-authentication-store = \"None\"\nzeta = \"1\"\n");
    EXPECT_TRUE(store.IsActive());
}

TEST_F(NoneStoreTest, ActiveDirectoryPredecessorRefreshesItsCache) {
    NameActive(adName);
    store.MakeActive();
    EXPECT_EQ(ActiveName(), "None");
    EXPECT_EQ(Calls("getActiveDomain"), 1u);
    EXPECT_EQ(Calls("getTrustedDomains"), 2u);
    EXPECT_EQ(Calls("partDomain"), 0u);
}

TEST_F(NoneStoreTest, UnknownPredecessor) {
    for (const char* name : {"Foo", "", "none"}) {
        NameActive(name);
        EXPECT_EQ(TextOf<UnknownRemoteAuthenticationStoreException>([&] { store.MakeActive(); }),
                  std::string("The specified store '") + name + "' is unknown");
        EXPECT_EQ(ActiveName(), "None");
    }
}

TEST_F(NoneStoreTest, PredecessorThatIsNoRemoteStore) {
    NameActive("Local");
    EXPECT_EQ(TextOf<InvalidRemoteAuthenticationStoreException>([&] { store.MakeActive(); }),
              "The specified store 'Local' is invalid");
    EXPECT_EQ(ActiveName(), "None");
}

TEST_F(NoneStoreTest, PredecessorThatCannotBeTornDown) {
    NameActive("Stubborn");
    EXPECT_EQ(TextOf<std::domain_error>([&] { store.MakeActive(); }), "stubborn");
    EXPECT_EQ(ActiveName(), "None");
    EXPECT_EQ(notes, std::vector<std::string>{"destroyed"});
}

TEST_F(NoneStoreTest, PredecessorThatCannotBeMade) {
    NameActive("Broken");
    EXPECT_EQ(TextOf<std::domain_error>([&] { store.MakeActive(); }), "cannot be made");
    EXPECT_EQ(ActiveName(), "None");
}

TEST_F(NoneStoreTest, SettingsThatCannotBeReadChangeNothing) {
    WriteFile(authenticationFile, "other = Noted\n");
    EXPECT_THROW(store.MakeActive(), InvalidKeyException);
    EXPECT_EQ(ReadFile(authenticationFile), "other = Noted\n");
    std::filesystem::remove(authenticationFile);
    EXPECT_THROW(store.MakeActive(), IOError);
    EXPECT_EQ(ReadFile(authenticationFile), "(missing)");
    EXPECT_EQ(notes.size(), 0u);
}

TEST_F(NoneStoreTest, SettingsThatCannotBeWrittenChangeNothing) {
    NameActive("Noted");
    const faults::Scope scope;
    faults::hooks.rename = [](const char*) { return EROFS; };
    EXPECT_THROW(store.MakeActive(), IOError);
    EXPECT_EQ(ActiveName(), "Noted");
    EXPECT_EQ(notes.size(), 0u);
}

TEST_F(NoneStoreTest, CannotBeMadeInactive) {
    const std::string before = ReadFile(authenticationFile);
    EXPECT_EQ(TextOf<std::runtime_error>([&] { store.MakeInactive(); }),
              "Attempted to disable None Store");
    EXPECT_EQ(ReadFile(authenticationFile), before);
}

TEST_F(NoneStoreTest, LogsNothing) {
    LogRecorder log;
    for (const char* name : {"Noted", "Foo", "Local", "Stubborn"}) {
        NameActive(name);
        try {
            store.MakeActive();
        } catch (const std::exception&) {
            continue;
        }
    }
    EXPECT_THROW(store.MakeInactive(), std::runtime_error);
    EXPECT_EQ(log.Take().size(), 0u);
}

} // namespace
