#include "keytab_check.h"

#include "directory/kerberos_owner.h"
#include "directory/kerberos_profile.h"
#include "directory/text.h"

#include <fcntl.h>
#include <krb5.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

#include "directory/unique_fd.h"

namespace tessary::proxy {
namespace {

void CheckFile(const std::string& path) {
    // Nobody is waited for who would write into a pipe.
    const directory::UniqueFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    struct stat status {};
    if (!fd || fstat(fd.Get(), &status) != 0)
        throw std::runtime_error("cannot read the keytab " + path + ": " + std::strerror(errno));
    if (!S_ISREG(status.st_mode))
        throw std::runtime_error("the keytab " + path + " is no file");
    if ((status.st_mode & S_IRWXO) != 0)
        throw std::runtime_error("the keytab " + path +
                                 " is open to every user (chmod o= would close it)");
}

using Entry = directory::KerberosContents<krb5_keytab_entry, krb5_free_keytab_entry_contents>;

/// Whether one of the keys is the account's, as a login looks for it.
/// \throws std::runtime_error when the file is no keytab
bool HasKeyOf(krb5_context context, const std::string& path, const std::string& account,
              const std::string& realm) {
    directory::KeytabHandle keytab(context);
    directory::PrincipalHandle principal(context);
    Entry entry(context);
    if (krb5_build_principal(context, principal.Out(), static_cast<unsigned>(realm.size()),
                             realm.c_str(), account.c_str(), nullptr) != 0 ||
        krb5_kt_resolve(context, ("FILE:" + path).c_str(), keytab.Out()) != 0)
        throw std::runtime_error("cannot set Kerberos up");
    const krb5_error_code code =
        krb5_kt_get_entry(context, keytab.Get(), principal.Get(), 0, ENCTYPE_NULL, entry.Out());
    if (code != 0 && code != KRB5_KT_NOTFOUND)
        throw std::runtime_error(path + " is no keytab");
    return code == 0;
}

} // namespace

void CheckKeytab(const std::string& path, const std::string& account, const std::string& domain) {
    CheckFile(path);
    const std::string realm = directory::UpperCase(domain);
    const directory::KerberosContext context(directory::MakeKerberosContext(realm));
    if (!HasKeyOf(context.get(), path, account, realm))
        throw std::runtime_error("the keytab " + path + " has no key of " + account + "@" + realm +
                                 ", in capitals and small letters as written here");
}

} // namespace tessary::proxy
