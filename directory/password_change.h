/// Changing an account's password by its own rights.
#ifndef TESSARY_DIRECTORY_PASSWORD_CHANGE_H
#define TESSARY_DIRECTORY_PASSWORD_CHANGE_H

#include "deadline.h"
#include "secret.h"
#include "session.h"

#include <optional>
#include <string>

namespace tessary::directory {

/// The right to change one account's password, got with its key. It is good for some minutes.
class PasswordChange {
public:
    /// \param session logged in as the account; must outlive this
    /// \param account with the final '$'
    /// \throws Error as KerberosSession::LogInWithKeytab()
    PasswordChange(const Session& session, const std::string& account, const std::string& keytab);

    /// Changes the password. Waits as long as libkrb5 does: half a minute when the controller is
    /// silent.
    /// \throws Error PasswordRefused or AccessDenied when the domain says no; with any other
    ///         status it is not known whether the password has been changed
    void Execute(const Secret& password);

private:
    KerberosSession kerberos_;
};

} // namespace tessary::directory

#endif
