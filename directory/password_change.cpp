#include "password_change.h"

#include "error.h"
#include "kerberos_owner.h"
#include "machine_login.h"
#include "operation.h"

#include <cstring>

namespace tessary::directory {
namespace {

constexpr int passwordPort = 464;
constexpr char service[] = "kadmin/changepw";

using Data = KerberosContents<krb5_data, krb5_free_data_contents>;
using Message = KerberosOwner<char*, krb5_free_string>;
using Ticket = KerberosContents<krb5_creds, krb5_free_cred_contents>;

std::string Text(const krb5_data& data) {
    return {data.data, data.length};
}

/// What the domain says besides, such as which rule of its policy the password breaks.
std::string Explanation(krb5_context context, const krb5_data& explanation) {
    Message text(context);
    if (explanation.length == 0 || krb5_chpw_message(context, &explanation, text.Out()) != 0)
        return "";
    return std::string(" (") + text.Get() + ")";
}

/// Of the service's answers only some say that nothing was changed.
Status StatusOf(int result) {
    switch (result) {
    case KRB5_KPASSWD_SOFTERROR:
        return Status::PasswordRefused;
    case KRB5_KPASSWD_MALFORMED:
    case KRB5_KPASSWD_ACCESSDENIED:
    case KRB5_KPASSWD_BAD_VERSION:
    case KRB5_KPASSWD_INITIAL_FLAG_NEEDED:
        return Status::AccessDenied;
    default:
        return Status::InternalError;
    }
}

} // namespace

PasswordChange::PasswordChange(const Session& session, const std::string& account,
                               const std::string& keytab)
    : kerberos_(session.Where().realm, FinderFor(session.Where(), session.End()), session.End(),
                "[" + session.Where().address.Text() + "]:" + std::to_string(passwordPort)) {
    LogInAsMachine(kerberos_, account, keytab, service);
}

void PasswordChange::Execute(const Secret& password) {
    const krb5_context context = kerberos_.Context();
    Ticket ticket(context);
    kerberos_.CopyInitialTicket(ticket.Out());

    Secret text(password.Size() + 1); // with the final NUL that the library wants
    std::memcpy(text.Data(), password.Data(), password.Size());
    int result = 0;
    Data resultName(context);
    Data explanation(context);
    const auto change = [&] {
        const Waiting waiting;
        return krb5_change_password(context, const_cast<krb5_creds*>(&ticket.Get()), text.Data(),
                                    &result, resultName.Out(), explanation.Out());
    };
    kerberos_.Check(change(), "no answer to the change of the password");
    if (result != 0)
        throw Error(StatusOf(result),
                    "the domain refuses the new password: " + Text(resultName.Get()) +
                        Explanation(context, explanation.Get()));
}

} // namespace tessary::directory
