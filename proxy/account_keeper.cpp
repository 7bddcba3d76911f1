#include "account_keeper.h"

#include "account_place.h"
#include "account_refusals.h"
#include "account_rules.h"

#include "directory/error.h"
#include "directory/machine_account.h"
#include "directory/operation.h"
#include "directory/text.h"

#include <sys/random.h>

#include <algorithm>
#include <cerrno>
#include <utility>

namespace tessary::proxy {
namespace {

using directory::Deadline;
using directory::Error;
using directory::HostNames;
using directory::LdapEntry;
using directory::MachineAccounts;
using directory::Operation;
using directory::Secret;
using directory::Session;
using directory::Status;

/// What one request may take, waiting for others included.
constexpr std::chrono::seconds requestTime{15};
/// Until what became of a request is looked at, should its process end on the way.
constexpr std::chrono::minutes pendingTime{1};
constexpr std::chrono::minutes idleTime{1};

constexpr char nameTaken[] = "the host's name is another one's already";

std::string MakeMark() {
    std::string bytes(16, '\0');
    // So few bytes come at once or not at all.
    if (getrandom(bytes.data(), bytes.size(), 0) != static_cast<ssize_t>(bytes.size()))
        directory::ThrowFileError(errno, "no random bytes");
    return markPrefix + HexOf(bytes);
}

directory::AccountMark MarkOf(const AccountRecord& record) {
    return {"Made by tesauth-apxd for " + record.host, record.mark};
}

bool HasControlCharacters(const std::string& text) {
    return std::any_of(text.begin(), text.end(),
                       [](char c) { return static_cast<unsigned char>(c) < ' ' || c == '\x7f'; });
}

/// For whoever asked: whose the account is, and why it stays so, is only for the log.
std::string NoNewPassword(const std::string& account) {
    return "the account " + account +
           " is there already; the proxy's log says why it gets no new password";
}

std::int64_t SecondsOf(AccountRecords::Time time) {
    return std::chrono::duration_cast<std::chrono::seconds>(time.time_since_epoch()).count();
}

AccountFacts ReadMade(Session& session, const std::string& dn) {
    return FactsOf(session.Ldap().Read(
        dn, {"objectGUID", "pwdLastSet", "whenCreated", directory::markAttribute}, session.End()));
}

} // namespace

AccountKeeper::AccountKeeper(const AccountSettings& settings, Clock clock)
    : settings_(settings), clock_(std::move(clock)),
      domainName_(directory::NormalizeDomainName(settings.domain)),
      records_(settings.stateDirectory), sessions_(domainName_, settings.account, settings.keytab),
      sweep_(records_, locks_, sessions_, settings_, clock_) {}

AccountKeeper::~AccountKeeper() {
    const Operation operation;
    sessions_.EndIdle(std::chrono::seconds(0));
}

void AccountKeeper::EndIdle() {
    const Operation operation;
    sessions_.EndIdle(idleTime);
}

DomainInfo AccountKeeper::Domain() {
    return Refusing([this] {
        std::promise<DomainInfo> answer;
        std::shared_future<DomainInfo> asking;
        {
            const std::lock_guard lock(domainMutex_);
            if (domain_)
                return *domain_;
            asking = asking_;
            if (!asking.valid())
                asking_ = answer.get_future().share();
        }
        if (asking.valid()) // somebody else's question, and the answer to this one
            return asking.get();
        try {
            DomainInfo info = AskDomain();
            answer.set_value(info);
            const std::lock_guard lock(domainMutex_);
            asking_ = {};
            return domain_.emplace(std::move(info));
        } catch (...) {
            answer.set_exception(std::current_exception());
            const std::lock_guard lock(domainMutex_);
            asking_ = {};
            throw;
        }
    });
}

DomainInfo AccountKeeper::AskDomain() {
    const Operation operation;
    const Deadline deadline = Deadline::In(requestTime);
    AccountSessions::Lease session = sessions_.Take(deadline);
    return session.Ask(deadline, [](Session& asked) {
        directory::DomainIdentity identity = MachineAccounts(asked).Identify();
        // A host that is told none cannot join, and the answer is kept.
        if (identity.netbiosName.empty())
            throw Error(Status::InternalError, asked.Where().host + " tells no NetBIOS name");
        return DomainInfo{std::move(identity.netbiosName), asked.Where().domain,
                          std::move(identity.sid)};
    });
}

bool AccountKeeper::IsHostsDomain(const HostNames& names) const {
    const auto holds = [&](const std::string& domain) {
        return names.fullName.ends_with("." + domain);
    };
    return holds(domainName_) ||
           std::any_of(settings_.hostDomains.begin(), settings_.hostDomains.end(), holds);
}

HostNames AccountKeeper::NamesOf(const std::string& hostName) const {
    std::optional<HostNames> names;
    try {
        names = HostNames::Of(hostName, domainName_);
    } catch (const Error& error) {
        throw Refusal(Code::BadRequest, "the host's name cannot be a computer's", error.what());
    }
    // The account has the name's first label only: in a domain of one's own anybody could have any.
    if (!IsHostsDomain(*names))
        throw Refusal(Code::NotAllowed, "this proxy makes no accounts for hosts of that domain",
                      names->fullName);
    return *names;
}

NewAccount AccountKeeper::Create(const std::string& hostName, const std::string& container) {
    return Refusing([&] {
        if (HasControlCharacters(container))
            throw Refusal(Code::BadRequest, "the organisational unit's name is malformed");
        const HostNames names = NamesOf(hostName);
        const Operation operation;
        const Deadline deadline = Deadline::In(requestTime);
        const AccountLocks::Hold hold = locks_.Take(names.AccountName(), deadline);
        AccountSessions::Lease session = sessions_.Take(deadline);
        Request request{names, deadline, session, records_.Find(names.AccountName())};
        const Findings findings = Search(request, container);
        if (!findings.holder.empty())
            throw Refusal(Code::NotAllowed, nameTaken, findings.holder);
        return findings.account ? Reset(request, *findings.account) : Make(request, findings);
    });
}

std::string AccountKeeper::ContainerDn(Session& session, const std::string& container) const {
    const std::string own =
        directory::OrganizationalUnitDn(settings_.container, session.Where().baseDn);
    if (container.empty())
        return own;
    std::string wanted;
    try {
        wanted = directory::OrganizationalUnitDn(container, session.Where().baseDn);
    } catch (const Error& error) {
        throw Refusal(Code::BadRequest, "the organisational unit's name is malformed",
                      error.what());
    }
    if (!LiesWithin(wanted, own))
        throw Refusal(Code::NotAllowed, "this proxy makes no accounts in that organisational unit",
                      wanted + " is not within " + own);
    return wanted;
}

Findings AccountKeeper::Search(Request& request, const std::string& container) {
    return request.session.Ask(request.deadline, [&](Session& session) {
        try {
            return SearchNames(session, request.names, ContainerDn(session, container));
        } catch (const Error& error) {
            if (container.empty() || error.Code() != Status::NoSuchContainer)
                throw;
            throw Refusal(Code::BadRequest, "there is no such organisational unit", error.what());
        }
    });
}

/// The record has it before the directory is asked, so that whatever happens then the account is
/// known by its mark.
/// \param account the one that is to be reset; null for a new one
AccountRecord AccountKeeper::Intend(const Request& request, const AccountFacts* account,
                                    bool used) {
    const std::string guid = account ? account->guid : "";
    AccountRecord record;
    record.account = request.names.AccountName();
    record.host = request.names.fullName;
    record.guid = guid;
    record.used = used;
    record.started = SecondsOf(clock_());
    const std::optional<AccountRecord>& known = request.known;
    // What was made, and whose answer never came, is known by its mark alone.
    const bool same = known && (known->guid == guid ||
                                (account && known->guid.empty() && IsDone(*account, *known)));
    if (same)
        record.passwordSet = known->passwordSet;
    // What was asked for and has not been done may still come to pass. What was done, and has been
    // overtaken by another password, is over.
    const bool over = account && known && account->mark == known->mark && !IsDone(*account, *known);
    const bool again =
        same && known->state == AccountState::Pending && known->host == record.host && !over;
    record.mark = again ? known->mark : MakeMark();
    // A release is the account's that there was then.
    if (same)
        records_.Put(record, clock_() + pendingTime);
    else
        records_.PutRenewed(record, clock_() + pendingTime);
    return record;
}

/// The controller at hand does not know the account by its name. Where that is only because it has
/// not heard of it yet, there must not be another one; and one that has another name by now must
/// not be forgotten while its password may still have to be ended.
void AccountKeeper::ExpectGone(Request& request) {
    const std::optional<AccountRecord>& known = request.known;
    if (!known)
        return;
    const auto renamed = request.session.OnSession(request.deadline, [&](Session& session) {
        return known->guid.empty() ? std::nullopt : FindByGuid(session, known->guid);
    });
    const bool settled =
        known->state == AccountState::Taken || known->state == AccountState::Unclaimed;
    if (renamed && !settled)
        throw Refusal(Code::NotAllowed, NoNewPassword(known->account),
                      "it has another name now: " + renamed->dn);
    if (renamed || request.session.IsFirst())
        return;
    // Of what was only meant to be made nobody has a password.
    const std::chrono::minutes time = known->guid.empty() ? settings_.unusedAfter : oblivion;
    if (clock_() - std::chrono::system_clock::from_time_t(known->started) <= time)
        throw Refusal(Code::NoController, "the controller does not know the account yet",
                      request.session.Get().Where().host);
}

NewAccount AccountKeeper::Make(Request& request, const Findings& findings) {
    ExpectGone(request);
    const AccountRecord record = Intend(request, nullptr, false);
    Secret password = directory::MakeMachinePassword();
    const auto make = [&](Session& session) {
        const std::string dn = MachineAccounts(session).CreateMarked(
            request.names, findings.container, password, MarkOf(record));
        return ReadMade(session, dn);
    };
    std::optional<AccountFacts> made;
    try {
        made = request.session.OnSession(request.deadline, make);
    } catch (const Error& error) {
        if (IsUnanswered(error))
            throw;
        // Somebody may have been faster.
        const Findings now = request.session.OnSession(request.deadline, [&](Session& session) {
            return SearchNames(session, request.names, findings.container);
        });
        if (error.Code() == Status::InvalidComputerName || !now.holder.empty())
            throw Refusal(Code::NotAllowed, nameTaken, error.what());
        if (now.account && !IsOurs(FactsOf(*now.account), record))
            throw Refusal(Code::NotAllowed, NoNewPassword(record.account),
                          std::string("somebody else has just made it: ") + error.what());
        throw;
    }
    try {
        return Give(request, record, *made, std::move(password));
    } catch (const std::exception&) {
        if (made->mark == record.mark)
            Undo(request, *made);
        throw;
    }
}

/// Nobody is going to hear of the account. What fails here is mended when what is pending is looked
/// at.
void AccountKeeper::Undo(Request& request, const AccountFacts& made) noexcept {
    try {
        request.session.OnSession(request.deadline, [&](Session& session) {
            session.Ldap().Delete(made.UniqueDn(), request.deadline);
        });
    } catch (const std::exception&) {
        return;
    }
}

void AccountKeeper::ExpectReset(Request& request, const AccountFacts& account) {
    const std::string name = request.names.AccountName();
    const std::string what = "the account " + name + " ";
    const std::string own = request.session.OnSession(
        request.deadline, [&](Session& session) { return ContainerDn(session, ""); });
    const AccountRules rules{own, settings_.resetAfter, settings_.unusedAfter};
    const std::optional<Objection> objection =
        WhyNotReset(account, request.known, request.names.fullName, rules, clock_());
    if (objection && objection->forHost)
        throw Refusal(Code::NotAllowed, what + objection->reason, account.dn);
    if (objection)
        throw Refusal(Code::NotAllowed, NoNewPassword(name),
                      what + objection->reason + ": " + account.dn);
    const bool elevated = request.session.OnSession(
        request.deadline, [&](Session& session) { return IsInElevatedGroup(session, account); });
    if (elevated)
        throw Refusal(Code::NotAllowed, NoNewPassword(name),
                      what + "is a member of an administrators' group: " + account.dn);
}

NewAccount AccountKeeper::Reset(Request& request, const LdapEntry& account) {
    const AccountFacts facts = FactsOf(account);
    ExpectReset(request, facts);
    const AccountRecord before = *request.known;
    // Whoever has changed its password since was a host, and the account is worth keeping.
    const bool changed =
        !before.guid.empty() && facts.passwordSet != before.passwordSet && !IsDone(facts, before);
    const AccountRecord record = Intend(request, &facts, before.used || changed);
    Secret password = directory::MakeMachinePassword();
    LdapEntry target = account;
    target.dn = facts.UniqueDn();
    const AccountFacts made = request.session.OnSession(request.deadline, [&](Session& session) {
        try {
            MachineAccounts(session).ResetMarked(target, request.names, password, MarkOf(record));
        } catch (const Error& error) {
            if (!IsUnanswered(error))
                records_.Put(before, UnusedAt(before));
            throw;
        }
        return ReadMade(session, target.dn);
    });
    return Give(request, record, made, std::move(password));
}

NewAccount AccountKeeper::Give(Request& request, AccountRecord record, const AccountFacts& account,
                               Secret password) {
    if (account.mark != record.mark)
        throw Refusal(Code::Internal, "the account was changed by somebody else meanwhile",
                      account.dn);
    record.guid = account.guid;
    record.passwordSet = account.passwordSet;
    record.state = AccountState::Given;
    record.started = SecondsOf(clock_());
    records_.PutRenewed(record, UnusedAt(record));
    return {request.names.AccountName(), std::move(password)};
}

void AccountKeeper::Sweep(const std::stop_token& stop) {
    const Operation operation;
    sweep_.Run(stop);
}

} // namespace tessary::proxy
