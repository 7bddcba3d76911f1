/// Which existing accounts the proxy may give a new password.
#ifndef TESSARY_PROXY_ACCOUNT_RULES_H
#define TESSARY_PROXY_ACCOUNT_RULES_H

#include "account_records.h"
#include "account_search.h"

#include <chrono>
#include <optional>
#include <string>

namespace tessary::proxy {

/// How long a controller may still do what it was asked for before it was frozen or cut off, and
/// how long it may take until all controllers know what one of them has done.
inline constexpr std::chrono::hours oblivion{24};

/// What the marks begin with that this proxy gives accounts; what follows tells one from the other.
inline constexpr char markPrefix[] = "tesauth-apxd ";

/// What an account is to be measured by.
struct AccountRules {
    std::string container;            ///< the place that the proxy may write to
    std::chrono::hours resetAfter;    ///< 0: no account by its age
    std::chrono::minutes unusedAfter; ///< what a host has not taken over by then is taken back
};

/// Why an account is not the proxy's business, whoever made it: it is no plain host's, or has
/// rights that others have not. Nothing when it is.
std::optional<std::string> WhyElevated(const AccountFacts& account);

/// Whether the members of a group have an administrator's rights, or may get them.
/// \param sid in text form
bool IsElevatedGroup(const std::string& sid);

/// Whether an account is one that the proxy has made, or means to.
bool IsOurs(const AccountFacts& account, const AccountRecord& record);

/// Whether the directory has done what is pending: nobody knows the account's password then.
bool IsDone(const AccountFacts& account, const AccountRecord& record);

/// Whether an account's password was set too late to be the one that is pending: somebody has set
/// it since.
bool IsSetSince(const AccountFacts& account, const AccountRecord& record);

/// Why an account gets no new password.
struct Objection {
    std::string reason;   ///< what the account is or has: goes behind its name
    bool forHost = false; ///< the account is the host's own, and its host may hear of the reason
};

/// Why an account may not be given a new password for a host; nothing when it may.
/// \param record what is known of an account of that name, if anything
std::optional<Objection> WhyNotReset(const AccountFacts& account,
                                     const std::optional<AccountRecord>& record,
                                     const std::string& host, const AccountRules& rules,
                                     AccountRecords::Time now);

} // namespace tessary::proxy

#endif
