#include <cxxabi.h>
#include <dlfcn.h>

#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "scripted_host.h"
#include "tesauth/tesauth.h"
#include "test_store.h"

namespace {

using namespace tessary::authentication;

using Slots = std::vector<std::string>;

/// The functions in the first slots of an object's virtual table, without namespace and argument
/// list. The order is what programs that are compiled already rely on.
template <typename Object>
Slots SlotsOf(const Object& object, std::size_t count) {
    Slots names;
    void* const* table = *reinterpret_cast<void* const* const*>(&object);
    for (std::size_t i = 0; i < count; ++i) {
        Dl_info info = {};
        if (dladdr(table[i], &info) == 0 || info.dli_saddr != table[i]) {
            names.push_back("(no exported function)");
            continue;
        }
        const std::unique_ptr<char, decltype(&std::free)> text(
            abi::__cxa_demangle(info.dli_sname, nullptr, nullptr, nullptr), &std::free);
        std::string name = text.get();
        name.erase(name.find_first_of("([")); // argument list, tag of the ABI
        const std::string prefix = "tessary::authentication::";
        names.push_back(name.rfind(prefix, 0) == 0 ? name.substr(prefix.size()) : name);
    }
    return names;
}

// A destructor takes two slots: one destroys the object, the other deletes it as well.

TEST(VirtualTableTest, NoneStore) {
    EXPECT_EQ(
        SlotsOf(NoRemoteAuthenticationStore(), 7),
        (Slots{"NoRemoteAuthenticationStore::GetStoreConfiguration",
               "NoRemoteAuthenticationStore::GetDisplayName", "RemoteAuthenticationStore::IsActive",
               "NoRemoteAuthenticationStore::MakeActive",
               "NoRemoteAuthenticationStore::~NoRemoteAuthenticationStore",
               "NoRemoteAuthenticationStore::~NoRemoteAuthenticationStore",
               "NoRemoteAuthenticationStore::MakeInactive"}));
}

using ActiveDirectoryTableTest = scripted::ProviderTest;

TEST_F(ActiveDirectoryTableTest, ActiveDirectoryStore) {
    EXPECT_EQ(
        SlotsOf(ActiveDirectoryStore(1), 7),
        (Slots{"ActiveDirectoryStore::GetStoreConfiguration",
               "ActiveDirectoryStore::GetDisplayName", "RemoteAuthenticationStore::IsActive",
               "ActiveDirectoryStore::MakeActive", "ActiveDirectoryStore::~ActiveDirectoryStore",
               "ActiveDirectoryStore::~ActiveDirectoryStore",
               "ActiveDirectoryStore::MakeInactive"}));
    static_assert(std::is_base_of_v<DirectoryStore, ActiveDirectoryStore>);
    static_assert(std::is_base_of_v<RemoteAuthenticationStore, DirectoryStore>);
    static_assert(!std::is_base_of_v<DirectoryStore, NoRemoteAuthenticationStore>);
    static_assert(sizeof(DirectoryStore) == sizeof(void*));
}

TEST(VirtualTableTest, Exceptions) {
    EXPECT_EQ(SlotsOf(Exception("text"), 5),
              (Slots{"Exception::~Exception", "Exception::~Exception", "Exception::what",
                     "Exception::Clone", "Exception::Throw"}));
    EXPECT_EQ(SlotsOf(LogonFailureException(), 5),
              (Slots{"LogonFailureException::~LogonFailureException",
                     "LogonFailureException::~LogonFailureException", "Exception::what",
                     "LogonFailureException::Clone", "LogonFailureException::Throw"}));
}

using ConfigurationTableTest = scripted::HostTest;

TEST_F(ConfigurationTableTest, Settings) {
    EXPECT_EQ(SlotsOf(Configuration(scripted::providerFile), 3),
              (Slots{"Configuration::~Configuration", "Configuration::~Configuration",
                     "Configuration::Write"}));
    EXPECT_EQ(SlotsOf(ProviderConfiguration(), 3),
              (Slots{"ProviderConfiguration::~ProviderConfiguration",
                     "ProviderConfiguration::~ProviderConfiguration", "Configuration::Write"}));
}

TEST_F(ConfigurationTableTest, ThumbprintStore) {
    EXPECT_EQ(SlotsOf(APXThumbprintStore(scripted::providerFile), 3),
              (Slots{"APXThumbprintStore::~APXThumbprintStore",
                     "APXThumbprintStore::~APXThumbprintStore", "Configuration::Write"}));
    static_assert(std::is_base_of_v<Configuration, APXThumbprintStore>);
    static_assert(sizeof(APXThumbprintStore) == sizeof(Configuration));
}

TEST(VirtualTableTest, ProviderHasNone) {
    static_assert(!std::is_polymorphic_v<APXProxy>);
    static_assert(!std::is_copy_constructible_v<APXProxy>);
    static_assert(!std::is_copy_assignable_v<APXProxy>);
    static_assert(!std::is_polymorphic_v<ActiveDirectoryProvider>);
    static_assert(!std::is_copy_constructible_v<ActiveDirectoryProvider>);
    static_assert(!std::is_copy_assignable_v<ActiveDirectoryProvider>);
}

} // namespace
