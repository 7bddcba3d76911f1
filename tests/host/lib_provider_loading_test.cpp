#include <dlfcn.h>

#include <cstddef>
#include <filesystem>

#include "log_recorder.h"
#include "scripted_host.h"
#include "tesauth/exceptions.h"
#include "tesauth/provider.h"

namespace {

using namespace tessary::authentication;
using namespace scripted;

const std::string folder = pluginDirectory;
const char* const scriptFile = "/etc/tessary/scripted-provider.conf";

using Words = std::list<std::string>;

/// A host with no plug-in but those that a test installs; none is loaded between the tests.
class ProviderLoadingTest : public HostTest {
protected:
    /// Installs the scripted provider under a name; `script` is what it reads on loading.
    void Install(const std::string& name, const std::string& script = "",
                 const std::string& subfolder = "") {
        InstallPlugin(SCRIPTED_PROVIDER_FILE, name, subfolder);
        WriteFile(scriptFile, script);
    }

    std::string LoadError(const std::string& name) {
        return TextOf<IOError>([&] { ActiveDirectoryProvider provider(name); });
    }

    std::string InvalidError(const std::string& name) {
        return TextOf<InvalidActiveDirectoryProviderException>(
            [&] { ActiveDirectoryProvider provider(name); });
    }
};

TEST_F(ProviderLoadingTest, LoadsAndUnloads) {
    Install("one");
    {
        const ActiveDirectoryProvider provider("one");
        EXPECT_TRUE(IsLoaded(folder + "libone.so"));
    }
    EXPECT_FALSE(IsLoaded(folder + "libone.so"));
}

TEST_F(ProviderLoadingTest, StaysLoadedAsLongAsOneObjectLives) {
    Install("one");
    auto first = std::make_unique<ActiveDirectoryProvider>("one");
    const ActiveDirectoryProvider second("one");
    first.reset();
    EXPECT_TRUE(IsLoaded(folder + "libone.so"));
    EXPECT_EQ(second.GetActiveDomain().dnsName, "corp.example");
}

TEST_F(ProviderLoadingTest, FirstFolderGoesBeforeTheSecond) {
    Install("two", "", "");
    Install("two", "", "lib64/");
    const ActiveDirectoryProvider provider("two");
    EXPECT_TRUE(IsLoaded(folder + "lib64/libtwo.so"));
    EXPECT_FALSE(IsLoaded(folder + "libtwo.so"));
}

TEST_F(ProviderLoadingTest, FileThatCannotBeLoadedInTheFirstFolderGivesWayToTheSecond) {
    Install("two");
    std::filesystem::create_directories(folder + "lib64");
    WriteFile(folder + "lib64/libtwo.so", "not a shared object");
    const ActiveDirectoryProvider provider("two");
    EXPECT_TRUE(IsLoaded(folder + "libtwo.so"));
}

TEST_F(ProviderLoadingTest, FileInTheFirstFolderAlone) {
    Install("three", "", "lib64/");
    const ActiveDirectoryProvider provider("three");
    EXPECT_TRUE(IsLoaded(folder + "lib64/libthree.so"));
}

TEST_F(ProviderLoadingTest, ErrorIsTheLoadersForTheSecondPath) {
    EXPECT_EQ(LoadError("none"), "Unable to open provider: " + folder +
                                     "libnone.so: cannot open shared object file: No such file or "
                                     "directory");
    std::filesystem::create_directories(folder + "lib64");
    WriteFile(folder + "lib64/libbad.so", "bad");
    EXPECT_EQ(LoadError("bad"), "Unable to open provider: " + folder +
                                    "libbad.so: cannot open shared object file: No such file or "
                                    "directory");
    WriteFile(folder + "libbad.so", "bad");
    EXPECT_EQ(LoadError("bad"), "Unable to open provider: " + folder + "libbad.so: file too short");
}

TEST_F(ProviderLoadingTest, LoadersPendingErrorIsNotReported) {
    dlopen("/nowhere/libpending.so", RTLD_LAZY);
    EXPECT_EQ(LoadError("none").find("pending"), std::string::npos);
    dlopen("/nowhere/libpending.so", RTLD_LAZY);
    InstallPlugin(SCRIPTED_PROVIDER_WITHOUT_METADATA_FILE, "half");
    EXPECT_EQ(InvalidError("half").find("pending"), std::string::npos);
}

TEST_F(ProviderLoadingTest, NameIsUsedAsGiven) {
    EXPECT_EQ(LoadError(""), "Unable to open provider: " + folder +
                                 "lib.so: cannot open shared object file: No such file or "
                                 "directory");
    std::filesystem::create_directories(folder + "libdir");
    InstallPlugin(SCRIPTED_PROVIDER_FILE, "dir/libx");
    std::filesystem::rename(folder + "libdir/libx.so", folder + "libdir/x.so");
    const ActiveDirectoryProvider provider("dir/x");
    EXPECT_TRUE(IsLoaded(folder + "libdir/x.so"));
}

TEST_F(ProviderLoadingTest, SymbolsAreResolvedWhenTheyAreUsed) {
    InstallPlugin(SCRIPTED_PROVIDER_UNRESOLVED_FILE, "lazy");
    const ActiveDirectoryProvider provider("lazy");
    EXPECT_EQ(provider.GetActiveDomain().dnsName, "corp.example");
}

TEST_F(ProviderLoadingTest, VersionsUpToThreeAreAccepted) {
    for (const char* version : {"3", "2", "1", "0", "-1", "-2147483648"}) {
        Install("version", std::string("metadata.version=") + version + "\n");
        EXPECT_NO_THROW(ActiveDirectoryProvider provider("version")) << version;
    }
}

TEST_F(ProviderLoadingTest, NewerVersionsAreRefused) {
    for (const std::string version : {"4", "5", "2147483647"}) {
        Install("newer", "metadata.version=" + version + "\ntable.version=3\n");
        EXPECT_EQ(InvalidError("newer"),
                  "The specified Active Directory provider 'newer' is invalid: The API version (" +
                      version + ") is not supported by this version of libtesauth");
        EXPECT_FALSE(IsLoaded(folder + "libnewer.so"));
    }
}

TEST_F(ProviderLoadingTest, OnlyTheTablesVersionIsTold) {
    Install("told", "metadata.version=1\ntable.version=77\n");
    const ActiveDirectoryProvider provider("told");
    EXPECT_EQ(provider.GetAPIVersion(), 77);
}

TEST_F(ProviderLoadingTest, MissingRecords) {
    struct Row {
        const char *file, *name, *symbol;
    };
    const Row table[] = {
        {SCRIPTED_PROVIDER_WITHOUT_METADATA_FILE, "blind", "ActiveDirectoryClientMetadata"},
        {SCRIPTED_PROVIDER_WITHOUT_OPERATIONS_FILE, "idle", "ActiveDirectoryClientOperations"},
    };
    for (const Row& row : table) {
        InstallPlugin(row.file, row.name);
        const std::string path = folder + "lib" + row.name + ".so";
        EXPECT_EQ(InvalidError(row.name), std::string("The specified Active Directory provider '") +
                                              row.name + "' is invalid: " + path +
                                              ": undefined symbol: " + row.symbol);
        EXPECT_FALSE(IsLoaded(path));
    }
}

TEST_F(ProviderLoadingTest, VersionIsCheckedBeforeTheOperations) {
    InstallPlugin(SCRIPTED_PROVIDER_WITHOUT_OPERATIONS_FILE, "idle");
    WriteFile(scriptFile, "metadata.version=4\n");
    EXPECT_EQ(InvalidError("idle"), "The specified Active Directory provider 'idle' is invalid: "
                                    "The API version (4) is not supported by this version of "
                                    "libtesauth");
}

TEST_F(ProviderLoadingTest, MetadataIsCopiedAndSplit) {
    struct Row {
        const char* text;
        Words words;
    };
    const Row table[] = {
        {"(null)", {}},
        {"", {}},
        {" \t  ", {}},
        {"a", {"a"}},
        {"a  b\tc", {"a", "b", "c"}},
        {"  x=1,y   z ", {"x=1,y", "z"}},
        {"a\v\fb", {"a", "b"}},
    };
    for (const Row& row : table) {
        Install("meta", std::string("metadata.pam_module=pam_x.so\nmetadata.nss_module=nx\n"
                                    "metadata.pam_parameters=") +
                            row.text + "\nmetadata.nss_parameters=n " + row.text + "\n");
        const ActiveDirectoryProvider provider("meta");
        EXPECT_EQ(provider.PAMModule(), "pam_x.so");
        EXPECT_EQ(provider.NSSModule(), "nx");
        EXPECT_EQ(provider.PAMModuleParameters(), row.words);
        Words nss = row.words;
        nss.push_front("n");
        if (row.text != std::string("(null)")) {
            EXPECT_EQ(provider.NSSModuleParameters(), nss);
        }
    }
    Install("meta", "metadata.nss_parameters=(null)\nmetadata.pam_parameters=p q\n");
    const ActiveDirectoryProvider provider("meta");
    EXPECT_EQ(provider.NSSModuleParameters(), Words());
    EXPECT_EQ(provider.PAMModuleParameters(), (Words{"p", "q"}));
}

TEST_F(ProviderLoadingTest, CachingAgainAppendsParameters) {
    Install("meta", "metadata.pam_parameters=a b\nmetadata.nss_parameters=c\n");
    ActiveDirectoryProvider provider("meta");
    provider.CacheMetadata();
    EXPECT_EQ(provider.PAMModuleParameters(), (Words{"a", "b", "a", "b"}));
    EXPECT_EQ(provider.NSSModuleParameters(), (Words{"c", "c"}));
    EXPECT_EQ(provider.PAMModule(), "pam_scripted.so");
}

TEST_F(ProviderLoadingTest, LogsNothing) {
    LogRecorder log;
    LoadError("none");
    InstallPlugin(SCRIPTED_PROVIDER_WITHOUT_METADATA_FILE, "blind");
    InvalidError("blind");
    EXPECT_EQ(log.Take().size(), 0u);
}

TEST_F(ProviderLoadingTest, SymbolsAreVisibleToAll) {
    Install("global");
    const auto find = [] { return dlsym(RTLD_DEFAULT, "ActiveDirectoryClientOperations"); };
    EXPECT_EQ(find(), nullptr);
    const ActiveDirectoryProvider provider("global");
    // Having been found like this, the plug-in is not unloaded any more.
    EXPECT_NE(find(), nullptr);
}

/// The two records are laid out in machine words, the version in the low half of the first.
TEST(PluginLayoutTest, Records) {
    constexpr std::size_t word = sizeof(void*);
    using Metadata = ActiveDirectoryClientMetadata;
    using Table = ActiveDirectoryClientOperations;
    EXPECT_EQ(sizeof(Metadata), 5 * word);
    EXPECT_EQ(sizeof(Table), 17 * word);
    EXPECT_EQ(sizeof(Table().apiVersion), 4u);
    const std::size_t metadata[] = {offsetof(Metadata, apiVersion), offsetof(Metadata, pamModule),
                                    offsetof(Metadata, pamModuleParameters),
                                    offsetof(Metadata, nssModule),
                                    offsetof(Metadata, nssModuleParameters)};
    const std::size_t table[] = {offsetof(Table, apiVersion),
                                 offsetof(Table, joinDomain),
                                 offsetof(Table, partDomain),
                                 offsetof(Table, getActiveDomain),
                                 offsetof(Table, setPreferredDomainControllers),
                                 offsetof(Table, getPreferredDomainControllers),
                                 offsetof(Table, reserved),
                                 offsetof(Table, getDomainTrustState),
                                 offsetof(Table, getTrustedDomains),
                                 offsetof(Table, getMachineAccountDN),
                                 offsetof(Table, getAnyDomainController),
                                 offsetof(Table, convertCanonicalUsername),
                                 offsetof(Table, joinDomainWithMachineAccount),
                                 offsetof(Table, getHostPrincipalForDomain),
                                 offsetof(Table, getDomainTrustRelationship),
                                 offsetof(Table, setSmartCardEnabledServices),
                                 offsetof(Table, getSmartCardEnabledServices)};
    for (std::size_t i = 0; i < std::size(metadata); ++i) {
        EXPECT_EQ(metadata[i], i * word);
    }
    for (std::size_t i = 0; i < std::size(table); ++i) {
        EXPECT_EQ(table[i], i * word);
    }
    EXPECT_EQ(sizeof(Credentials), 2 * word);
    EXPECT_EQ(offsetof(Credentials, userName), 0u);
    EXPECT_EQ(sizeof(ActiveDirectoryDomainInfo), 4 * word);
    EXPECT_EQ(sizeof(ActiveDirectoryMachineAccount), 5 * word);
    EXPECT_EQ(sizeof(TrustState), 4u);
    EXPECT_EQ(sizeof(TrustRelationship), 4u);
}

} // namespace
