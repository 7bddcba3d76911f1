/// The file with the service account's keys.
#ifndef TESSARY_PROXY_KEYTAB_CHECK_H
#define TESSARY_PROXY_KEYTAB_CHECK_H

#include <string>

namespace tessary::proxy {

/// \param account the service account's name, as the keytab has it: letters of the other case make
///                another name
/// \param domain  DNS name; the keytab has it in capitals
/// \throws std::runtime_error when the file cannot be read, is open to every user, is no keytab, or
///         has no key of the account; names the file
void CheckKeytab(const std::string& path, const std::string& account, const std::string& domain);

} // namespace tessary::proxy

#endif
