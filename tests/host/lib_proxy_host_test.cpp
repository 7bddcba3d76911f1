#include <dlfcn.h>
#include <syslog.h>

#include <cstring>
#include <functional>
#include <string_view>

#include "freed_memory.h"
#include "hostctl/host.h"
#include "log_recorder.h"
#include "named_host.h"
#include "orvcfg/config_store.h"
#include "scripted_proxy_host.h"
#include "spoiled_store.h"
#include "tesauth/exceptions.h"
#include "test_store.h"

namespace {

using namespace HostCtl;

/// What the host answers instead of its own library; empty for that.
std::function<std::shared_ptr<Host>()> otherHost;
/// Called when the library opens the configuration store.
std::function<void()> whenOpened;

constexpr std::string_view password = "one-time password of the account";

} // namespace

// The library finds these before those that they stand for.

std::shared_ptr<Host> HostFactory::GetHost() {
    if (otherHost) {
        return otherHost();
    }
    using Function = std::shared_ptr<Host>();
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, "_ZN7HostCtl11HostFactory7GetHostEv"))();
}

std::shared_ptr<OrvConfigStore::ConfigStore>
OrvConfigStore::ConfigStore::GetStore(const std::string& storeNamespace) {
    if (whenOpened) {
        whenOpened();
    }
    using Function = std::shared_ptr<ConfigStore>(const std::string&);
    return reinterpret_cast<Function*>(
        dlsym(RTLD_NEXT, "_ZN14OrvConfigStore11ConfigStore8GetStoreERKNSt7__cxx1112basic_"
                         "stringIcSt11char_traitsIcESaIcEEE"))(storeNamespace);
}

namespace {

using namespace tessary::authentication;
using namespace scripted;

using Nodes = std::map<std::string, std::shared_ptr<Adv::AdvancedNode>>;

class Branch : public Adv::AdvancedOptionBranch {
public:
    explicit Branch(Nodes children) : children_(std::move(children)) {}
    std::string Name() const override { return ""; }
    std::shared_ptr<Adv::AdvancedNode> Child(const std::string& name) const override {
        const auto child = children_.find(name);
        return child != children_.end() ? child->second : nullptr;
    }
    std::vector<std::shared_ptr<Adv::AdvancedNode>> Children() const override { return {}; }

private:
    Nodes children_;
};

class Integer : public Adv::AdvancedIntegerOption {
public:
    explicit Integer(int64_t value) : value_(value) {}
    std::string Name() const override { return ""; }
    int64_t GetValue() const override { return value_; }
    void SetValue(int64_t) override {}

private:
    int64_t value_;
};

class Text : public Adv::AdvancedStringOption {
public:
    std::string Name() const override { return ""; }
    std::string GetValue() const override { return "0"; }
    void SetValue(const std::string&) override {}
};

/// A host with these options; `rootless` has none at all.
class OtherHost : public Host, public Adv::AdvancedOptions {
public:
    explicit OtherHost(std::shared_ptr<Adv::AdvancedOptionBranch> root) : root_(std::move(root)) {}
    std::shared_ptr<Adv::AdvancedOptions> GetAdvancedOptions() override {
        return {std::shared_ptr<void>(), this};
    }
    std::shared_ptr<Adv::AdvancedOptionBranch> Root() const override { return root_; }

private:
    std::shared_ptr<Adv::AdvancedOptionBranch> root_;
};

class ProxyHostTest : public NamedHostTest {
protected:
    ProxyHostTest() { Name("web1.corp.example", "10.99.7.5 web1.corp.example web1\n"); }
    ~ProxyHostTest() override {
        otherHost = nullptr;
        whenOpened = nullptr;
    }

    void Join() { store.JoinDomainWithAPX("10.99.7.9", "", true); }

    /// What the library says of a host with such a root branch.
    std::string Refusal(std::shared_ptr<Adv::AdvancedOptionBranch> root) {
        otherHost = [root] { return std::make_shared<OtherHost>(root); };
        return TextOf<InvalidVerifyAPXCertificateOptionException>([&] { Join(); });
    }

    static std::shared_ptr<Branch> With(std::shared_ptr<Adv::AdvancedNode> option) {
        return std::make_shared<Branch>(Nodes{
            {"UserVars",
             std::make_shared<Branch>(Nodes{{"ActiveDirectoryVerifyAPXCertificate", option}})}});
    }

    const InstalledProxy proxy;
    TestStore store{10};
};

const std::string before = "The VerifyAPXCertificate option is invalid: ";
const std::string unavailable =
    before + "Unable to get advanced option UserVars.ActiveDirectoryVerifyAPXCertificate";
const std::string invalid =
    before + "Invalid value for UserVars.ActiveDirectoryVerifyAPXCertificate";

TEST_F(ProxyHostTest, OptionThatIsMissing) {
    EXPECT_EQ(Refusal(nullptr), unavailable);
    EXPECT_EQ(Refusal(std::make_shared<Branch>(Nodes())), unavailable);
    EXPECT_EQ(Refusal(std::make_shared<Branch>(Nodes{{"UserVars", std::make_shared<Integer>(0)}})),
              unavailable)
        << "not a branch";
    EXPECT_EQ(
        Refusal(std::make_shared<Branch>(Nodes{{"UserVars", std::make_shared<Branch>(Nodes())}})),
        unavailable);
    EXPECT_EQ(proxy.TakeCalls(), "");
}

TEST_F(ProxyHostTest, OptionThatIsNoInteger) {
    EXPECT_EQ(Refusal(With(std::make_shared<Text>())), invalid) << "never taken for 0";
    EXPECT_EQ(Refusal(With(std::make_shared<Branch>(Nodes()))), invalid);
    EXPECT_EQ(Refusal(With(std::make_shared<Integer>(2))), invalid);
    EXPECT_EQ(proxy.TakeCalls(), "");
}

TEST_F(ProxyHostTest, HostThatFails) {
    for (const char* text : {"no host", "Unable to get the user option"}) {
        otherHost = [text]() -> std::shared_ptr<Host> { throw Lib::HostCtlException(text); };
        EXPECT_EQ(TextOf<InvalidVerifyAPXCertificateOptionException>([&] { Join(); }), unavailable);
    }
    otherHost = []() -> std::shared_ptr<Host> { throw std::runtime_error("no host"); };
    EXPECT_EQ(TextOf<std::runtime_error>([&] { Join(); }), "no host") << "only the host's own";
}

TEST_F(ProxyHostTest, ClientLivesUntilTheJoinIsRecorded) {
    otherHost = [] { return std::make_shared<OtherHost>(With(std::make_shared<Integer>(0))); };
    InstallPlugin(SCRIPTED_PROXY_FILE, "other"); // a second one, which the test does not hold
    WriteFile(proxyProviderFile, "provider = other\n");
    const std::string library = pluginDirectory + std::string("libother.so");
    int opened = 0;
    whenOpened = [&] {
        ++opened;
        EXPECT_TRUE(IsLoaded(library));
    };
    Join();
    EXPECT_EQ(opened, 1);
    EXPECT_FALSE(IsLoaded(library));
}

TEST_F(ProxyHostTest, OtherFailuresToStoreLeaveTheHostJoined) {
    otherHost = [] { return std::make_shared<OtherHost>(With(std::make_shared<Integer>(0))); };
    whenOpened = [] { throw std::runtime_error("another failure"); };
    EXPECT_EQ(TextOf<std::runtime_error>([&] { Join(); }), "another failure");
    EXPECT_EQ(Calls("joinDomainWithMachineAccount"), 1u);
    EXPECT_EQ(Calls("partDomain"), 0u);
}

TEST_F(ProxyHostTest, AnyFailureToReadTheTrustedCertificate) {
    otherHost = [] { return std::make_shared<OtherHost>(With(std::make_shared<Integer>(1))); };
    whenOpened = [] { throw std::runtime_error("another failure"); };
    LogRecorder log;
    EXPECT_EQ(TextOf<InvalidThumbprintStoreException>([&] { Join(); }),
              "The specified thumbprint store 'auth_proxy_certificate' is invalid");
    EXPECT_EQ(log.TakeLines(),
              (std::vector<std::pair<int, std::string>>{
                  {LOG_ERR, "Unable to fetch thumbprint from Config Store: another failure"}}));
    EXPECT_EQ(proxy.TakeCalls(), "");
}

TEST_F(ProxyHostTest, PasswordIsOverwrittenBeforeItsMemoryGoes) {
    otherHost = [] { return std::make_shared<OtherHost>(With(std::make_shared<Integer>(0))); };
    const FreedMemoryWatch watch(password);
    Join();
    EXPECT_EQ(watch.Found(), 0);
    Set("joinDomainWithMachineAccount.status", "5");
    EXPECT_THROW(Join(), Exception);
    EXPECT_EQ(watch.Found(), 0);
    proxy->domainStatus = 8; // once there is an account
    EXPECT_THROW(Join(), Exception);
    EXPECT_EQ(watch.Found(), 0);
    delete new std::string(password);
    EXPECT_EQ(watch.Found(), 1) << "it was to be seen";
}

} // namespace
