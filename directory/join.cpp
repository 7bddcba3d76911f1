#include "membership.h"

#include "domain_state.h"
#include "error.h"
#include "keytab.h"
#include "machine_account.h"
#include "names.h"
#include "secret.h"
#include "session.h"
#include "sid.h"

#include <utility>

namespace tessary::directory {
namespace {

/// Deletes an account that a join has created, unless the join came to its end.
class CreatedAccount {
public:
    CreatedAccount(MachineAccounts& accounts, const MachineAccount& account,
                   const std::string& accountName)
        : accounts_(accounts), dn_(account.dn), name_(accountName), undo_(account.created) {}
    CreatedAccount(const CreatedAccount&) = delete;
    CreatedAccount& operator=(const CreatedAccount&) = delete;
    ~CreatedAccount() {
        if (undo_)
            accounts_.UndoCreation(dn_, name_);
    }

    void Keep() { undo_ = false; }

private:
    MachineAccounts& accounts_;
    std::string dn_;
    std::string name_;
    bool undo_;
};

std::string NetbiosName(Session& session) {
    const Controller& where = session.Where();
    const auto partitions = session.Ldap().Search(
        "CN=Partitions," + where.configurationDn, LDAP_SCOPE_ONELEVEL,
        "(&(objectClass=crossRef)(nCName=" + EscapeFilterValue(where.baseDn) + ")(nETBIOSName=*))",
        {"nETBIOSName"}, session.End());
    return partitions.empty() ? "" : partitions.front().Value("nETBIOSName");
}

/// Proves that the domain accepts the key in a keytab, before that is put in force.
void Verify(Session& session, const std::string& account, const std::string& keytab) {
    KerberosSession machine(session.Where().realm, FinderFor(session.Where(), session.End()),
                            session.End());
    LogInAsMachine(machine, account, keytab);
}

void RefuseOtherDomain(const std::optional<DomainState>& state, const std::string& domain) {
    if (state && !state->IsNamed(domain))
        throw Error(Status::AlreadyJoined, "the host is joined to " + state->domain);
}

} // namespace

void JoinDomain(const std::string& domain, const std::string& unit, const std::string& user,
                const char* password) {
    const Deadline deadline = Deadline::In(membershipTime);
    const std::string wanted = NormalizeDomainName(domain);
    const UserName userName = UserName::Parse(user);
    const HostNames names = HostNames::OfThisHost(wanted);
    const StateLock lock(membershipLock, deadline);
    const std::optional<DomainState> before = DomainState::Load();
    RefuseOtherDomain(before, wanted);

    Session session(LocateController(wanted, {}, deadline), userName, password, deadline);
    DomainState state;
    state.domain = session.Where().domain;
    state.realm = session.Where().realm;
    state.netbiosName = NetbiosName(session);
    state.domainSid = SidText(
        session.Ldap().Read(session.Where().baseDn, {"objectSid"}, deadline).Value("objectSid"));
    state.account = names.AccountName();
    state.shortName = names.shortName;
    state.fullName = names.fullName;
    std::vector<std::string> replaced = state.KeytabPrincipals();
    if (before)
        for (std::string& principal : before->KeytabPrincipals())
            replaced.push_back(std::move(principal));

    // Whatever the host itself may refuse comes before the directory is changed.
    KeytabReplacement keytab(session.Kerberos().Context(), replaced);
    Replacement stateFile(DomainState::Path());

    const Secret machinePassword = MakeMachinePassword();
    MachineAccounts accounts(session);
    const MachineAccount account = accounts.Prepare(names, unit, machinePassword);
    CreatedAccount created(accounts, account, state.account);
    state.accountDn = account.dn;
    keytab.Add(state.KeytabPrincipals(), accounts.KeyVersion(account.dn),
               session.Kerberos().MakeKeys(state.account, machinePassword));
    Verify(session, state.account, keytab.Name());
    state.Prepare(stateFile);

    keytab.Commit();
    try {
        stateFile.Commit();
    } catch (...) {
        // Only on a host that was joined already, with an account that stays, are the new keys of
        // use: they are the only ones that the domain accepts now.
        if (account.created || !before)
            KeytabReplacement(session.Kerberos().Context(), replaced).Commit();
        throw;
    }
    created.Keep();
}

} // namespace tessary::directory
