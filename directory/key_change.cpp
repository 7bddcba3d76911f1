#include "key_change.h"

#include <algorithm>
#include <ctime>

namespace tessary::directory {
namespace {

// No ticket can be renewed for longer, unless the domain's policy was changed.
constexpr krb5_timestamp longestTicketLife = 7 * 24 * 60 * 60;

} // namespace

KeyChange::KeyChange(krb5_context context, const DomainState& state, int version)
    : context_(context), accountPrincipal_(state.AccountPrincipal()),
      principals_(state.KeytabPrincipals()), version_(version),
      now_(static_cast<krb5_timestamp>(std::time(nullptr))) {
    for (const KeytabKey& key : ReadHostKeys(context, principals_)) {
        const auto [known, isNew] = since_.emplace(key.name.version, key.name.time);
        if (!isNew)
            known->second = std::min(known->second, key.name.time);
    }
}

bool KeyChange::IsOfAccount(const std::string& principal) const {
    return std::find(principals_.begin(), principals_.end(), principal) != principals_.end();
}

bool KeyChange::Stays(const KeytabEntryName& entry) const {
    if (!IsOfAccount(entry.principal))
        return true;
    if (entry.version > version_)
        return false; // of a change that never came about
    const auto next = since_.upper_bound(entry.version);
    return entry.version == version_ || next == since_.end() || next->first > version_ ||
           now_ - next->second < longestTicketLife;
}

bool KeyChange::MayStillHappen(const Error& error) {
    switch (error.Code()) {
    case Status::AccessDenied:
    case Status::InvalidComputerName:
    case Status::InvalidParameter:
    case Status::NoSuchContainer:
    case Status::PasswordRefused:
        return false; // the domain's answer
    default:
        return true;
    }
}

void KeyChange::Stage(const std::vector<AccountKey>& newKeys) {
    std::vector<std::string> services(principals_);
    std::erase(services, accountPrincipal_);
    KeytabReplacement keytab(context_,
                             [this](const KeytabEntryName& entry) { return Stays(entry); });
    keytab.Add(services, version_ + 1, newKeys);
    keytab.Commit();
}

void KeyChange::TakeBack() {
    KeytabReplacement(context_, [this](const KeytabEntryName& entry) {
        return Stays(entry);
    }).Commit();
}

void KeyChange::Finish(const std::vector<AccountKey>& newKeys) {
    KeytabReplacement keytab(context_,
                             [this](const KeytabEntryName& entry) { return Stays(entry); });
    keytab.Add(principals_, version_ + 1, newKeys);
    keytab.Commit();
}

} // namespace tessary::directory
