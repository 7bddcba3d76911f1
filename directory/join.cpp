#include "membership.h"

#include "domain_state.h"
#include "error.h"
#include "key_change.h"
#include "keytab.h"
#include "machine_account.h"
#include "machine_login.h"
#include "session.h"
#include "text.h"

#include <algorithm>
#include <memory>

namespace tessary::directory {
namespace {

/// Takes a machine account back unless the join gets to its end.
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

/// The host's side of a join: the keys and the record of the membership. What the host itself may
/// refuse it refuses in the constructor, before the directory is changed.
class Enrolment {
public:
    /// \param state  what the membership will be, but for the account's place
    /// \param before what it is now
    /// \param change of the account's key, when the host has that account's key already; must
    ///               outlive this
    Enrolment(Session& session, const DomainState& state, const std::optional<DomainState>& before,
              std::optional<KeyChange>& change)
        : session_(session), state_(state), change_(change), principals_(state.KeytabPrincipals()),
          replaced_(principals_), wasMember_(before.has_value()), file_(DomainState::Path()) {
        const krb5_context context = session.Kerberos().Context();
        if (before) {
            // The keys of another account stay in force as long as that is the host's.
            const bool renamed = before->AccountPrincipal() != state.AccountPrincipal();
            std::vector<std::string>& going = renamed ? former_ : replaced_;
            for (std::string& principal : PrincipalsWithKeysOf(context, *before))
                if (!IsReplaced(principal))
                    going.push_back(std::move(principal));
        }
        keytab_ = std::make_unique<KeytabReplacement>(context, replaced_);
    }

    /// \param keys of the account as far as they are known already; may be empty or a guess
    void Complete(MachineAccounts& accounts, const MachineAccount& account,
                  std::vector<AccountKey> keys, const Secret& password) {
        state_.accountDn = account.dn;
        const PendingSearch version = accounts.StartKeyVersion(account.dn);
        if (keys.empty() || !AreRight(keys)) {
            keys = session_.Kerberos().MakeKeys(state_.account, password);
            if (!AreRight(keys))
                throw Error(Status::MachineKeyRejected, session_.Where().realm +
                                                            " does not accept the new key of " +
                                                            state_.account);
        }
        Fill(keys, accounts.FinishKeyVersion(version));
        state_.Prepare(file_);

        keytab_->Commit();
        try {
            file_.Commit();
        } catch (...) {
            // Only on a host that was joined already, with an account that stays, are the new keys
            // of use: they are the only ones that the domain accepts now.
            if (account.created || !wasMember_)
                KeytabReplacement(session_.Kerberos().Context(), replaced_).Commit();
            throw;
        }
        DropFormerKeys();
    }

private:
    bool IsReplaced(const std::string& principal) const {
        return std::find(replaced_.begin(), replaced_.end(), principal) != replaced_.end();
    }

    /// They are of no use now, and harm nobody if they stay.
    void DropFormerKeys() noexcept {
        if (former_.empty())
            return;
        try {
            KeytabReplacement(session_.Kerberos().Context(), former_).Commit();
        } catch (const std::exception&) {
            return;
        }
    }

    /// Whether the domain accepts the keys, which are not in force yet.
    bool AreRight(const std::vector<AccountKey>& keys) {
        return AreAccepted(session_.Where(), state_, keys, session_.End());
    }

    void Fill(const std::vector<AccountKey>& keys, int version) {
        // Where the version has not grown, the account was made anew meanwhile. One that is lower
        // than the keytab's is no sign of that: the controller may be behind.
        if (change_ && version > change_->Told()) {
            keytab_.reset(); // which takes its file with it
            keytab_ = change_->Finished(keys, version);
        } else {
            keytab_->Add(change_ ? change_->Principals() : principals_, version, keys);
        }
    }

    Session& session_;
    DomainState state_;
    std::optional<KeyChange>& change_;
    std::vector<std::string> principals_; // who get the new keys, without a change
    std::vector<std::string> replaced_;   // whose entries go
    std::vector<std::string> former_;     // whose entries go once the host has another account
    bool wasMember_;
    std::unique_ptr<KeytabReplacement> keytab_;
    Replacement file_;
};

/// What every join begins with. Lives until its end.
struct Beginning {
    explicit Beginning(const std::string& domainName)
        : domain(NormalizeDomainName(domainName)), names(HostNames::OfThisHost(domain)),
          lock(membershipLock, deadline), before(DomainState::Load()) {
        if (before && !before->IsNamed(domain))
            throw Error(Status::AlreadyJoined, "the host is joined to " + before->domain);
    }

    const Deadline deadline = Deadline::In(membershipTime);
    const std::string domain;
    HostNames names;
    const StateLock lock;
    const std::optional<DomainState> before;
};

DomainState StateOf(const Session& session, const HostNames& names, const Surroundings& around) {
    DomainState state;
    state.domain = session.Where().domain;
    state.realm = session.Where().realm;
    state.netbiosName = around.netbiosName;
    state.domainSid = around.domainSid;
    state.account = names.AccountName();
    state.shortName = names.shortName;
    state.fullName = names.fullName;
    return state;
}

/// What fails here shows when the keys are not there.
void GuessKeys(KerberosSession& kerberos, const std::string& account, const Secret& password,
               std::vector<AccountKey>& keys) noexcept {
    try {
        keys = kerberos.GuessKeys(account, password);
    } catch (const std::exception&) {
        keys.clear();
    }
}

bool IsPlainAscii(std::string_view text) {
    return std::all_of(text.begin(), text.end(), [](char c) { return c >= ' ' && c <= '~'; });
}

void ExpectSame(const std::string& what, const std::string& described, const std::string& found) {
    if (!described.empty() && !EqualNames(described, found))
        throw Error(Status::DomainMismatch,
                    "the domain's " + what + " is " + found + ", not " + described);
}

/// The change of the account's key, for a host that has that account's key already: the new key is
/// beside the old one then. Nothing for any other host.
std::optional<KeyChange> StageChange(Session& session, const DomainState& state,
                                     const std::optional<DomainState>& before,
                                     const Surroundings& around, const Secret& password,
                                     std::vector<AccountKey>& keys) {
    if (!around.account || !before || before->AccountPrincipal() != state.AccountPrincipal())
        return std::nullopt;
    KeyChange change(session.Kerberos().Context(), state,
                     MachineAccounts::KeyVersionOf(*around.account));
    keys = session.Kerberos().MakeKeys(state.account, password);
    change.Stage(keys);
    return change;
}

/// Calls what gives the account its new password; if that is refused, a staged key goes again.
template <typename Function>
void ChangePassword(std::optional<KeyChange>& change, Function function) {
    try {
        function();
    } catch (const Error& error) {
        if (change && !KeyChange::MayStillHappen(error))
            change->TakeBack();
        throw;
    }
}

} // namespace

void JoinDomain(const std::string& domain, const std::string& unit, const std::string& user,
                const char* password) {
    const UserName userName = UserName::Parse(user);
    const Beginning begun(domain);
    Session session(LocateController(begun.domain, {}, begun.deadline), userName, password,
                    begun.deadline);
    MachineAccounts accounts(session);
    const Surroundings around = accounts.LookAround(begun.names.AccountName(), unit);
    const DomainState state = StateOf(session, begun.names, around);
    const Secret machinePassword = MakeMachinePassword();

    std::vector<AccountKey> keys;
    auto change = StageChange(session, state, begun.before, around, machinePassword, keys);
    Enrolment enrolment(session, state, begun.before, change);
    MachineAccount account;
    ChangePassword(change, [&] {
        account = accounts.Prepare(begun.names, around, machinePassword, [&]() noexcept {
            GuessKeys(session.Kerberos(), state.account, machinePassword, keys);
        });
    });
    CreatedAccount created(accounts, account, state.account);
    enrolment.Complete(accounts, account, std::move(keys), machinePassword);
    created.Keep();
}

void JoinDomainWithAccount(const DomainDescription& domain, const PreparedAccount& prepared) {
    Beginning begun(domain.dnsName);
    begun.names.account = prepared.name.substr(0, prepared.name.find('$'));
    if (begun.names.account.empty())
        throw Error(Status::InvalidParameter, "the prepared account has no name");
    if (!IsPlainAscii(prepared.password))
        throw Error(Status::InvalidParameter, "the prepared account's password is not plain ASCII");
    const UserName self{begun.names.AccountName(), ""};
    std::optional<Session> session;
    try {
        session.emplace(LocateController(begun.domain, {}, begun.deadline), self, prepared.password,
                        begun.deadline);
    } catch (const Error& error) {
        // The account may be so new that not every controller knows it, or its password, yet.
        if (error.Code() == Status::NoSuchUser || error.Code() == Status::WrongPassword)
            throw Error(Status::LogonFailure, error.what());
        throw;
    }
    MachineAccounts accounts(*session);
    const Surroundings around = accounts.LookAround(begun.names.AccountName(), "");
    ExpectSame("security identifier", domain.sid, around.domainSid);
    ExpectSame("NetBIOS name", domain.netbiosName, around.netbiosName);
    if (!around.account)
        throw Error(Status::NoMachineAccount, "the account " + self.name + " cannot be seen");
    const DomainState state = StateOf(*session, begun.names, around);
    const Secret machinePassword = MakeMachinePassword();

    std::vector<AccountKey> keys;
    auto change = StageChange(*session, state, begun.before, around, machinePassword, keys);
    Enrolment enrolment(*session, state, begun.before, change);
    ChangePassword(change, [&] {
        accounts.ReplacePassword(*around.account, begun.names, prepared.password, machinePassword);
    });
    enrolment.Complete(accounts, {around.account->dn, false}, std::move(keys), machinePassword);
}

} // namespace tessary::directory
