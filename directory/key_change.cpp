#include "key_change.h"

#include <algorithm>
#include <cstdint>
#include <ctime>

namespace tessary::directory {
namespace {

// No ticket can be renewed for longer, unless the domain's policy was changed.
constexpr std::int64_t longestTicketLife = 7 * 24 * 60 * 60;

} // namespace

KeyChange::KeyChange(krb5_context context, const DomainState& state, int told)
    : context_(context), accountPrincipal_(state.AccountPrincipal()),
      principals_(PrincipalsWithKeysOf(context, state)), services_(principals_), told_(told),
      version_(std::max(told, NewestVersion(ReadHostKeys(context, {accountPrincipal_})))),
      now_(std::time(nullptr)) {
    std::erase(services_, accountPrincipal_);
    for (const KeyGeneration& generation : ReadKeyGenerations(context, principals_))
        since_.emplace(generation.version, generation.since);
}

bool KeyChange::IsOfAccount(const std::string& principal) const {
    return std::find(principals_.begin(), principals_.end(), principal) != principals_.end();
}

bool KeyChange::IsOutdated(int version) const {
    const auto next = since_.upper_bound(version);
    return next != since_.end() && next->first <= version_ &&
           now_ - next->second >= longestTicketLife;
}

bool KeyChange::MayYetBeTaken(const KeyGeneration& waiting) const {
    return now_ - waiting.since < longestTicketLife;
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
    staged_.clear();
    for (const AccountKey& key : newKeys)
        staged_.push_back(key.Copy());
    const int staged = version_ + 1;
    KeytabReplacement keytab = Kept(staged);
    keytab.Add(services_, staged, newKeys);
    AddWaiting(keytab, staged + 1, Waiting({}, staged));
    keytab.Commit();
}

void KeyChange::TakeBack() {
    const int free = version_ + 1;
    KeytabReplacement keytab = Kept(free);
    AddWaiting(keytab, free, Waiting({}, free));
    keytab.Commit();
}

std::unique_ptr<KeytabReplacement> KeyChange::Finished(const std::vector<AccountKey>& newKeys,
                                                       int newVersion) {
    const int below = std::min(newVersion, version_ + 1);
    auto keytab = std::unique_ptr<KeytabReplacement>(new KeytabReplacement(Kept(below)));
    keytab->Add(principals_, newVersion, newKeys);
    AddWaiting(*keytab, newVersion + 1, Waiting(newKeys, below));
    return keytab;
}

/// What the account has from some version on and might need again, the latest question first.
/// \param taken what the account has for certain
std::vector<KeyGeneration> KeyChange::Waiting(const std::vector<AccountKey>& taken,
                                              int below) const {
    std::vector<KeyGeneration> all = ReadKeyGenerations(context_, principals_);
    const auto firstWaiting = std::find_if(
        all.begin(), all.end(), [&](const KeyGeneration& each) { return each.version >= below; });
    std::vector<KeyGeneration> waiting;
    for (auto each = firstWaiting; each != all.end(); ++each)
        if (!SameKeys(each->keys, taken) && !SameKeys(each->keys, staged_) &&
            std::none_of(all.begin(), firstWaiting,
                         [&](const KeyGeneration& old) { return SameKeys(old.keys, each->keys); }))
            waiting.push_back(std::move(*each));
    // What was in force until now waits from now on, however long ago it came; the newest of it is
    // the one that tickets are made with.
    const auto asked =
        std::find_if(waiting.begin(), waiting.end(),
                     [this](const KeyGeneration& each) { return each.version > version_; });
    std::for_each(waiting.begin(), asked,
                  [this](KeyGeneration& each) { each.since = static_cast<std::uint32_t>(now_); });
    std::reverse(waiting.begin(), asked);
    // Of the same second the lower version is the later question's.
    std::stable_sort(waiting.begin(), waiting.end(),
                     [](const KeyGeneration& one, const KeyGeneration& other) {
                         return one.since > other.since;
                     });
    return waiting;
}

KeytabReplacement KeyChange::Kept(int below) const {
    return KeytabReplacement(context_, [this, below](const KeytabEntryName& entry) {
        return !IsOfAccount(entry.principal) ||
               (entry.version < below && !IsOutdated(entry.version));
    });
}

void KeyChange::AddWaiting(KeytabReplacement& keytab, int first,
                           std::vector<KeyGeneration> waiting) const {
    for (const KeyGeneration& each : waiting)
        if (MayYetBeTaken(each))
            keytab.Add(services_, first++, each.keys, each.since);
}

} // namespace tessary::directory
