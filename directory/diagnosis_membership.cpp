#include "diagnosis_membership.h"

#include "diagnosis_controllers.h"
#include "diagnosis_text.h"
#include "error.h"
#include "kerberos_profile.h"
#include "keytab.h"
#include "locator.h"
#include "machine_login.h"
#include "session.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <map>
#include <optional>

namespace tessary::directory {
namespace {

constexpr char keytabCheck[] = "keytab";
constexpr char trustCheck[] = "trust";

constexpr int timeToLookAgain = 3000; // milliseconds that it takes at most, as a rule

/// What is in the keytab.
struct KeytabContent {
    bool isThere = true;
    std::map<std::string, int> newest; ///< version by principal
    std::optional<Error> failure;      ///< why it could not be read

    bool Has(const std::string& principal) const { return newest.count(principal) != 0; }
};

KeytabContent ReadKeytab(const DomainState& state) {
    KeytabContent content;
    content.isThere = access(hostKeytab, F_OK) == 0 || errno != ENOENT;
    try {
        const KerberosContext context(MakeKerberosContext(state.realm));
        for (const KeytabKey& key : ReadHostKeys(context.get(), state.KeytabPrincipals())) {
            int& newest = content.newest[key.name.principal];
            newest = std::max(newest, key.name.version);
        }
    } catch (const Error& error) {
        content.failure = error;
    }
    return content;
}

/// How the domain took the host's key.
struct Login {
    std::optional<Error> failure;      ///< why it did not
    std::optional<int> version;        ///< of the key that the account has
    std::optional<Error> queryFailure; ///< why the domain did not tell the version
    std::optional<int> waitingVersion; ///< of a newer key that is taken instead of the account's
    bool takesFormerKey = false;       ///< when all of these are refused
    std::optional<Error> otherKeysFailure; ///< why it is not known which other key is taken
};

/// Finds out which key a controller takes that refuses the account's: one that a change of keys has
/// left for the services only, or the former one, when it has merely not heard of the latest.
/// \param own what the account had in the keytab before it was refused
void TryOtherKeys(Login& login, const Controller& controller, const DomainState& state,
                  const std::vector<KeyGeneration>& own, const Deadline& deadline) {
    try {
        const KerberosContext context(MakeKerberosContext(state.realm));
        for (const KeyGeneration& each :
             ReadKeyGenerations(context.get(), state.KeytabPrincipals())) {
            if (!own.empty() && each.version > own.back().version &&
                AreAccepted(controller, state, each.keys, deadline)) {
                login.waitingVersion = each.version;
                return;
            }
        }
        login.takesFormerKey =
            own.size() > 1 && AreAccepted(controller, state, own[own.size() - 2].keys, deadline);
    } catch (const Error& error) {
        login.otherKeysFailure = error;
    }
}

/// What logs in for other operations may put a key in force that an unfinished change has left in
/// the keytab. This one only looks.
Login LogInAt(const std::string& where, const DomainState& state, const Deadline& deadline) {
    Login login;
    std::optional<Controller> controller;
    std::optional<KerberosSession> kerberos;
    std::vector<KeyGeneration> own;
    try {
        controller = LocateController(state.domain, {where}, deadline);
        kerberos.emplace(controller->realm, FinderFor(*controller, deadline), deadline);
        own = ReadKeyGenerations(kerberos->Context(), {state.AccountPrincipal()});
        if (own.empty()) // this tells why
            LogInAsMachine(*kerberos, state.account, std::string("FILE:") + hostKeytab);
        else
            LogInWithKeys(*kerberos, state, own.back().keys);
    } catch (const Error& error) {
        login.failure = error;
        if (error.Code() == Status::MachineKeyRejected && controller)
            TryOtherKeys(login, *controller, state, own, deadline);
        return login;
    }
    try {
        kerberos->GetServiceTicket("ldap", controller->host);
        controller->connection->Bind(*kerberos, deadline);
        const auto accounts = controller->connection->Search(
            controller->baseDn, LDAP_SCOPE_SUBTREE,
            "(sAMAccountName=" + EscapeFilterValue(state.account) + ")", {"msDS-KeyVersionNumber"},
            deadline);
        for (const LdapEntry& account : accounts)
            if (const auto version = account.Number("msDS-KeyVersionNumber"))
                login.version = static_cast<int>(*version);
    } catch (const Error& error) {
        login.queryFailure = error;
    }
    return login;
}

/// The principals that have no key of this version or, without a version, none at all.
std::vector<std::string> Lacking(const DomainState& state, const KeytabContent& content,
                                 std::optional<int> version) {
    std::vector<std::string> lacking;
    for (const std::string& principal : state.KeytabPrincipals())
        if (!content.Has(principal) || (version && content.newest.at(principal) < *version))
            lacking.push_back(principal);
    return lacking;
}

bool IsRejected(const Login& login) {
    return login.failure && login.failure->Code() == Status::MachineKeyRejected;
}

// Any login does it.
constexpr char finishChange[] = "tesauthctl status, which tries the new key and puts it in force";

/// What makes a login needless: there is no key to log in with.
std::optional<Finding> FindNoKey(const DomainState& state, const KeytabContent& content) {
    const std::string file = hostKeytab;
    const auto failure = [&](const std::string& text, const std::string& remedy) {
        return Finding{keytabCheck, Severity::Failure, text, remedy};
    };
    if (content.failure && content.failure->Code() == Status::AccessDenied)
        return Finding{keytabCheck, Severity::Warning, file + " cannot be read by this user",
                       "run as root: tesauthctl diagnose " + ShellWord(state.domain)};
    if (content.failure)
        return failure(content.failure->what(),
                       "mv " + file + " " + file + ".damaged && " + JoinCommand(state.domain));
    if (!content.isThere)
        return failure(file + " is not there; it holds the host's key", JoinCommand(state.domain));
    if (!content.Has(state.AccountPrincipal()))
        return failure(file + " has no key of " + state.account + ", which the host logs in with",
                       JoinCommand(state.domain));
    return std::nullopt;
}

std::string KeysText(const DomainState& state, const KeytabContent& content) {
    return "newest key of version " + std::to_string(content.newest.at(state.AccountPrincipal())) +
           " for " + Counted(state.KeytabPrincipals().size(), "name");
}

std::string WaitOrJoin(const std::string& domain) {
    return "wait until the controllers have told one another, then look again; if it stays, join "
           "again: " +
           JoinCommand(domain);
}

/// \param version of the key that the account has
Finding CompareKeys(const DomainState& state, const KeytabContent& content, int version) {
    const std::string account =
        state.account + " has version " + std::to_string(version) + " in " + state.domain;
    const std::vector<std::string> old = Lacking(state, content, version);
    if (!old.empty())
        return {keytabCheck, Severity::Failure,
                "the keytab has only old keys for " + Listed(old) + ": " + account,
                JoinCommand(state.domain)};
    if (content.newest.at(state.AccountPrincipal()) > version)
        return {keytabCheck, Severity::Warning,
                "the controller does not know the newest key yet: " + KeysText(state, content) +
                    ", but " + account,
                WaitOrJoin(state.domain)};
    return {keytabCheck, Severity::Ok, KeysText(state, content) + ": " + account, ""};
}

Finding WaitingKeyFinding(const DomainState& state, const KeytabContent& content, int version) {
    return {keytabCheck, Severity::Warning,
            "a change of keys is not finished everywhere: version " + std::to_string(version) +
                " waits beside version " +
                std::to_string(content.newest.at(state.AccountPrincipal())),
            finishChange};
}

Finding CheckKeys(const DomainState& state, const KeytabContent& content, const Login& login) {
    const auto failure = [&](const std::string& text) {
        return Finding{keytabCheck, Severity::Failure, text, JoinCommand(state.domain)};
    };
    const std::vector<std::string> missing = Lacking(state, content, std::nullopt);
    if (!missing.empty())
        return failure(std::string(hostKeytab) + " has no key for " + Listed(missing));
    if (login.version)
        return CompareKeys(state, content, *login.version);
    if (login.waitingVersion)
        return WaitingKeyFinding(state, content, *login.waitingVersion);
    if (!IsRejected(login) || login.takesFormerKey)
        return {keytabCheck, Severity::Ok,
                KeysText(state, content) + "; not compared with " + state.domain +
                    ", which did not tell: see " + trustCheck,
                ""};
    return {keytabCheck, Severity::Warning,
            KeysText(state, content) + ", which is not the one that " + state.account + " has in " +
                state.domain + ": see " + trustCheck,
            JoinCommand(state.domain)};
}

/// What a refused login means, and what mends it.
Finding TrustFinding(const DomainState& state, const Error& error) {
    const auto failure = [&](const std::string& text, const std::string& remedy) {
        return Finding{trustCheck, Severity::Failure, text, remedy};
    };
    const std::string cause = error.what();
    switch (error.Code()) {
    case Status::MachineKeyRejected:
        return failure(state.domain + " does not take this host's key: " + cause,
                       JoinCommand(state.domain));
    case Status::NoMachineAccount:
        return failure(state.domain + " has no account " + state.account + " any more",
                       JoinCommand(state.domain));
    case Status::AccountDisabled:
    case Status::PasswordExpired:
        return failure(state.domain + " does not let " + state.account + " log in: " + cause,
                       "have " + state.account +
                           " enabled, or join again: " + JoinCommand(state.domain));
    case Status::ClockSkew:
        return failure("this host's clock is too far from the controller's: " + cause,
                       SetClockCommand());
    case Status::ConnectionRefused:
    case Status::NoController:
    case Status::NoSuchDomain:
    case Status::TimedOut:
        return failure("no controller of " + state.domain + " to ask: " + cause,
                       "mend what is said of the name servers and the controllers");
    default:
        return failure("the login with this host's key failed: " + cause,
                       "if that does not help, join again: " + JoinCommand(state.domain));
    }
}

Finding CheckTrust(const DomainState& state, const Login& login) {
    if (login.waitingVersion)
        return {trustCheck, Severity::Warning,
                state.domain + " takes another key of this host, which is not in force here yet",
                finishChange};
    if (login.takesFormerKey)
        return {trustCheck, Severity::Warning,
                "the controller is behind: it takes this host's former key, not yet the latest",
                WaitOrJoin(state.domain)};
    if (login.failure) {
        Finding finding = TrustFinding(state, *login.failure);
        if (login.otherKeysFailure)
            finding.text +=
                std::string("; whether it takes another of the host's keys could not be "
                            "asked: ") +
                login.otherKeysFailure->what();
        return finding;
    }
    if (login.queryFailure)
        return {trustCheck, Severity::Warning,
                state.domain + " takes this host's key, but does not let it ask: " +
                    login.queryFailure->what(),
                "look into the controllers' logs for logins of " + state.account};
    return {trustCheck, Severity::Ok, state.domain + " takes " + state.account + " with its key",
            ""};
}

/// \param content as it was before
Findings LookAt(const DomainState& state, const KeytabContent& content,
                const std::string& controller, const Deadline& deadline) {
    if (const std::optional<Finding> noKey = FindNoKey(state, content))
        return {*noKey,
                {trustCheck, Severity::Warning, std::string("not looked at: see ") + keytabCheck,
                 noKey->remedy}};
    Login login;
    if (controller.empty())
        login.failure = Error(Status::NoController, "none is known that works");
    else
        login = LogInAt(controller, state, deadline);
    return {CheckKeys(state, content, login), CheckTrust(state, login)};
}

} // namespace

Findings CheckMembership(const DomainState& state, const std::string& controller,
                         const Deadline& deadline) {
    const KeytabContent before = ReadKeytab(state);
    const Findings findings = LookAt(state, before, controller, deadline);
    const bool isGood = std::all_of(findings.begin(), findings.end(), [](const Finding& each) {
        return each.severity == Severity::Ok;
    });
    if (isGood)
        return findings;
    // A key that is changed meanwhile looks like one that is wrong.
    const KeytabContent now = ReadKeytab(state);
    if (now.newest == before.newest || deadline.Milliseconds() < timeToLookAgain)
        return findings;
    return LookAt(state, now, controller, deadline);
}

} // namespace tessary::directory
