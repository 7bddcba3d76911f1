// A new machine key while the host is in use, and while everything that can go wrong does.

#include "directory/domain_state.h"
#include "directory/kerberos_profile.h"
#include "directory/key_rotation.h"
#include "directory/keytab.h"
#include "directory/membership.h"
#include "directory/session.h"
#include "directory/trusts.h"

#include <arpa/inet.h>
#include <dlfcn.h>
#include <krb5.h>
#include <ldap.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <map>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>

namespace {

using namespace tessary::directory;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::SizeIs;

/// What happens to the next changes of a password: called instead, with the real one at hand.
std::function<krb5_error_code(const std::function<krb5_error_code()>& real, int* result)> atChange;
/// What happens once a modification has been sent.
std::function<void()> afterModify;
/// How often a key of the host is still to be made with a salt that the domain did not choose.
int wrongSalts = 0;

} // namespace

// The library under test calls these in place of the ones it was linked with.
extern "C" __attribute__((visibility("default"))) krb5_error_code
krb5_change_password(krb5_context context, krb5_creds* credentials, const char* password,
                     int* result, krb5_data* resultName, krb5_data* explanation) {
    static const auto real =
        reinterpret_cast<decltype(&krb5_change_password)>(dlsym(RTLD_NEXT, "krb5_change_password"));
    const auto call = [&] {
        return real(context, credentials, password, result, resultName, explanation);
    };
    return atChange ? atChange(call, result) : call();
}

extern "C" __attribute__((visibility("default"))) krb5_error_code
krb5_c_string_to_key_with_params(krb5_context context, krb5_enctype type, const krb5_data* password,
                                 const krb5_data* salt, const krb5_data* parameters,
                                 krb5_keyblock* key) {
    static const auto real = reinterpret_cast<decltype(&krb5_c_string_to_key_with_params)>(
        dlsym(RTLD_NEXT, "krb5_c_string_to_key_with_params"));
    krb5_data used = *salt;
    const bool ofHost =
        std::string(salt->data, salt->length).find("hosthost1") != std::string::npos;
    if (ofHost && wrongSalts > 0 && wrongSalts--)
        --used.length;
    return real(context, type, password, &used, parameters, key);
}

extern "C" __attribute__((visibility("default"))) int
ldap_modify_ext(LDAP* handle, const char* dn, LDAPMod** changes, LDAPControl** serverControls,
                LDAPControl** clientControls, int* message) {
    static const auto real =
        reinterpret_cast<decltype(&ldap_modify_ext)>(dlsym(RTLD_NEXT, "ldap_modify_ext"));
    const int code = real(handle, dn, changes, serverControls, clientControls, message);
    if (afterModify)
        afterModify();
    return code;
}

namespace {

std::string Lab(const char* variable) {
    const char* value = std::getenv((std::string("TESAUTH_LAB_") + variable).c_str());
    return value ? value : "";
}

void RunLab(const std::string& words) {
    ASSERT_EQ(std::system(("\"$TESAUTH_LAB\" " + words).c_str()), 0) << words;
}

std::string Content(const char* path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

/// A program of the host that logs a user in as login programs do: the user's ticket is proof only
/// when the host's own key can read a ticket of the host's that it got.
class LoginProgram {
public:
    LoginProgram() { krb5_init_context(&context_); }
    ~LoginProgram() {
        if (kept_)
            krb5_cc_destroy(context_, kept_);
        krb5_free_context(context_);
    }
    LoginProgram(const LoginProgram&) = delete;
    LoginProgram& operator=(const LoginProgram&) = delete;

    /// \return 0 when the user is in
    krb5_error_code LogIn(const std::string& user, const std::string& password) {
        krb5_principal client = nullptr;
        krb5_creds ticket{};
        krb5_error_code code = krb5_parse_name(context_, user.c_str(), &client);
        if (code == 0)
            code = krb5_get_init_creds_password(context_, &ticket, client, password.c_str(),
                                                nullptr, nullptr, 0, nullptr, nullptr);
        if (code == 0)
            code = Verify(ticket, nullptr);
        krb5_free_cred_contents(context_, &ticket);
        krb5_free_principal(context_, client);
        return code;
    }

    /// Logs in with the host's own key, as the host's other programs do. In the moment in which the
    /// domain has a new key and the keytab has not, that fails: they try again.
    krb5_error_code LogInAsHost() {
        constexpr int tries = 20;
        krb5_principal client = nullptr;
        krb5_error_code code = krb5_parse_name(context_, "HOST1$@CORP.EXAMPLE", &client);
        for (int i = 0; code == 0 || (i > 0 && i < tries); ++i) {
            krb5_creds ticket{};
            code =
                krb5_get_init_creds_keytab(context_, &ticket, client, nullptr, 0, nullptr, nullptr);
            krb5_free_cred_contents(context_, &ticket);
            if (code == 0)
                break;
            ++repeated_;
            usleep(10'000);
        }
        krb5_free_principal(context_, client);
        return code;
    }
    /// How often that had to be tried again.
    int Repeated() const { return repeated_; }

    /// Gets a ticket for the host and keeps it.
    krb5_error_code KeepTicket(const std::string& user, const std::string& password) {
        krb5_principal client = nullptr;
        krb5_creds ticket{};
        krb5_error_code code = krb5_parse_name(context_, user.c_str(), &client);
        if (code == 0)
            code = krb5_get_init_creds_password(context_, &ticket, client, password.c_str(),
                                                nullptr, nullptr, 0, nullptr, nullptr);
        if (code == 0)
            code = krb5_cc_new_unique(context_, "MEMORY", nullptr, &kept_);
        if (code == 0)
            code = krb5_cc_initialize(context_, kept_, client);
        if (code == 0)
            code = krb5_cc_store_cred(context_, kept_, &ticket);
        krb5_free_cred_contents(context_, &ticket);
        krb5_free_principal(context_, client);
        return code == 0 ? UseKeptTicket() : code;
    }

    /// Whether the host's keytab still reads the ticket that was kept: a client that was here
    /// before comes back.
    krb5_error_code UseKeptTicket() {
        krb5_principal service = nullptr;
        krb5_creds wanted{};
        krb5_creds* ticket = nullptr;
        krb5_auth_context client = nullptr;
        krb5_auth_context server = nullptr;
        krb5_data message{};
        krb5_error_code code =
            krb5_parse_name(context_, "host/host1.corp.example@CORP.EXAMPLE", &service);
        if (code == 0)
            code = krb5_cc_get_principal(context_, kept_, &wanted.client);
        wanted.server = service;
        if (code == 0)
            code = krb5_get_credentials(context_, 0, kept_, &wanted, &ticket);
        if (code == 0)
            code = krb5_mk_req_extended(context_, &client, 0, nullptr, ticket, &message);
        if (code == 0)
            code = krb5_rd_req(context_, &server, &message, service, nullptr, nullptr, nullptr);
        krb5_free_data_contents(context_, &message);
        if (client)
            krb5_auth_con_free(context_, client);
        if (server)
            krb5_auth_con_free(context_, server);
        if (ticket)
            krb5_free_creds(context_, ticket);
        krb5_free_principal(context_, wanted.client);
        krb5_free_principal(context_, service);
        return code;
    }

private:
    krb5_error_code Verify(krb5_creds& ticket, krb5_ccache* cache) {
        krb5_principal service = nullptr;
        krb5_verify_init_creds_opt options;
        krb5_verify_init_creds_opt_init(&options);
        krb5_verify_init_creds_opt_set_ap_req_nofail(&options, 1);
        krb5_error_code code =
            krb5_parse_name(context_, "host/host1.corp.example@CORP.EXAMPLE", &service);
        if (code == 0)
            code = krb5_verify_init_creds(context_, &ticket, service, nullptr, cache, &options);
        krb5_free_principal(context_, service);
        return code;
    }

    krb5_context context_ = nullptr;
    krb5_ccache kept_ = nullptr;
    int repeated_ = 0;
};

class LabKeyRotation : public testing::Test {
protected:
    void SetUp() override {
        std::ofstream("/etc/krb5.conf") << "[libdefaults]\n"
                                           "default_realm = CORP.EXAMPLE\n"
                                           "dns_lookup_kdc = false\n"
                                           "rdns = false\n"
                                           "dns_canonicalize_hostname = false\n"
                                           "[realms]\n"
                                           "CORP.EXAMPLE = {\n kdc = "
                                        << Lab("DC1_ADDRESS") << "\n}\n";
        // The same way, whatever the name server does.
        std::filesystem::create_directories("/var/lib/tessary");
        std::ofstream("/var/lib/tessary/preferred_controllers") << Lab("DC1_ADDRESS") << "\n";
        Join();
    }

    void TearDown() override {
        atChange = nullptr;
        afterModify = nullptr;
        wrongSalts = 0;
        LeaveDomain(Lab("ADMIN"), Lab("PASSWORD").c_str());
    }

    static void Join() { JoinDomain(Lab("DOMAIN"), "", Lab("ADMIN"), Lab("PASSWORD").c_str()); }

    static krb5_error_code LogIn(LoginProgram& program) {
        return program.LogIn("alice@CORP.EXAMPLE", Lab("USER_PASSWORD"));
    }

    /// The host's users and the host itself get in.
    static void ExpectAllWorks() {
        LoginProgram program;
        EXPECT_EQ(LogIn(program), 0);
        EXPECT_EQ(TestMachineTrust(), MachineTrust::Good);
        EXPECT_NO_THROW(TrustedDomains());
    }

    /// The versions that each principal has keys of in the keytab.
    static std::map<std::string, std::set<int>> Versions() {
        const DomainState state = DomainState::Load().value();
        krb5_context context = nullptr;
        krb5_init_context(&context);
        std::map<std::string, std::set<int>> versions;
        for (const KeytabKey& key : ReadHostKeys(context, state.KeytabPrincipals()))
            versions[key.name.principal].insert(key.name.version);
        krb5_free_context(context);
        return versions;
    }
    static std::set<int> VersionsOfAccount() { return Versions()["HOST1$@CORP.EXAMPLE"]; }
    static std::set<int> VersionsOfService() {
        return Versions()["host/host1.corp.example@CORP.EXAMPLE"];
    }

    /// The version of the account's key, as the domain has it.
    static int VersionInDomain() {
        const DomainState state = DomainState::Load().value();
        Session session(state, Deadline::In(queryTime));
        return static_cast<int>(session.Ldap()
                                    .Read(state.accountDn, {"msDS-KeyVersionNumber"}, session.End())
                                    .Number("msDS-KeyVersionNumber")
                                    .value());
    }

    static Status StatusOfRotation() {
        try {
            RotateKey(std::chrono::seconds(0));
            return Status::Success;
        } catch (const Error& error) {
            return error.Code();
        }
    }

    /// Rotates the key in a process that ends where `atChange` ends it.
    static void RotateInProcessThatDies() {
        const pid_t child = fork();
        if (child == 0) {
            StatusOfRotation();
            _exit(1); // it should not have come here
        }
        int status = 0;
        ASSERT_EQ(waitpid(child, &status, 0), child);
        ASSERT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) << status;
    }

    /// Ends the process as an operator or a lack of memory would: nothing is cleaned up.
    [[noreturn]] static void Die() {
        kill(getpid(), SIGKILL);
        for (;;)
            pause();
    }
};

TEST_F(LabKeyRotation, NewKeyTakesTheOldOnesPlace) {
    const int before = VersionInDomain();
    LoginProgram program;
    ASSERT_EQ(program.KeepTicket("alice@CORP.EXAMPLE", Lab("USER_PASSWORD")), 0);
    EXPECT_TRUE(RotateKey(std::chrono::seconds(0)));
    EXPECT_EQ(VersionInDomain(), before + 1);
    const auto versions = Versions();
    EXPECT_THAT(versions, SizeIs(5));
    for (const auto& [principal, each] : versions)
        EXPECT_THAT(each, ElementsAre(before, before + 1)) << principal;
    EXPECT_EQ(program.UseKeptTicket(), 0) << "a ticket made with the old key";
    ExpectAllWorks();
}

TEST_F(LabKeyRotation, YoungKeyIsLeftAlone) {
    const std::string before = Content(hostKeytab);
    EXPECT_FALSE(RotateKey(std::chrono::hours(1)));
    EXPECT_EQ(Content(hostKeytab), before);
    EXPECT_TRUE(RotateKey(std::chrono::seconds(0)));
}

TEST_F(LabKeyRotation, JoiningAgainKeepsOldTicketsGood) {
    LoginProgram program;
    ASSERT_EQ(program.KeepTicket("alice@CORP.EXAMPLE", Lab("USER_PASSWORD")), 0);
    Join();
    EXPECT_EQ(program.UseKeptTicket(), 0);
    ExpectAllWorks();
}

TEST_F(LabKeyRotation, JoinAsksForASaltThatItHasGuessedWrong) {
    LeaveDomain(Lab("ADMIN"), Lab("PASSWORD").c_str());
    wrongSalts = std::size(encryptionTypes);
    Join();
    EXPECT_EQ(wrongSalts, 0);
    ExpectAllWorks();
}

TEST_F(LabKeyRotation, NobodyNoticesIt) {
    std::atomic<bool> done{false};
    std::atomic<int> logins{0}, failed{0};
    const auto loop = [&](auto logIn) {
        return std::thread([&done, &logins, &failed, logIn] {
            while (!done) {
                failed += logIn() ? 0 : 1;
                ++logins;
            }
        });
    };
    LoginProgram first, second, third, fourth;
    ASSERT_EQ(third.KeepTicket("alice@CORP.EXAMPLE", Lab("USER_PASSWORD")), 0);
    std::vector<std::thread> loops;
    loops.push_back(loop([&] { return LogIn(first) == 0; }));
    loops.push_back(loop([&] { return LogIn(second) == 0; }));
    loops.push_back(loop([&] { return third.UseKeptTicket() == 0; }));
    loops.push_back(loop([] { return TestMachineTrust() == MachineTrust::Good; }));
    loops.push_back(loop([&] { return fourth.LogInAsHost() == 0; }));
    for (int i = 0; i < 10; ++i)
        EXPECT_EQ(StatusOfRotation(), Status::Success);
    done = true;
    for (std::thread& each : loops)
        each.join();
    EXPECT_EQ(failed, 0) << "of " << logins;
    RecordProperty("logins", logins);
    RecordProperty("repeated", fourth.Repeated());
    EXPECT_GT(logins, 20);
}

TEST_F(LabKeyRotation, RefusalLeavesTheKeytabAsItWas) {
    const std::string before = Content(hostKeytab);
    atChange = [](const auto&, int* result) {
        *result = KRB5_KPASSWD_SOFTERROR;
        return 0;
    };
    EXPECT_EQ(StatusOfRotation(), Status::PasswordRefused);
    EXPECT_EQ(Content(hostKeytab), before);
    atChange = [](const auto&, int* result) {
        *result = KRB5_KPASSWD_ACCESSDENIED;
        return 0;
    };
    EXPECT_EQ(StatusOfRotation(), Status::AccessDenied);
    EXPECT_EQ(Content(hostKeytab), before);
    ExpectAllWorks();
}

TEST_F(LabKeyRotation, FailureOfTheServiceIsNoRefusal) {
    for (const int result : {KRB5_KPASSWD_HARDERROR, KRB5_KPASSWD_AUTHERROR}) {
        const int before = VersionInDomain();
        atChange = [&](const auto& real, int* told) {
            EXPECT_EQ(real(), 0);
            *told = result;
            return 0;
        };
        EXPECT_EQ(StatusOfRotation(), Status::Success) << "it was asked whether the key is taken";
        EXPECT_EQ(VersionInDomain(), before + 1);
        ExpectAllWorks();
    }
}

TEST_F(LabKeyRotation, KeyOfTheFutureIsNotYoung) {
    // The clock was a year ahead when the key came.
    std::string keytab = Content(hostKeytab);
    const std::uint32_t now = htonl(static_cast<std::uint32_t>(std::time(nullptr)));
    const std::string century(reinterpret_cast<const char*>(&now), 2);
    for (std::size_t at = keytab.find(century); at != std::string::npos;
         at = keytab.find(century, at + 1))
        keytab[at] = static_cast<char>(keytab[at] + 2);
    std::ofstream(hostKeytab, std::ios::binary) << keytab;
    EXPECT_TRUE(RotateKey(std::chrono::hours(1)));
    ExpectAllWorks();
}

TEST_F(LabKeyRotation, NextRotationMendsOneThatWasBrokenOff) {
    const int before = VersionInDomain();
    atChange = [](const auto& real, int*) -> krb5_error_code {
        real();
        Die();
    };
    RotateInProcessThatDies();
    atChange = nullptr;
    EXPECT_EQ(StatusOfRotation(), Status::Success);
    EXPECT_EQ(VersionInDomain(), before + 2);
    ExpectAllWorks();
}

TEST_F(LabKeyRotation, HostWithoutAKeyIsToldSo) {
    const std::string keytab = Content(hostKeytab);
    std::remove(hostKeytab);
    EXPECT_EQ(StatusOfRotation(), Status::MachineKeyRejected);
    EXPECT_EQ(TestMachineTrust(), MachineTrust::KeyRejected);
    std::ofstream(hostKeytab, std::ios::binary) << keytab;
    ExpectAllWorks();
}

TEST_F(LabKeyRotation, JoiningAgainLeavesOtherServicesTheirPrincipals) {
    const DomainState state = DomainState::Load().value();
    Session admin(LocateController(state.domain, {}, Deadline::In(queryTime)),
                  UserName::Parse(Lab("ADMIN")), Lab("PASSWORD").c_str(), Deadline::In(queryTime));
    admin.Ldap().Modify(
        state.accountDn,
        {{LDAP_MOD_ADD, "servicePrincipalName", {"HTTP/host1.corp.example", "HOST/former"}}},
        admin.End());
    Join();
    EXPECT_THAT(admin.Ldap()
                    .Read(state.accountDn, {"servicePrincipalName"}, admin.End())
                    .Values("servicePrincipalName"),
                testing::UnorderedElementsAre(
                    "HOST/host1", "HOST/host1.corp.example", "RestrictedKrbHost/host1",
                    "RestrictedKrbHost/host1.corp.example", "HTTP/host1.corp.example"));
}

TEST_F(LabKeyRotation, LostAnswerIsLookedInto) {
    const int before = VersionInDomain();
    atChange = [](const auto& real, int*) {
        EXPECT_EQ(real(), 0);
        return static_cast<krb5_error_code>(KRB5_KDC_UNREACH);
    };
    EXPECT_EQ(StatusOfRotation(), Status::Success);
    EXPECT_EQ(VersionInDomain(), before + 1);
    EXPECT_THAT(VersionsOfAccount(), ElementsAre(before, before + 1));
    ExpectAllWorks();
}

TEST_F(LabKeyRotation, LostQuestionLeavesTheOldKey) {
    const int before = VersionInDomain();
    atChange = [](const auto&, int*) { return static_cast<krb5_error_code>(KRB5_KDC_UNREACH); };
    EXPECT_EQ(StatusOfRotation(), Status::NoController);
    EXPECT_EQ(VersionInDomain(), before);
    EXPECT_THAT(VersionsOfAccount(), ElementsAre(before));
    ExpectAllWorks();
    atChange = nullptr;
    EXPECT_EQ(StatusOfRotation(), Status::Success);
    EXPECT_THAT(VersionsOfService(), ElementsAre(before, before + 1));
    ExpectAllWorks();
}

TEST_F(LabKeyRotation, ControllerThatFreezesAfterTheChangeCostsNothing) {
    const int before = VersionInDomain();
    atChange = [](const auto& real, int*) {
        EXPECT_EQ(real(), 0);
        RunLab("freeze dc1");
        return static_cast<krb5_error_code>(KRB5_KDC_UNREACH);
    };
    EXPECT_EQ(StatusOfRotation(), Status::NoController);
    RunLab("thaw dc1");
    EXPECT_THAT(VersionsOfAccount(), ElementsAre(before));
    EXPECT_THAT(VersionsOfService(), ElementsAre(before, before + 1));
    LoginProgram program;
    EXPECT_EQ(LogIn(program), 0) << "no repair was needed for this";
    ExpectAllWorks();
    EXPECT_THAT(VersionsOfAccount(), ElementsAre(before, before + 1)) << "found out and kept";
}

TEST_F(LabKeyRotation, ProcessThatDiesAfterTheChangeCostsNothing) {
    const int before = VersionInDomain();
    atChange = [](const auto& real, int*) -> krb5_error_code {
        real();
        Die();
    };
    RotateInProcessThatDies();
    EXPECT_THAT(VersionsOfAccount(), ElementsAre(before));
    ExpectAllWorks();
    EXPECT_THAT(VersionsOfAccount(), ElementsAre(before, before + 1));
    atChange = nullptr;
    EXPECT_EQ(StatusOfRotation(), Status::Success);
    ExpectAllWorks();
}

TEST_F(LabKeyRotation, ProcessThatDiesBeforeTheChangeCostsNothing) {
    const int before = VersionInDomain();
    atChange = [](const auto&, int*) -> krb5_error_code { Die(); };
    RotateInProcessThatDies();
    EXPECT_EQ(VersionInDomain(), before);
    ExpectAllWorks();
    EXPECT_THAT(VersionsOfAccount(), ElementsAre(before)) << "the key that was not taken is not";
    atChange = nullptr;
    EXPECT_EQ(StatusOfRotation(), Status::Success);
    ExpectAllWorks();
}

TEST_F(LabKeyRotation, KeytabThatCannotBeReplacedStopsItFirst) {
    const int before = VersionInDomain();
    const std::string keytab = Content(hostKeytab);
    // What is mounted on cannot be replaced.
    ASSERT_EQ(mount(hostKeytab, hostKeytab, nullptr, MS_BIND, nullptr), 0);
    EXPECT_EQ(StatusOfRotation(), Status::InternalError);
    ASSERT_EQ(umount2(hostKeytab, MNT_DETACH), 0);
    EXPECT_EQ(VersionInDomain(), before);
    EXPECT_EQ(Content(hostKeytab), keytab);
}

TEST_F(LabKeyRotation, KeytabThatCannotBeReplacedInTheEndWorksAllTheSame) {
    const int before = VersionInDomain();
    atChange = [](const auto& real, int*) {
        const krb5_error_code code = real();
        EXPECT_EQ(mount(hostKeytab, hostKeytab, nullptr, MS_BIND, nullptr), 0);
        return code;
    };
    EXPECT_EQ(StatusOfRotation(), Status::InternalError);
    ExpectAllWorks();
    ASSERT_EQ(umount2(hostKeytab, MNT_DETACH), 0);
    ExpectAllWorks();
    EXPECT_THAT(VersionsOfAccount(), ElementsAre(before, before + 1));
}

TEST_F(LabKeyRotation, JoinAgainWhoseAnswerIsLostCostsNothing) {
    const int before = VersionInDomain();
    afterModify = [] {
        afterModify = nullptr;
        // The change is on its way; its answer will not come.
        usleep(200'000);
        RunLab("cut dc1");
    };
    try {
        Join();
        ADD_FAILURE() << "the controller was not there any more";
    } catch (const Error& error) {
        EXPECT_EQ(error.Code(), Status::TimedOut) << error.what();
    }
    RunLab("join dc1");
    EXPECT_THAT(VersionsOfAccount(), ElementsAre(before));
    ExpectAllWorks();
    EXPECT_EQ(VersionInDomain(), before + 1);
    EXPECT_THAT(VersionsOfAccount(), ElementsAre(before, before + 1));
}

TEST(LabKeyRotationWithoutDomain, HostThatIsNotJoinedHasNoKey) {
    try {
        RotateKey(std::chrono::seconds(0));
        ADD_FAILURE() << "there was nothing to rotate";
    } catch (const Error& error) {
        EXPECT_EQ(error.Code(), Status::FileNotFound);
    }
}

} // namespace
