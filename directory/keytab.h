/// The host's keytab.
#ifndef TESSARY_DIRECTORY_KEYTAB_H
#define TESSARY_DIRECTORY_KEYTAB_H

#include "files.h"
#include "kerberos.h"

#include <krb5.h>

#include <string>
#include <vector>

namespace tessary::directory {

inline constexpr char hostKeytab[] = "/etc/krb5.keytab";

/// A new version of the host's keytab that keeps all entries, to the byte, but those of some
/// principals. Its mode is 0600, its owner this process's, whatever the old one's. It is not in
/// force before Commit(), and vanishes without. A keytab that is a symbolic link stays one.
class KeytabReplacement {
public:
    /// \param context    must outlive the replacement
    /// \param principals complete names, realm included, whose entries are left out
    /// \throws Error when the keytab cannot be read, or the new one written
    KeytabReplacement(krb5_context context, const std::vector<std::string>& principals);

    /// Adds the keys for each of the principals.
    void Add(const std::vector<std::string>& principals, int keyVersion,
             const std::vector<AccountKey>& keys);

    /// The new version as a Kerberos call takes it.
    std::string Name() const { return "FILE:" + file_.Path(); }

    /// Puts the new version in force. Without any entry there will be no keytab.
    void Commit();

private:
    void CopyOthers(const std::vector<std::string>& principals);
    void Append(krb5_keytab_entry& entry);
    void Check(krb5_error_code code, const std::string& what) const;

    krb5_context context_;
    Replacement file_;
    bool empty_ = true;
};

} // namespace tessary::directory

#endif
