/// The host's keytab.
#ifndef TESSARY_DIRECTORY_KEYTAB_H
#define TESSARY_DIRECTORY_KEYTAB_H

#include "domain_state.h"
#include "files.h"
#include "kerberos.h"

#include <krb5.h>

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tessary::directory {

inline constexpr char hostKeytab[] = "/etc/krb5.keytab";

/// What a keytab begins with. The library makes new files but does not fill empty ones.
inline constexpr std::string_view keytabFormat = "\x05\x02";

/// The principal, the version and the time of one entry of a keytab.
struct KeytabEntryName {
    std::string principal; ///< complete, realm included
    int version;
    std::uint32_t time; ///< when it was written, in seconds since 1970
};

/// A key of a keytab.
struct KeytabKey {
    KeytabEntryName name;
    AccountKey key;
};

/// The keys that an account has, or might have, at one time.
struct KeyGeneration {
    int version;
    std::uint32_t since; ///< when the first of them was written, as above
    std::vector<AccountKey> keys;
};

/// All keys of the host's keytab, in its order; a keytab that is not there has none.
/// \param context must outlive the keys
/// \throws Error when the keytab cannot be read
std::vector<KeytabKey> ReadHostKeys(krb5_context context);
/// Those of some principals.
/// \param principals complete names, realm included
std::vector<KeytabKey> ReadHostKeys(krb5_context context,
                                    const std::vector<std::string>& principals);

/// The newest version among some keys; -1 without any.
int NewestVersion(const std::vector<KeytabKey>& keys);

/// The keys of principals that share an account, once for all of them, the lowest version first.
std::vector<KeyGeneration> ReadKeyGenerations(krb5_context context,
                                              const std::vector<std::string>& principals);

/// Whether two generations are of the same password; a kind of encryption may lack in either.
bool SameKeys(const std::vector<AccountKey>& some, const std::vector<AccountKey>& others);

/// The principals that have a key of the host's account: the account's own, those of its services,
/// and any other whose newest key somebody has made the same. Newest is that of the highest version
/// and that which was written last: versions of two accounts do not compare.
std::vector<std::string> PrincipalsWithKeysOf(krb5_context context, const DomainState& state);

/// A keytab that is nowhere but in memory. (The library's own file format on a disk costs a wait
/// for the disk with each entry.)
class KeytabInMemory {
public:
    /// \param context must outlive this
    /// \param content of a keytab; an empty one, unless told
    explicit KeytabInMemory(krb5_context context, std::string_view content = keytabFormat);

    /// Adds the keys for each of the principals, complete names.
    /// \param written the time stamp; now, unless told
    void Add(const std::vector<std::string>& principals, int keyVersion,
             const std::vector<AccountKey>& keys,
             std::optional<std::uint32_t> written = std::nullopt);

    /// The keytab as a Kerberos call takes it, in this process.
    std::string Name() const;
    Secret Bytes() const;

private:
    void StampLast(const AccountKey& key, std::uint32_t written);

    krb5_context context_;
    UniqueFd file_;
};

/// A new version of the host's keytab that takes over, to the byte, entries of the old one. Its
/// mode is 0600, its owner this process's, whatever the old one's. It is not in force before
/// Commit(), and vanishes without. A keytab that is a symbolic link stays one.
class KeytabReplacement {
public:
    using Filter = std::function<bool(const KeytabEntryName&)>;

    /// \param context must outlive the replacement
    /// \param keep    tells which entries are taken over
    /// \throws Error when the keytab cannot be read, or the new one written
    KeytabReplacement(krb5_context context, const Filter& keep);

    /// The entries of some principals, complete names, are left out.
    KeytabReplacement(krb5_context context, const std::vector<std::string>& principals);

    /// As KeytabInMemory::Add().
    void Add(const std::vector<std::string>& principals, int keyVersion,
             const std::vector<AccountKey>& keys,
             std::optional<std::uint32_t> written = std::nullopt);

    /// The new version as a Kerberos call takes it.
    std::string Name() const { return "FILE:" + file_.Path(); }

    /// Has the new version on the disk, so that Commit() takes no time.
    void Sync() { file_.Sync(); }
    /// Puts the new version in force. Without any entry there will be no keytab.
    void Commit();

private:
    void Copy(const Filter& keep);

    krb5_context context_;
    Replacement file_;
    std::string format_{keytabFormat};
    bool empty_ = true;
};

} // namespace tessary::directory

#endif
