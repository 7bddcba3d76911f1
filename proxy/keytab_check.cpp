#include "keytab_check.h"

#include "directory/kerberos_owner.h"
#include "directory/text.h"

#include <fcntl.h>
#include <krb5.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <stdexcept>

#include "directory/unique_fd.h"

namespace tessary::proxy {
namespace {

void CheckFile(const std::string& path) {
    const directory::UniqueFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    struct stat status {};
    if (!fd || fstat(fd.Get(), &status) != 0)
        throw std::runtime_error("cannot read the keytab " + path + ": " + std::strerror(errno));
    if (!S_ISREG(status.st_mode))
        throw std::runtime_error("the keytab " + path + " is no file");
    if ((status.st_mode & S_IRWXO) != 0)
        throw std::runtime_error("the keytab " + path +
                                 " is open to every user (chmod o= would close it)");
}

struct ContextDeleter {
    void operator()(krb5_context context) const { krb5_free_context(context); }
};
using UniqueContext = std::unique_ptr<std::remove_pointer_t<krb5_context>, ContextDeleter>;

bool IsOf(const krb5_keytab_entry& entry, const std::string& account) {
    const krb5_principal principal = entry.principal;
    return principal->length == 1 &&
           directory::EqualNames({principal->data[0].data, principal->data[0].length}, account);
}

/// Whether one of the keys is the account's.
/// \throws std::runtime_error when the file is no keytab
bool HasKeyOf(krb5_context context, const std::string& path, const std::string& account) {
    directory::KeytabHandle keytab(context);
    krb5_kt_cursor cursor{};
    if (krb5_kt_resolve(context, ("FILE:" + path).c_str(), keytab.Out()) != 0 ||
        krb5_kt_start_seq_get(context, keytab.Get(), &cursor) != 0)
        throw std::runtime_error(path + " is no keytab");
    bool found = false;
    krb5_keytab_entry entry{};
    while (!found && krb5_kt_next_entry(context, keytab.Get(), &entry, &cursor) == 0) {
        found = IsOf(entry, account);
        krb5_free_keytab_entry_contents(context, &entry);
    }
    krb5_kt_end_seq_get(context, keytab.Get(), &cursor);
    return found;
}

} // namespace

void CheckKeytab(const std::string& path, const std::string& account) {
    CheckFile(path);
    krb5_context raw = nullptr;
    if (krb5_init_context(&raw) != 0)
        throw std::runtime_error("cannot set Kerberos up");
    const UniqueContext context(raw);
    if (!HasKeyOf(raw, path, account))
        throw std::runtime_error("the keytab " + path + " has no key of " + account);
}

} // namespace tessary::proxy
