/// A host whose key is changed, with everything that can go wrong at hand.
#ifndef TESAUTH_TESTS_FAULTS_LAB_KEY_ROTATION_H
#define TESAUTH_TESTS_FAULTS_LAB_KEY_ROTATION_H

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
#include <chrono>
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
namespace lab_key_rotation {

using namespace tessary::directory;

/// What happens to the next changes of a password: called instead, with the real one at hand.
extern std::function<krb5_error_code(const std::function<krb5_error_code()>& real, int* result)>
    atChange;
/// The password of the latest of them.
extern std::string askedFor;
/// What happens once a modification has been sent.
extern std::function<void()> afterModify;
/// What happens once, before the next login with a keytab.
extern std::function<void()> beforeLogin;
/// How often a key of the host is still to be made with a salt that the domain did not choose.
extern int wrongSalts;
/// By how much the time that deadlines go by is ahead.
extern std::chrono::seconds timePassed;

inline std::string Lab(const char* variable) {
    const char* value = std::getenv((std::string("TESAUTH_LAB_") + variable).c_str());
    return value ? value : "";
}

inline void RunLab(const std::string& words) {
    ASSERT_EQ(std::system(("\"$TESAUTH_LAB\" " + words).c_str()), 0) << words;
}

inline std::string Content(const char* path) {
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
public:
    static void Prefer(const std::string& controller) {
        std::ofstream("/var/lib/tessary/preferred_controllers") << controller << "\n";
    }

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
        Prefer(Lab("DC1_ADDRESS"));
        Join();
    }

    void TearDown() override {
        atChange = nullptr;
        afterModify = nullptr;
        beforeLogin = nullptr;
        wrongSalts = 0;
        timePassed = {};
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

    static Session AsAdministrator(const DomainState& state) {
        const Deadline deadline = Deadline::In(queryTime);
        return Session(LocateController(state.domain, {}, deadline), UserName::Parse(Lab("ADMIN")),
                       Lab("PASSWORD").c_str(), deadline);
    }

    /// Gives the account a password behind the host's back.
    static void SetPassword(const DomainState& state, const std::string& password) {
        Session admin = AsAdministrator(state);
        const Secret encoded = EncodeUnicodePassword(password);
        admin.Ldap().Modify(state.accountDn, {{LDAP_MOD_REPLACE, "unicodePwd", {encoded.View()}}},
                            admin.End());
    }

    /// A library context, and what is done with it.
    template <typename Function>
    static auto WithContext(Function function) {
        krb5_context context = nullptr;
        krb5_init_context(&context);
        auto result = function(context);
        krb5_free_context(context);
        return result;
    }
    static std::set<std::string> PrincipalsInKeytab() {
        return WithContext([](krb5_context context) {
            std::set<std::string> principals;
            for (const KeytabKey& key : ReadHostKeys(context))
                principals.insert(key.name.principal);
            return principals;
        });
    }

    /// Which keys: those that the account has, or some that it never had.
    enum class Keys { Current, Strange };

    /// Puts keys into the keytab under another version.
    /// \param principals all that have the account's key, unless told
    static void AddKeys(int version, Keys which, std::vector<std::string> principals = {}) {
        const DomainState state = DomainState::Load().value();
        if (principals.empty())
            principals = state.KeytabPrincipals();
        WithContext([&](krb5_context context) {
            std::vector<AccountKey> keys;
            std::vector<KeytabKey> all = ReadHostKeys(context, {state.AccountPrincipal()});
            for (KeytabKey& key : all)
                if (which == Keys::Current && key.name.version == NewestVersion(all))
                    keys.push_back(std::move(key.key));
            for (const krb5_enctype type : encryptionTypes) {
                krb5_keyblock key{};
                if (which == Keys::Strange && krb5_c_make_random_key(context, type, &key) == 0)
                    keys.emplace_back(context, key);
            }
            KeytabReplacement keytab(context, std::vector<std::string>());
            keytab.Add(principals, version, keys);
            keytab.Commit();
            return 0;
        });
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

} // namespace lab_key_rotation

#endif
