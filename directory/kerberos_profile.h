/// The configuration that Kerberos runs with here.
#ifndef TESSARY_DIRECTORY_KERBEROS_PROFILE_H
#define TESSARY_DIRECTORY_KERBEROS_PROFILE_H

#include <krb5.h>
#include <profile.h>

#include <memory>
#include <string>
#include <type_traits>

namespace tessary::directory {

/// The kinds of encryption used, the preferred one first.
inline constexpr krb5_enctype encryptionTypes[] = {ENCTYPE_AES256_CTS_HMAC_SHA1_96,
                                                   ENCTYPE_AES128_CTS_HMAC_SHA1_96};

/// A Kerberos context with a configuration of our own, held in memory: in calls with this context
/// the host's krb5.conf and the environment are not looked at. GSSAPI takes no context and reads
/// them. Release with krb5_free_context().
/// \param realm          the default realm
/// \param passwordServer address and port of the service that changes passwords, or empty
krb5_context MakeKerberosContext(const std::string& realm, const std::string& passwordServer = "");

struct KerberosContextDeleter {
    void operator()(krb5_context context) const { krb5_free_context(context); }
};
/// What MakeKerberosContext() makes, with an owner.
using KerberosContext =
    std::unique_ptr<std::remove_pointer_t<krb5_context>, KerberosContextDeleter>;

} // namespace tessary::directory

#endif
