/// What a directory's refusal means.
#ifndef TESSARY_DIRECTORY_LDAP_ERROR_H
#define TESSARY_DIRECTORY_LDAP_ERROR_H

#include <string>

namespace tessary::directory {

/// Throws the Error for an LDAP result code.
/// \param diagnostics the server's own text, which Active Directory begins with a number that
///                    says more than the result code; may be empty
/// \param what        what was tried
[[noreturn]] void ThrowLdapError(int result, const std::string& diagnostics,
                                 const std::string& what);

} // namespace tessary::directory

#endif
