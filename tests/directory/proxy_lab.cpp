#include "proxy_lab.h"

#include "directory/error.h"
#include "directory/machine_account.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>

using namespace tessary;
using directory::Deadline;
using directory::Error;
using directory::LdapEntry;
using directory::Session;
using directory::Status;
using lab::Setting;

namespace {

constexpr char nameServersFile[] = "/etc/resolv.conf";

Deadline Soon() {
    return Deadline::In(directory::queryTime);
}

std::string MakeFolder() {
    char name[] = "/run/proxyXXXXXX";
    return mkdtemp(name) ? name : "";
}

} // namespace

PdcEmulatorIsHidden::PdcEmulatorIsHidden() {
    std::ifstream before(nameServersFile);
    nameServers_.assign(std::istreambuf_iterator<char>(before), {});
    lab::UseOwnNameServer("host1");
}

PdcEmulatorIsHidden::~PdcEmulatorIsHidden() {
    std::ofstream(nameServersFile) << nameServers_;
    lab::Run({"sh", "-c", "kill $(cat /run/dnsmasq.pid)"});
}

ProxyLab::ProxyLab() : stateDirectory_(MakeFolder()) {
    settings_.domain = Setting("DOMAIN");
    settings_.container = Setting("PROXY_CONTAINER");
    settings_.account = Setting("PROXY_ACCOUNT");
    settings_.keytab = Setting("PROXY_KEYTAB");
    settings_.stateDirectory = stateDirectory_;
}

ProxyLab::~ProxyLab() {
    keeper_.reset();
    DeleteComputers();
    std::filesystem::remove_all(stateDirectory_);
}

proxy::AccountKeeper& ProxyLab::Restart() {
    keeper_.reset();
    keeper_ = std::make_unique<proxy::AccountKeeper>(
        settings_, [this] { return std::chrono::system_clock::now() + passed_; });
    return *keeper_;
}

proxy::NewAccount ProxyLab::Make(const std::string& host, const std::string& container) {
    try {
        return Keeper().Create(host, container);
    } catch (const proxy::Refusal& refusal) {
        ADD_FAILURE() << host << ": " << refusal.what() << " (" << refusal.Detail() << ")";
        return {"", directory::Secret(0)};
    }
}

ProxyLab::Answer ProxyLab::Ask(const std::string& host, const std::string& container) {
    try {
        Keeper().Create(host, container);
        return {0, "given", ""};
    } catch (const proxy::Refusal& refusal) {
        return {static_cast<std::uint32_t>(refusal.WhichCode()), refusal.what(), refusal.Detail()};
    }
}

std::string ProxyLab::Refused(const std::string& host, const std::string& container) {
    const Answer answer = Ask(host, container);
    return answer.code == 0 ? answer.text : std::to_string(answer.code) + " " + answer.text;
}

std::string ProxyLab::WhyNoNewPassword(const std::string& host) {
    const Answer answer = Ask(host);
    EXPECT_EQ(answer.code, 5u);
    EXPECT_THAT(answer.text,
                testing::MatchesRegex("the account [A-Z0-9-]+[$] is there already; the proxy's log "
                                      "says why it gets no new password"));
    return answer.detail;
}

void ProxyLab::Pass(std::chrono::minutes time) {
    passed_ += time;
    Keeper().Sweep();
}

std::optional<proxy::AccountRecord> ProxyLab::Record(const std::string& account) {
    return proxy::AccountRecords(stateDirectory_).Find(account);
}

Session& ProxyLab::Admin() {
    static Session session(directory::LocateController(domain, {}, Soon()),
                           directory::UserName::Parse(Setting("ADMIN")),
                           Setting("PASSWORD").c_str(), Soon());
    static bool fresh = true;
    session.Extend(Soon());
    try {
        if (!fresh)
            session.Ldap().Read(base, {"objectClass"}, session.End());
    } catch (const Error&) { // the controller was started anew
        session.Reconnect(Soon());
    }
    fresh = false;
    return session;
}

std::vector<LdapEntry> ProxyLab::Find(const std::string& account) {
    Session& session = Admin();
    return session.Ldap().Search(
        base, LDAP_SCOPE_SUBTREE, "(sAMAccountName=" + directory::EscapeFilterValue(account) + ")",
        {"userAccountControl", "dNSHostName", "servicePrincipalName", "description",
         "adminDescription", "msDS-SupportedEncryptionTypes", "pwdLastSet", "badPwdCount",
         "objectGUID"},
        session.End());
}

LdapEntry ProxyLab::Only(const std::string& account) {
    std::vector<LdapEntry> found = Find(account);
    EXPECT_EQ(found.size(), 1u) << account;
    return found.empty() ? LdapEntry() : found.front();
}

void ProxyLab::Change(const std::string& dn, const std::string& attribute,
                      const std::string& value) {
    Session& session = Admin();
    session.Ldap().Modify(dn, {{LDAP_MOD_REPLACE, attribute, {value}}}, session.End());
}

void ProxyLab::ChangePassword(const std::string& account) {
    const directory::Secret password = directory::MakeMachinePassword();
    Change(Only(account).dn, "unicodePwd",
           std::string(directory::EncodeUnicodePassword(password.View()).View()));
}

bool ProxyLab::Takes(const std::string& account, std::string_view password) {
    const directory::Controller controller = directory::LocateController(domain, {}, Soon());
    directory::KerberosSession kerberos(controller.realm, directory::FinderFor(controller, Soon()),
                                        Soon());
    try {
        kerberos.LogIn({account, ""}, controller.domain, std::string(password).c_str());
        return true;
    } catch (const Error& error) {
        EXPECT_EQ(error.Code(), Status::WrongPassword) << error.what();
        return false;
    }
}

void ProxyLab::DeleteComputers() {
    Session& session = Admin();
    for (const LdapEntry& entry : session.Ldap().Search(
             base, LDAP_SCOPE_SUBTREE, "(&(objectClass=computer)(!(primaryGroupID=516)))", {"cn"},
             session.End()))
        session.Ldap().DeleteTree(entry.dn, session.End());
}
