#include "diagnosis_membership.h"

#include "diagnosis_controllers.h"
#include "diagnosis_text.h"
#include "error.h"
#include "kerberos_owner.h"
#include "kerberos_profile.h"
#include "keytab.h"
#include "locator.h"
#include "machine_login.h"
#include "session.h"

#include <sys/stat.h>

#include <algorithm>
#include <map>
#include <memory>
#include <optional>

namespace tessary::directory {
namespace {

constexpr char keytabCheck[] = "keytab";
constexpr char trustCheck[] = "trust";

struct ContextDeleter {
    void operator()(krb5_context context) const { krb5_free_context(context); }
};

std::string JoinCommand(const DomainState& state) {
    return "tesauthctl join " + state.domain + " -U USER";
}

/// What is in the keytab.
struct KeytabContent {
    std::map<std::string, int> newest; ///< version by principal
    std::optional<Error> failure;      ///< why it could not be read

    bool Has(const std::string& principal) const { return newest.count(principal) != 0; }
    int Newest() const {
        int version = 0;
        for (const auto& [principal, each] : newest)
            version = std::max(version, each);
        return version;
    }
};

KeytabContent ReadKeytab(const DomainState& state) {
    KeytabContent content;
    try {
        const std::unique_ptr<std::remove_pointer_t<krb5_context>, ContextDeleter> context(
            MakeKerberosContext(state.realm));
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
};

/// What logs in for other operations may put a key in force that an unfinished change has left in
/// the keytab. This one only looks.
Login LogInAt(const std::string& where, const DomainState& state, const Deadline& deadline) {
    Login login;
    std::optional<Controller> controller;
    std::optional<KerberosSession> kerberos;
    try {
        controller = LocateController(state.domain, {where}, deadline);
        kerberos.emplace(controller->realm, FinderFor(*controller, deadline), deadline);
        LogInAsMachine(*kerberos, state.account, std::string("FILE:") + hostKeytab);
    } catch (const Error& error) {
        login.failure = error;
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

/// Mode and owner, where they are not in order.
std::optional<Finding> CheckMode(const DomainState& state) {
    struct stat information {};
    if (stat(hostKeytab, &information) != 0)
        return Finding{keytabCheck, Severity::Failure,
                       std::string(hostKeytab) + " is not there; it holds the host's key",
                       JoinCommand(state)};
    const unsigned mode = information.st_mode & 07777;
    if (information.st_uid == 0 && (mode & 077) == 0)
        return std::nullopt;
    char text[8];
    std::snprintf(text, sizeof text, "%04o", mode);
    return Finding{keytabCheck, Severity::Failure,
                   std::string(hostKeytab) + " has mode " + text + " and owner " +
                       std::to_string(information.st_uid) +
                       ": who else can read it can pretend to be this host",
                   std::string("chown root:root ") + hostKeytab + " && chmod 0600 " + hostKeytab};
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

std::string KeyOf(const DomainState& state, int version) {
    return state.account + " has version " + std::to_string(version);
}

bool IsRejected(const Login& login) {
    return login.failure && login.failure->Code() == Status::MachineKeyRejected;
}

// Any login does it.
constexpr char finishChange[] = "tesauthctl status, which tries the new key and puts it in force";

/// Whether a change of keys was broken off when the new one was in the keytab for the services
/// only.
bool HasUntriedKey(const DomainState& state, const KeytabContent& content) {
    const auto own = content.newest.find(state.AccountPrincipal());
    return own != content.newest.end() && content.Newest() > own->second;
}

Finding CheckKeys(const DomainState& state, const KeytabContent& content, const Login& login) {
    const auto failure = [&](const std::string& text) {
        return Finding{keytabCheck, Severity::Failure, text, JoinCommand(state)};
    };
    const std::string file = hostKeytab;
    const std::vector<std::string> missing = Lacking(state, content, std::nullopt);
    if (!missing.empty())
        return failure(file + " has no key for " + Listed(missing));
    const int own = content.newest.at(state.AccountPrincipal());
    const std::string keys = "newest key of version " + std::to_string(own);
    if (login.version) {
        const std::vector<std::string> old = Lacking(state, content, login.version);
        if (!old.empty())
            return failure("the keytab has only old keys for " + Listed(old) + ": " +
                           KeyOf(state, *login.version) + " in " + state.domain);
        if (own != *login.version)
            return failure(keys + ", but " + KeyOf(state, *login.version) + " in " + state.domain);
        return {keytabCheck, Severity::Ok,
                keys + " for " + Counted(state.KeytabPrincipals().size(), "name") + ", as " +
                    state.account + " has in " + state.domain,
                ""};
    }
    if (IsRejected(login)) {
        if (HasUntriedKey(state, content))
            return {keytabCheck, Severity::Warning,
                    "a change of keys was not finished: version " +
                        std::to_string(content.Newest()) + " waits beside version " +
                        std::to_string(own),
                    finishChange};
        return failure(keys + ", which is not the one that " + state.account + " has in " +
                       state.domain);
    }
    return {keytabCheck, Severity::Ok,
            keys + " for " + Counted(state.KeytabPrincipals().size(), "name") +
                "; not compared with " + state.domain + ", which did not tell",
            ""};
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
                       JoinCommand(state));
    case Status::NoMachineAccount:
        return failure(state.domain + " has no account " + state.account + " any more",
                       JoinCommand(state));
    case Status::AccountDisabled:
    case Status::PasswordExpired:
        return failure(state.domain + " does not let " + state.account + " log in: " + cause,
                       "have " + state.account + " enabled, or join again: " + JoinCommand(state));
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
                       "if that does not help, join again: " + JoinCommand(state));
    }
}

Finding CheckTrust(const DomainState& state, const KeytabContent& content, const Login& login) {
    if (IsRejected(login) && HasUntriedKey(state, content))
        return {trustCheck, Severity::Warning,
                state.domain + " does not take this host's old key; the new one was not tried",
                finishChange};
    if (login.failure)
        return TrustFinding(state, *login.failure);
    if (login.queryFailure)
        return {trustCheck, Severity::Warning,
                state.domain + " takes this host's key, but does not let it ask: " +
                    login.queryFailure->what(),
                "look into the controllers' logs for logins of " + state.account};
    return {trustCheck, Severity::Ok, state.domain + " takes " + state.account + " with its key",
            ""};
}

} // namespace

Findings CheckMembership(const DomainState& state, const std::string& controller,
                         const Deadline& deadline) {
    const KeytabContent content = ReadKeytab(state);
    const std::optional<Finding> mode = CheckMode(state);
    if (content.failure && content.failure->Code() == Status::AccessDenied) {
        const std::string text = std::string(hostKeytab) + " cannot be read by this user";
        const std::string remedy = "run as root: sudo tesauthctl diagnose";
        return {mode.value_or(Finding{keytabCheck, Severity::Warning, text, remedy}),
                {trustCheck, Severity::Warning, text, remedy}};
    }
    Login login;
    if (controller.empty())
        login.failure = Error(Status::NoController, "none is known that works");
    else
        login = LogInAt(controller, state, deadline);
    Findings findings;
    if (mode)
        findings.push_back(*mode);
    else if (content.failure)
        findings.push_back({keytabCheck, Severity::Failure, content.failure->what(),
                            std::string("mv ") + hostKeytab + " " + hostKeytab + ".damaged && " +
                                JoinCommand(state)});
    else
        findings.push_back(CheckKeys(state, content, login));
    findings.push_back(CheckTrust(state, content, login));
    return findings;
}

} // namespace tessary::directory
