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
      principals_(PrincipalsWithKeysOf(context, state)),
      version_(std::max(version, NewestVersion(ReadHostKeys(context, {accountPrincipal_})))),
      stagedVersion_(std::max(version_, NewestVersion(ReadHostKeys(context, principals_))) + 1),
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

bool KeyChange::Stays(const KeytabEntryName& entry, int newVersion) const {
    if (!IsOfAccount(entry.principal))
        return true;
    if (entry.version >= newVersion)
        return false;
    const auto next = since_.upper_bound(entry.version);
    return entry.version >= version_ || next == since_.end() || next->first > version_ ||
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
    KeytabReplacement keytab = Kept(stagedVersion_);
    keytab.Add(services, stagedVersion_, newKeys);
    keytab.Commit();
}

void KeyChange::TakeBack() {
    Kept(stagedVersion_).Commit();
}

std::unique_ptr<KeytabReplacement> KeyChange::Finished(const std::vector<AccountKey>& newKeys,
                                                       int newVersion) {
    // Once this one is taken, no change that was not answered can have been made, or it is past.
    const int first = std::min(newVersion, version_ + 1);
    auto keytab = std::unique_ptr<KeytabReplacement>(new KeytabReplacement(Kept(first)));
    keytab->Add(principals_, newVersion, newKeys);
    return keytab;
}

KeytabReplacement KeyChange::Kept(int newVersion) {
    return KeytabReplacement(context_, [this, newVersion](const KeytabEntryName& entry) {
        return Stays(entry, newVersion);
    });
}

} // namespace tessary::directory
