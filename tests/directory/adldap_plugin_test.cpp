// The provider plug-in against real domain controllers, on a host of the lab.

#include "adldap_calls.h"

#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>

namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

constexpr char keytabFile[] = "/etc/krb5.keytab";
constexpr char stateFile[] = "/var/lib/tessary/domain_state";

std::string Lab(const std::string& variable) {
    const char* value = std::getenv(("TESAUTH_LAB_" + variable).c_str());
    EXPECT_NE(value, nullptr) << variable;
    return value ? value : "";
}

void RunLab(const std::string& words) {
    ASSERT_EQ(std::system(("\"$TESAUTH_LAB\" " + words).c_str()), 0) << words;
}

bool Exists(const char* path) {
    struct stat information;
    return stat(path, &information) == 0;
}

unsigned Mode(const char* path) {
    struct stat information {};
    EXPECT_EQ(stat(path, &information), 0) << path;
    return information.st_mode & 07777;
}

std::string Content(const char* path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

class AdldapTest : public testing::Test {
protected:
    AdldapTest()
        : domain_(Lab("DOMAIN")), admin_(Lab("ADMIN")), password_(Lab("PASSWORD")),
          userPassword_(Lab("USER_PASSWORD")) {}

    void SetUp() override { ASSERT_EQ(plugin_.ActiveDomain(), "(null) (null)"); }

    void TearDown() override {
        EXPECT_EQ(plugin_.SetPreferred({}), 0u);
        EXPECT_EQ(plugin_.LeaveAs(admin_, password_), 0u);
        EXPECT_FALSE(Exists(keytabFile));
        EXPECT_FALSE(Exists(stateFile));
    }

    std::uint32_t JoinAsAdmin(const std::string& unit = "") const {
        return plugin_.Join(domain_, unit, admin_, password_);
    }

    TrustState State() const { return plugin_.Operations().getDomainTrustState(); }
    TrustRelationship With(const std::string& domain) const {
        return plugin_.Operations().getDomainTrustRelationship(domain.c_str());
    }

    Plugin plugin_;
    std::string domain_;
    std::string admin_;
    std::string password_;
    std::string userPassword_; // everybody else's
};

TEST_F(AdldapTest, SaysWhichModulesLogUsersIn) {
    EXPECT_EQ(plugin_.Metadata().apiVersion, 3);
    EXPECT_EQ(plugin_.Operations().apiVersion, 3);
    EXPECT_STREQ(plugin_.Metadata().pamModule, "pam_sss.so");
    EXPECT_STREQ(plugin_.Metadata().nssModule, "sss");
}

TEST_F(AdldapTest, HostThatIsNotJoinedSaysSo) {
    EXPECT_EQ(State(), TrustStateNotJoined);
    EXPECT_EQ(plugin_.MachineDn(), "status 1787");
    EXPECT_EQ(With(domain_), TrustRelationshipUnknown);
    plugin_.Trusted(2);
    EXPECT_EQ(plugin_.Leave(), 0u);
}

TEST_F(AdldapTest, JoinMakesAWorkingMember) {
    ASSERT_EQ(JoinAsAdmin(), 0u);
    EXPECT_EQ(plugin_.ActiveDomain(), domain_ + " " + Lab("NETBIOS"));
    EXPECT_THAT(plugin_.MachineDn(), StartsWith("CN=HOST1,CN=Computers,DC="));
    EXPECT_EQ(State(), TrustStateGood);

    EXPECT_EQ(Mode(keytabFile), 0600u);
    EXPECT_EQ(Mode(stateFile), 0600u);
}

TEST_F(AdldapTest, JoiningAgainRenewsTheKey) {
    ASSERT_EQ(JoinAsAdmin(), 0u);
    const std::string before = Content(keytabFile);
    ASSERT_EQ(JoinAsAdmin(), 0u);
    EXPECT_NE(Content(keytabFile), before);
    EXPECT_EQ(State(), TrustStateGood);
}

TEST_F(AdldapTest, JoinTakesAllFormsOfNames) {
    for (const std::string& user : {admin_ + "@" + domain_, Lab("NETBIOS") + "\\" + admin_}) {
        EXPECT_EQ(plugin_.Join("CORP.example.", "", user, password_), 0u) << user;
        EXPECT_EQ(plugin_.ActiveDomain(), domain_ + " " + Lab("NETBIOS"));
    }
}

TEST_F(AdldapTest, DelegatedUserJoinsIntoTheUnitOnly) {
    EXPECT_EQ(plugin_.Join(domain_, "", "joiner", userPassword_), 5u);
    ASSERT_EQ(plugin_.Join(domain_, "Servers/Hosts", "joiner", userPassword_), 0u);
    EXPECT_THAT(plugin_.MachineDn(), StartsWith("CN=HOST1,OU=Hosts,OU=Servers,DC="));
    EXPECT_EQ(State(), TrustStateGood);

    EXPECT_EQ(plugin_.LeaveAs("alice", userPassword_), 5u);
    EXPECT_EQ(State(), TrustStateGood) << "who may not remove the account may not leave";
    EXPECT_EQ(plugin_.LeaveAs("joiner", userPassword_), 0u);
    EXPECT_EQ(State(), TrustStateNotJoined);
}

struct Refusal {
    const char* what;
    const char* domain; // null: the lab's
    const char* unit;
    const char* user;     // null: the administrator
    const char* password; // null: the right one
    std::uint32_t status;
};

TEST_F(AdldapTest, RefusedJoinTellsWhyAndLeavesNothing) {
    constexpr Refusal refusals[] = {
        {"wrong password", nullptr, "", nullptr, "wrong", 86},
        {"unknown user", nullptr, "", "nobody", nullptr, 1317},
        {"disabled user", nullptr, "", "dave", nullptr, 1331},
        {"locked user", nullptr, "", "lena", nullptr, 1331},
        {"expired user", nullptr, "", "frank", nullptr, 1331},
        {"password to be changed", nullptr, "", "erin", nullptr, 1330},
        {"user without rights", nullptr, "", "alice", nullptr, 5},
        {"no such unit", nullptr, "Nowhere", nullptr, nullptr, 267},
        {"no such unit by its name", nullptr, "OU=Nowhere", nullptr, nullptr, 267},
        {"no such domain", "nosuch.example", "", nullptr, nullptr, 1355},
        {"malformed domain", "bad domain", "", nullptr, nullptr, 1212},
        {"malformed user", nullptr, "", "a/b", nullptr, 1315},
    };
    for (const Refusal& refusal : refusals) {
        const std::string right = refusal.user ? userPassword_ : password_;
        EXPECT_EQ(plugin_.Join(refusal.domain ? refusal.domain : domain_, refusal.unit,
                               refusal.user ? refusal.user : admin_,
                               refusal.password ? refusal.password : right),
                  refusal.status)
            << refusal.what;
        EXPECT_FALSE(Exists(keytabFile)) << refusal.what;
        EXPECT_FALSE(Exists(stateFile)) << refusal.what;
    }
}

TEST_F(AdldapTest, SecondDomainIsRefused) {
    ASSERT_EQ(JoinAsAdmin(), 0u);
    EXPECT_EQ(plugin_.Join(Lab("DOMAIN2"), "", Lab("ADMIN2"), Lab("PASSWORD2")), 2691u);
    EXPECT_EQ(State(), TrustStateGood);
}

TEST_F(AdldapTest, JoinedHostKnowsItsDomainsTrusts) {
    ASSERT_EQ(JoinAsAdmin(), 0u);
    EXPECT_THAT(plugin_.Trusted(), ElementsAre(Lab("DOMAIN2") + " " + Lab("NETBIOS2")));
    EXPECT_EQ(With(Lab("DOMAIN2")), TrustRelationshipTwoWay);
    EXPECT_EQ(With(Lab("NETBIOS2")), TrustRelationshipTwoWay);
    EXPECT_EQ(With(domain_), TrustRelationshipJoinedDomain);
    EXPECT_EQ(With("nosuch.example"), TrustRelationshipNone);
    EXPECT_EQ(plugin_.Controller(nullptr, Lab("DOMAIN2")), "dc2." + Lab("DOMAIN2"));
    EXPECT_EQ(plugin_.Controller(nullptr, Lab("NETBIOS")), "dc1." + domain_);
}

TEST_F(AdldapTest, AccountsFateIsTold) {
    ASSERT_EQ(JoinAsAdmin(), 0u);
    RunLab("on dc1 samba-tool user disable 'HOST1$' > /dev/null");
    EXPECT_EQ(State(), TrustStateAccountDisabled);
    RunLab("on dc1 samba-tool user enable 'HOST1$' > /dev/null");
    EXPECT_EQ(State(), TrustStateGood);
    RunLab("on dc1 samba-tool user setpassword 'HOST1$' --newpassword=An0ther.one > /dev/null");
    EXPECT_EQ(State(), TrustStateKeyRejected);
    plugin_.Trusted(1786);
    RunLab("on dc1 samba-tool computer delete HOST1 > /dev/null");
    EXPECT_EQ(State(), TrustStateAccountMissing);
    plugin_.Trusted(1787);
    EXPECT_EQ(JoinAsAdmin(), 0u) << "a plain join puts it right";
    EXPECT_EQ(State(), TrustStateGood);
}

/// What ktutil adds to a keytab: keys of another realm. They are of another time than a join's.
void AddOtherKeys(const std::string& path) {
    ASSERT_EQ(std::system(("printf 'add_entry -password -p nfs/x@OTHER -k 3 -e aes256-cts\\npw\\n"
                           "wkt " +
                           path + "\\nq\\n' | ktutil > /dev/null")
                              .c_str()),
              0);
    std::string keys = Content(path.c_str());
    // The last entry ends in time (4 bytes), short version, kind and length of key (5), the key
    // (32), version (4).
    constexpr std::size_t timeFromEnd = 4 + 5 + 32 + 4;
    ASSERT_GT(keys.size(), timeFromEnd);
    keys.replace(keys.size() - timeFromEnd, 4, 4, '\x11');
    std::ofstream(path, std::ios::binary) << keys;
}

TEST_F(AdldapTest, OtherKeysOfTheHostStay) {
    AddOtherKeys(keytabFile);
    const std::string before = Content(keytabFile);
    ASSERT_EQ(JoinAsAdmin(), 0u);
    EXPECT_THAT(Content(keytabFile), StartsWith(before)) << "to the byte";
    EXPECT_THAT(Content(keytabFile), HasSubstr("HOST1$"));
    ASSERT_EQ(plugin_.LeaveAs(admin_, password_), 0u);
    EXPECT_EQ(Content(keytabFile), before);
    std::remove(keytabFile);
}

TEST_F(AdldapTest, KeytabThatOthersCouldReadIsClosedToThem) {
    AddOtherKeys(keytabFile);
    ASSERT_EQ(chmod(keytabFile, 0644), 0);
    ASSERT_EQ(chmod("/var/lib/tessary", 0755), 0);
    ASSERT_EQ(JoinAsAdmin(), 0u);
    EXPECT_EQ(Mode(keytabFile), 0600u);
    EXPECT_EQ(Mode("/var/lib/tessary"), 0700u);
    ASSERT_EQ(plugin_.LeaveAs(admin_, password_), 0u);
    EXPECT_EQ(Mode(keytabFile), 0600u);
    std::remove(keytabFile);
}

TEST_F(AdldapTest, KeytabThatIsALinkStaysOne) {
    const char target[] = "/var/lib/keytab-of-the-host";
    ASSERT_EQ(symlink("../var/lib/keytab-of-the-host", keytabFile), 0);
    ASSERT_EQ(JoinAsAdmin(), 0u);
    EXPECT_TRUE(std::filesystem::is_symlink(keytabFile)) << "also when it led nowhere";
    EXPECT_EQ(Mode(target), 0600u);
    ASSERT_EQ(plugin_.LeaveAs(admin_, password_), 0u);
    EXPECT_FALSE(Exists(target)) << "the keys are gone, not only the way to them";
    EXPECT_TRUE(std::filesystem::is_symlink(keytabFile));
    std::remove(keytabFile);
}

TEST_F(AdldapTest, JoinThatCannotBeRecordedLeavesNoKeys) {
    ASSERT_EQ(JoinAsAdmin(), 0u);
    // The host forgets, the account remains.
    std::remove(keytabFile);
    std::ofstream(stateFile).close();
    // What is mounted on cannot be replaced.
    ASSERT_EQ(mount(stateFile, stateFile, nullptr, MS_BIND, nullptr), 0);
    EXPECT_EQ(JoinAsAdmin(), 1359u);
    EXPECT_FALSE(Exists(keytabFile));
    EXPECT_EQ(umount2(stateFile, MNT_DETACH), 0);
    EXPECT_EQ(JoinAsAdmin(), 0u);
}

TEST_F(AdldapTest, HostsLdapSettingsDoNoHarm) {
    const std::string settings = Content("/etc/ldap/ldap.conf");
    std::filesystem::create_directories("/etc/ldap");
    std::ofstream("/etc/ldap/ldap.conf") << "SASL_SECPROPS maxssf=0,maxbufsize=0\n";
    // libldap has read its settings in this process, so another one joins.
    const std::string join = std::filesystem::read_symlink("/proc/self/exe").string() +
                             " --gtest_filter=AdldapTest.JoinMakesAWorkingMember";
    EXPECT_EQ(std::system(join.c_str()), 0);
    std::ofstream("/etc/ldap/ldap.conf") << settings;
    EXPECT_EQ(std::system(("LDAPSASL_SECPROPS=maxssf=0,maxbufsize=0 " + join).c_str()), 0);
}

TEST_F(AdldapTest, KeytabThatCannotBeReadIsNotReplaced) {
    std::ofstream(keytabFile) << "not a keytab";
    EXPECT_EQ(JoinAsAdmin(), 1359u);
    EXPECT_EQ(Content(keytabFile), "not a keytab");
    std::remove(keytabFile);
}

TEST_F(AdldapTest, PreferredControllersAreKeptAndAskedFirst) {
    EXPECT_THAT(plugin_.Preferred(), IsEmpty());
    const std::vector<std::string> controllers{"dc9." + domain_, Lab("DC1_ADDRESS")};
    ASSERT_EQ(plugin_.SetPreferred(controllers), 0u);
    EXPECT_EQ(plugin_.Preferred(), controllers);
    EXPECT_EQ(plugin_.SetPreferred({"no name"}), 87u);
    EXPECT_EQ(plugin_.Preferred(), controllers);
    EXPECT_EQ(JoinAsAdmin(), 0u) << "one that does not exist does no harm";
    // One of another domain is passed over.
    ASSERT_EQ(plugin_.SetPreferred({Lab("DC2_ADDRESS")}), 0u);
    EXPECT_EQ(plugin_.Controller(nullptr, domain_), "dc1." + domain_);
    ASSERT_EQ(plugin_.SetPreferred({}), 0u);
    EXPECT_THAT(plugin_.Preferred(), IsEmpty());
}

TEST_F(AdldapTest, PreferredControllersAreNamesOrAddressesOfHosts) {
    const std::vector<std::string> hosts{"dc1",         "dc-1.corp.example", "10.1.2.3",
                                         "2001:db8::7", "fe80::1%eth0",      "fe80::1%2"};
    ASSERT_EQ(plugin_.SetPreferred(hosts), 0u);
    for (const char* other :
         {"", "-h", "-dc1.corp.example", "dc1..example", ".example", ".", "dc1-.example", "dc1;x",
          "10.1.2", "10.1.2.3.4", "10.1.2.300", "2001:db8::7::", "fe80::1%", "fe80::1%;x",
          "10.1.2.3%eth0", "dc1:389"})
        EXPECT_EQ(plugin_.SetPreferred({other}), 87u) << other;
    EXPECT_EQ(plugin_.Preferred(), hosts);
    ASSERT_EQ(plugin_.SetPreferred({}), 0u);
}

TEST_F(AdldapTest, FrozenControllerHoldsNoCallForLong) {
    ASSERT_EQ(JoinAsAdmin(), 0u);
    // Its name server is frozen as well; by its address the controller is found all the same.
    ASSERT_EQ(plugin_.SetPreferred({Lab("DC1_ADDRESS")}), 0u);
    RunLab("freeze dc1");
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(State(), TrustStateNoController);
    plugin_.Trusted(10060);
    EXPECT_EQ(plugin_.Controller(nullptr, domain_), "status 10060");
    EXPECT_EQ(JoinAsAdmin(), 10060u);
    EXPECT_EQ(plugin_.ActiveDomain(), domain_ + " " + Lab("NETBIOS"));
    EXPECT_LT(std::chrono::steady_clock::now() - start, 60s) << "which a join alone may take";
    RunLab("thaw dc1");
    EXPECT_EQ(State(), TrustStateGood);
}

TEST_F(AdldapTest, HostLeavesWithoutItsController) {
    ASSERT_EQ(JoinAsAdmin(), 0u);
    ASSERT_EQ(plugin_.SetPreferred({Lab("DC1_ADDRESS")}), 0u);
    RunLab("freeze dc1");
    EXPECT_EQ(plugin_.Leave(), 0u);
    RunLab("thaw dc1");
    EXPECT_EQ(plugin_.ActiveDomain(), "(null) (null)");
    EXPECT_FALSE(Exists(keytabFile));
    EXPECT_EQ(JoinAsAdmin(), 0u) << "the account that was left behind is taken over";
}

TEST_F(AdldapTest, ManyThreadsAskAtOnce) {
    ASSERT_EQ(JoinAsAdmin(), 0u);
    std::atomic<int> good{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; ++i)
        threads.emplace_back([&] {
            for (int round = 0; round < 5; ++round)
                good += State() == TrustStateGood && plugin_.Trusted().size() == 1 &&
                        With(Lab("DOMAIN2")) == TrustRelationshipTwoWay;
        });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(good, 40);
}

TEST_F(AdldapTest, JoinsAtOnceRunOneAfterTheOther) {
    std::atomic<int> good{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i)
        threads.emplace_back([&] { good += JoinAsAdmin() == 0; });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(good, 4);
    EXPECT_EQ(State(), TrustStateGood);
}

} // namespace
