#include "keytab.h"

#include "error.h"
#include "kerberos_owner.h"

#include <arpa/inet.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <map>
#include <optional>
#include <string_view>

namespace tessary::directory {
namespace {

using KeytabEntry = KerberosContents<krb5_keytab_entry, krb5_free_keytab_entry_contents>;
using PrincipalText = KerberosOwner<char*, krb5_free_unparsed_name>;

/// Reads a keytab's entries one after the other.
class KeytabScan {
public:
    explicit KeytabScan(krb5_context context) : context_(context), keytab_(context) {}
    KeytabScan(const KeytabScan&) = delete;
    KeytabScan& operator=(const KeytabScan&) = delete;
    ~KeytabScan() {
        if (scanning_)
            krb5_kt_end_seq_get(context_, keytab_.Get(), &cursor_);
    }

    krb5_error_code Start(const std::string& name) {
        krb5_error_code code = krb5_kt_resolve(context_, name.c_str(), keytab_.Out());
        if (code == 0)
            code = krb5_kt_start_seq_get(context_, keytab_.Get(), &cursor_);
        scanning_ = code == 0;
        return code;
    }
    krb5_error_code Next(KeytabEntry& entry) {
        return krb5_kt_next_entry(context_, keytab_.Get(), entry.Out(), &cursor_);
    }

private:
    krb5_context context_;
    KeytabHandle keytab_;
    krb5_kt_cursor cursor_{};
    bool scanning_ = false;
};

/// The bytes of a keytab's entries. The library can copy an entry only with a new time stamp.
class KeytabRecords {
public:
    /// \param bytes the whole keytab; must outlive this
    explicit KeytabRecords(std::string_view bytes)
        : format_(bytes.substr(0, keytabFormat.size())), rest_(bytes.substr(format_.size())) {}

    std::string_view Format() const { return format_; }

    /// The next entry's record, its length included.
    /// \throws Error when there are fewer than the library has found
    std::string_view Next() {
        std::int64_t length = 0;
        do {
            rest_.remove_prefix(std::min(Size(length), rest_.size()));
            length = ReadLength();
        } while (length < 0); // the place of an entry that was removed
        if (length == 0 || Size(length) > rest_.size())
            throw Error(Status::InternalError, std::string("damaged: ") + hostKeytab);
        const std::string_view record = rest_.substr(0, Size(length));
        rest_.remove_prefix(record.size());
        return record;
    }

private:
    static std::size_t Size(std::int64_t length) {
        return length == 0 ? 0 : sizeof(std::int32_t) + static_cast<std::size_t>(std::abs(length));
    }

    std::int32_t ReadLength() const {
        std::uint32_t length = 0;
        if (rest_.size() >= sizeof length)
            std::memcpy(&length, rest_.data(), sizeof length);
        // The format before this one had numbers as the host has them.
        return static_cast<std::int32_t>(format_ == keytabFormat ? ntohl(length) : length);
    }

    std::string_view format_;
    std::string_view rest_;
};

void Check(krb5_context context, krb5_error_code code, const std::string& what) {
    if (code == 0)
        return;
    const char* message = krb5_get_error_message(context, code);
    const std::string text = what + " " + hostKeytab + ": " + message;
    krb5_free_error_message(context, message);
    Status status = Status::InternalError;
    if (code == EACCES || code == EPERM || code == EROFS)
        status = Status::AccessDenied;
    else if (code == ENOMEM)
        status = Status::NotEnoughMemory;
    throw Error(status, text);
}

KeytabEntryName NameOf(krb5_context context, const krb5_keytab_entry& entry) {
    PrincipalText text(context);
    if (krb5_unparse_name(context, entry.principal, text.Out()) != 0)
        throw Error(Status::NotEnoughMemory, "cannot name a keytab's principal");
    // The library's type is signed; the number in a keytab is not, and holds beyond the year 2038.
    return {text.Get(), static_cast<int>(entry.vno), static_cast<std::uint32_t>(entry.timestamp)};
}

bool IsOneOf(const std::string& name, const std::vector<std::string>& names) {
    return std::find(names.begin(), names.end(), name) != names.end();
}

/// The host's keytab as it is now, or nothing when there is none or an empty file.
std::optional<Secret> HostKeytabContent() {
    std::optional<Secret> content = ReadSecretFile(hostKeytab);
    if (content && content->View().empty())
        content.reset();
    return content;
}

/// Calls the function with each entry of a keytab.
template <typename Function>
void ForEachEntry(krb5_context context, const std::string& name, Function function) {
    KeytabScan scan(context);
    Check(context, scan.Start(name), "cannot read");
    for (;;) {
        KeytabEntry entry(context);
        const krb5_error_code code = scan.Next(entry);
        if (code == KRB5_KT_END)
            return;
        Check(context, code, "cannot read");
        function(entry.Get());
    }
}

std::string_view BytesOf(const AccountKey& key) {
    return {reinterpret_cast<const char*>(key.Get().contents), key.Get().length};
}

} // namespace

KeytabInMemory::KeytabInMemory(krb5_context context, std::string_view content)
    : context_(context), file_(memfd_create("keytab", MFD_CLOEXEC)) {
    if (!file_ ||
        write(file_.Get(), content.data(), content.size()) != static_cast<ssize_t>(content.size()))
        ThrowFileError(errno, std::string("cannot write ") + hostKeytab);
}

void KeytabInMemory::Add(const std::vector<std::string>& principals, int keyVersion,
                         const std::vector<AccountKey>& keys,
                         std::optional<std::uint32_t> written) {
    KeytabHandle keytab(context_);
    Check(context_, krb5_kt_resolve(context_, Name().c_str(), keytab.Out()), "cannot write");
    for (const std::string& name : principals) {
        PrincipalHandle principal(context_);
        Check(context_, krb5_parse_name(context_, name.c_str(), principal.Out()),
              "cannot name an entry of");
        for (const AccountKey& key : keys) {
            krb5_keytab_entry entry{};
            entry.principal = principal.Get();
            entry.timestamp = static_cast<krb5_timestamp>(std::time(nullptr));
            entry.vno = static_cast<krb5_kvno>(keyVersion);
            entry.key = key.Get();
            Check(context_, krb5_kt_add_entry(context_, keytab.Get(), &entry), "cannot write");
            if (written)
                StampLast(key, *written);
        }
    }
}

/// The library stamps what it writes with the present time, whatever it is told. After the time
/// stamp an entry has the low byte of the version, the kind of encryption, the key and its length,
/// and the version.
void KeytabInMemory::StampLast(const AccountKey& key, std::uint32_t written) {
    const std::size_t fromEnd = sizeof(std::uint32_t) + 1 + sizeof(std::uint16_t) +
                                sizeof(std::uint16_t) + key.Get().length + sizeof(std::uint32_t);
    char format[keytabFormat.size()];
    struct stat information {};
    if (pread(file_.Get(), format, sizeof format, 0) != sizeof format ||
        fstat(file_.Get(), &information) != 0)
        ThrowFileError(errno, std::string("cannot write ") + hostKeytab);
    const std::uint32_t stamp =
        std::string_view(format, sizeof format) == keytabFormat ? htonl(written) : written;
    const off_t place = information.st_size - static_cast<off_t>(fromEnd);
    if (pwrite(file_.Get(), &stamp, sizeof stamp, place) != sizeof stamp)
        ThrowFileError(errno, std::string("cannot write ") + hostKeytab);
}

std::string KeytabInMemory::Name() const {
    return "FILE:/proc/self/fd/" + std::to_string(file_.Get());
}

Secret KeytabInMemory::Bytes() const {
    return ReadSecretFile(file_.Get(), hostKeytab);
}

std::vector<KeytabKey> ReadHostKeys(krb5_context context) {
    std::vector<KeytabKey> keys;
    const std::optional<Secret> content = HostKeytabContent();
    if (!content)
        return keys;
    const KeytabInMemory copy(context, content->View());
    ForEachEntry(context, copy.Name(), [&](const krb5_keytab_entry& entry) {
        krb5_keyblock key{};
        KeytabEntryName name = NameOf(context, entry);
        Check(context, krb5_copy_keyblock_contents(context, &entry.key, &key), "cannot read");
        keys.push_back({std::move(name), AccountKey(context, key)});
    });
    return keys;
}

std::vector<KeytabKey> ReadHostKeys(krb5_context context,
                                    const std::vector<std::string>& principals) {
    std::vector<KeytabKey> chosen;
    for (KeytabKey& key : ReadHostKeys(context))
        if (IsOneOf(key.name.principal, principals))
            chosen.push_back(std::move(key));
    return chosen;
}

int NewestVersion(const std::vector<KeytabKey>& keys) {
    int newest = -1;
    for (const KeytabKey& key : keys)
        newest = std::max(newest, key.name.version);
    return newest;
}

std::vector<KeyGeneration> ReadKeyGenerations(krb5_context context,
                                              const std::vector<std::string>& principals) {
    struct Holding {
        std::string holder; // of several, since each has the same keys
        KeyGeneration generation;
    };
    std::map<int, Holding> holdings;
    for (KeytabKey& key : ReadHostKeys(context, principals)) {
        const KeytabEntryName& name = key.name;
        Holding& holding =
            holdings
                .try_emplace(name.version, Holding{name.principal, {name.version, name.time, {}}})
                .first->second;
        holding.generation.since = std::min(holding.generation.since, name.time);
        if (holding.holder == name.principal)
            holding.generation.keys.push_back(std::move(key.key));
    }
    std::vector<KeyGeneration> generations;
    for (auto& [version, holding] : holdings)
        generations.push_back(std::move(holding.generation));
    return generations;
}

bool SameKeys(const std::vector<AccountKey>& some, const std::vector<AccountKey>& others) {
    return std::any_of(some.begin(), some.end(), [&](const AccountKey& one) {
        return std::any_of(others.begin(), others.end(),
                           [&](const AccountKey& other) { return BytesOf(one) == BytesOf(other); });
    });
}

namespace {

/// What is newest among one principal's keys.
struct Newest {
    int version = -1;
    std::uint32_t time = 0;
    bool versionIsTheAccounts = false;
    bool timeIsTheAccounts = false;

    void Take(const KeytabKey& key, bool isTheAccounts) {
        Take(key.name.version, version, isTheAccounts, versionIsTheAccounts);
        Take(key.name.time, time, isTheAccounts, timeIsTheAccounts);
    }

private:
    template <typename Value>
    static void Take(Value value, Value& newest, bool isTheAccounts, bool& newestIs) {
        newestIs = value > newest ? isTheAccounts : newestIs || (value == newest && isTheAccounts);
        newest = std::max(newest, value);
    }
};

} // namespace

std::vector<std::string> PrincipalsWithKeysOf(krb5_context context, const DomainState& state) {
    std::vector<std::string> principals = state.KeytabPrincipals();
    const std::vector<KeytabKey> all = ReadHostKeys(context);
    const auto isTheAccounts = [&](const KeytabKey& key) {
        return std::any_of(all.begin(), all.end(), [&](const KeytabKey& other) {
            return IsOneOf(other.name.principal, state.KeytabPrincipals()) &&
                   BytesOf(other.key) == BytesOf(key.key);
        });
    };
    // A service may have had the account's key once and have another account's now.
    std::map<std::string, Newest> others;
    for (const KeytabKey& key : all)
        if (!IsOneOf(key.name.principal, state.KeytabPrincipals()))
            others[key.name.principal].Take(key, isTheAccounts(key));
    for (const auto& [principal, newest] : others)
        if (newest.versionIsTheAccounts && newest.timeIsTheAccounts)
            principals.push_back(principal);
    return principals;
}

KeytabReplacement::KeytabReplacement(krb5_context context, const Filter& keep)
    : context_(context), file_(hostKeytab) {
    Copy(keep);
}

KeytabReplacement::KeytabReplacement(krb5_context context,
                                     const std::vector<std::string>& principals)
    : KeytabReplacement(context, [&](const KeytabEntryName& name) {
          return !IsOneOf(name.principal, principals);
      }) {}

void KeytabReplacement::Copy(const Filter& keep) {
    const std::optional<Secret> content = HostKeytabContent();
    if (!content) {
        file_.Write(format_);
        return;
    }
    std::vector<bool> kept;
    const KeytabInMemory copy(context_, content->View());
    ForEachEntry(context_, copy.Name(), [&](const krb5_keytab_entry& entry) {
        kept.push_back(keep(NameOf(context_, entry)));
    });
    KeytabRecords records(content->View());
    format_ = records.Format();
    file_.Write(format_);
    for (const bool keepThis : kept) {
        const std::string_view record = records.Next();
        if (!keepThis)
            continue;
        file_.Write(record);
        empty_ = false;
    }
}

void KeytabReplacement::Add(const std::vector<std::string>& principals, int keyVersion,
                            const std::vector<AccountKey>& keys,
                            std::optional<std::uint32_t> written) {
    KeytabInMemory added(context_, format_);
    added.Add(principals, keyVersion, keys, written);
    const Secret bytes = added.Bytes();
    file_.Write(bytes.View().substr(format_.size()));
    empty_ = empty_ && principals.empty();
}

void KeytabReplacement::Commit() {
    if (empty_)
        RemoveFile(file_.Target());
    else
        file_.Commit();
}

} // namespace tessary::directory
