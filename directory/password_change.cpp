#include "password_change.h"

#include "error.h"
#include "kerberos_owner.h"

#include <cstring>

namespace tessary::directory {
namespace {

constexpr int passwordPort = 464;
constexpr char service[] = "kadmin/changepw";

using Data = KerberosContents<krb5_data, krb5_free_data_contents>;
using Ticket = KerberosContents<krb5_creds, krb5_free_cred_contents>;

std::string Text(const krb5_data& data) {
    return {data.data, data.length};
}

} // namespace

PasswordChange::PasswordChange(const Session& session, const std::string& account,
                               const std::string& keytab)
    : kerberos_(session.Where().realm, FinderFor(session.Where(), session.End()), session.End(),
                "[" + session.Where().address.Text() + "]:" + std::to_string(passwordPort)) {
    kerberos_.LogInWithKeytab(account, keytab, service);
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
    const krb5_error_code code =
        krb5_change_password(context, const_cast<krb5_creds*>(&ticket.Get()), text.Data(), &result,
                             resultName.Out(), explanation.Out());
    kerberos_.Check(code, "no answer to the change of the password");
    if (result != 0)
        throw Error(result == KRB5_KPASSWD_SOFTERROR ? Status::PasswordRefused
                                                     : Status::AccessDenied,
                    "the domain refuses the new password: " + Text(resultName.Get()));
}

} // namespace tessary::directory
