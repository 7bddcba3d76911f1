#include "kerberos.h"

#include "kdc_exchange.h"
#include "kerberos_owner.h"
#include "kerberos_profile.h"
#include "text.h"

#include <gssapi/gssapi_ext.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <utility>

namespace tessary::directory {
namespace {

constexpr std::chrono::seconds exchangeTime{5};

struct Meaning {
    krb5_error_code code;
    Status status;
};

const Meaning meanings[] = {
    {KRB5KDC_ERR_C_PRINCIPAL_UNKNOWN, Status::NoSuchUser},
    {KRB5KDC_ERR_PREAUTH_FAILED, Status::WrongPassword},
    {KRB5KRB_AP_ERR_BAD_INTEGRITY, Status::WrongPassword},
    {KRB5KDC_ERR_CLIENT_REVOKED, Status::AccountDisabled},
    {KRB5KDC_ERR_NAME_EXP, Status::AccountDisabled},
    {KRB5KDC_ERR_KEY_EXP, Status::PasswordExpired},
    {KRB5KRB_AP_ERR_SKEW, Status::ClockSkew},
    {KRB5_KDCREP_SKEW, Status::ClockSkew},
    {KRB5KRB_AP_ERR_TKT_NYV, Status::ClockSkew},     // a ticket just issued is not yet valid, or
    {KRB5KRB_AP_ERR_TKT_EXPIRED, Status::ClockSkew}, // no longer: only a wrong clock sees that
    {KRB5KDC_ERR_NEVER_VALID, Status::ClockSkew},
    {KRB5KDC_ERR_POLICY, Status::AccessDenied},
    {KRB5_KT_NOTFOUND, Status::MachineKeyRejected},
    {ENOENT, Status::MachineKeyRejected},
    {EACCES, Status::AccessDenied},
    {ENOMEM, Status::NotEnoughMemory},
    {KRB5_KDC_UNREACH, Status::NoController},
    {KRB5_REALM_UNKNOWN, Status::NoController},
    {KRB5_PARSE_MALFORMED, Status::InvalidUserName},
};

std::string Message(krb5_context context, krb5_error_code code) {
    const char* text = krb5_get_error_message(context, code);
    const std::string result(text);
    krb5_free_error_message(context, text);
    return result;
}

using InitialOptions = KerberosOwner<krb5_get_init_creds_opt*, krb5_get_init_creds_opt_free>;
using InitialRequest = KerberosOwner<krb5_init_creds_context, krb5_init_creds_free>;
using Credentials = KerberosOwner<krb5_creds*, krb5_free_creds>;

using Data = KerberosContents<krb5_data, krb5_free_data_contents>;

krb5_data* CopyForLibrary(const std::vector<char>& bytes) {
    const auto data = static_cast<krb5_data*>(std::calloc(1, sizeof(krb5_data)));
    const auto copy = static_cast<char*>(std::malloc(bytes.size() + 1));
    if (!data || !copy) {
        std::free(data);
        std::free(copy);
        throw std::bad_alloc();
    }
    std::memcpy(copy, bytes.data(), bytes.size());
    data->magic = KV5M_DATA;
    data->length = static_cast<unsigned>(bytes.size());
    data->data = copy;
    return data;
}

} // namespace

class KerberosSession::Principal {
public:
    Principal(KerberosSession& session, krb5_int32 type, const std::string& realm,
              const std::vector<std::string>& components)
        : value_(session.context_) {
        // The variadic constructor ends at a null pointer; no principal here has more than two.
        session.Check(krb5_build_principal(
                          session.context_, value_.Out(), static_cast<unsigned>(realm.size()),
                          realm.c_str(), components.at(0).c_str(),
                          components.size() > 1 ? components[1].c_str() : nullptr, nullptr),
                      "cannot name " + components[0]);
        value_.Get()->type = type;
    }

    krb5_principal Get() const { return value_.Get(); }

private:
    PrincipalHandle value_;
};

KerberosSession::KerberosSession(const std::string& realm, KdcFinder findKdc,
                                 const Deadline& deadline)
    : realm_(realm), findKdc_(std::move(findKdc)), deadline_(deadline) {
    context_ = MakeKerberosContext(realm);
    krb5_set_kdc_send_hook(context_, Exchange, this);
    const krb5_error_code code = krb5_cc_new_unique(context_, "MEMORY", nullptr, &cache_);
    if (code != 0) {
        krb5_free_context(context_);
        throw Error(Status::InternalError, "cannot make a ticket cache");
    }
    cacheName_ = std::string("MEMORY:") + krb5_cc_get_name(context_, cache_);
}

KerberosSession::~KerberosSession() {
    krb5_cc_destroy(context_, cache_);
    krb5_free_context(context_);
}

void KerberosSession::Redirect(KdcFinder findKdc, const Deadline& deadline) {
    findKdc_ = std::move(findKdc);
    deadline_ = deadline;
}

krb5_error_code KerberosSession::Exchange(krb5_context, void* self, const krb5_data* realm,
                                          const krb5_data* message, krb5_data**,
                                          krb5_data** reply) {
    KerberosSession& session = *static_cast<KerberosSession*>(self);
    try {
        const SocketAddress kdc = session.findKdc_(std::string(realm->data, realm->length));
        *reply = CopyForLibrary(ExchangeWithKdc(kdc, {message->data, message->length},
                                                session.deadline_.AtMost(exchangeTime)));
        return 0;
    } catch (const Error& error) {
        session.exchangeError_ = error;
        return KRB5_KDC_UNREACH;
    } catch (const std::bad_alloc&) {
        return ENOMEM;
    } catch (...) { // nothing may unwind the caller, which is C
        return EIO;
    }
}

void KerberosSession::Check(krb5_error_code code, const std::string& what) {
    // An exchange may have failed without harm, the library having gone another way.
    const auto exchangeError = std::exchange(exchangeError_, std::nullopt);
    if (code == 0)
        return;
    if (exchangeError && code == KRB5_KDC_UNREACH)
        throw Error(exchangeError->Code(), what + ": " + exchangeError->what());
    const std::string text = what + ": " + Message(context_, code);
    for (const Meaning& meaning : meanings)
        if (meaning.code == code)
            throw Error(meaning.status, text);
    throw Error(Status::InternalError, text);
}

void KerberosSession::GetInitialTicket(
    const Principal& client, bool canonical,
    const std::function<krb5_error_code(krb5_init_creds_context)>& setKey) {
    const std::string what = "cannot log in to " + realm_;
    InitialOptions options(context_);
    Check(krb5_get_init_creds_opt_alloc(context_, options.Out()), what);
    krb5_get_init_creds_opt_set_canonicalize(options.Get(), canonical);
    krb5_get_init_creds_opt_set_forwardable(options.Get(), 0);
    Check(krb5_get_init_creds_opt_set_out_ccache(context_, options.Get(), cache_), what);

    InitialRequest request(context_);
    Check(krb5_init_creds_init(context_, client.Get(), nullptr, nullptr, 0, options.Get(),
                               request.Out()),
          what);
    Check(setKey(request.Get()), what);
    // One attempt: the library's one-call form asks a second time after a wrong password, which
    // brings the account closer to its lock-out.
    Check(krb5_init_creds_get(context_, request.Get()), what);
}

void KerberosSession::LogIn(const UserName& user, const std::string& domain, const char* password) {
    const bool own =
        user.domain.empty() || EqualNames(user.domain, domain) || EqualNames(user.domain, realm_);
    const Principal client = own ? Principal(*this, KRB5_NT_PRINCIPAL, realm_, {user.name})
                                 : Principal(*this, KRB5_NT_ENTERPRISE_PRINCIPAL, realm_,
                                             {user.name + "@" + user.domain});
    GetInitialTicket(client, !own, [&](krb5_init_creds_context request) {
        return krb5_init_creds_set_password(context_, request, password);
    });
}

void KerberosSession::LogInWithKeytab(const std::string& account, const std::string& keytab) {
    KeytabHandle opened(context_);
    Check(krb5_kt_resolve(context_, keytab.c_str(), opened.Out()), "cannot open " + keytab);
    const Principal client(*this, KRB5_NT_PRINCIPAL, realm_, {account});
    GetInitialTicket(client, false, [&](krb5_init_creds_context request) {
        return krb5_init_creds_set_keytab(context_, request, opened.Get());
    });
}

void KerberosSession::GetServiceTicket(const std::string& service, const std::string& host) {
    const std::string what = "no ticket for " + service + " on " + host;
    PrincipalHandle client(context_);
    Check(krb5_cc_get_principal(context_, cache_, client.Out()), what);
    const Principal server(*this, KRB5_NT_SRV_HST, realm_, {service, host});
    krb5_creds wanted{};
    wanted.client = client.Get();
    wanted.server = server.Get();
    Credentials ticket(context_);
    Check(krb5_get_credentials(context_, 0, cache_, &wanted, ticket.Out()), what);

    // GSSAPI asks without a realm. It would find the ticket by the client's realm; a user of
    // another realm needs it under the name that is asked for.
    const Principal serverOfAnyRealm(*this, KRB5_NT_SRV_HST, KRB5_REFERRAL_REALM, {service, host});
    krb5_creds copy = *ticket.Get();
    copy.server = serverOfAnyRealm.Get();
    Check(krb5_cc_store_cred(context_, cache_, &copy), what);
}

std::vector<AccountKey> KerberosSession::MakeKeys(const std::string& account,
                                                  const Secret& password) {
    const std::string what = "cannot make the keys of " + account;
    const Principal client(*this, KRB5_NT_PRINCIPAL, realm_, {account});
    krb5_enctype type = ENCTYPE_NULL;
    Data salt(context_);
    Data parameters(context_);
    Check(krb5_get_etype_info(context_, client.Get(), nullptr, &type, salt.Out(), parameters.Out()),
          what);

    krb5_data text{};
    text.magic = KV5M_DATA;
    text.data = const_cast<char*>(password.Data());
    text.length = static_cast<unsigned>(password.Size());
    std::vector<AccountKey> keys;
    for (const krb5_enctype each : encryptionTypes) {
        krb5_keyblock key{};
        // The parameters count iterations, in the same form for all kinds of encryption used here.
        Check(krb5_c_string_to_key_with_params(
                  context_, each, &text, &salt.Get(),
                  parameters.Get().length ? &parameters.Get() : nullptr, &key),
              what);
        keys.emplace_back(context_, key);
    }
    return keys;
}

GssCredential::GssCredential(const KerberosSession& session) {
    gss_key_value_element_desc cache{"ccache", session.CacheName().c_str()};
    const gss_key_value_set_desc store{1, &cache};
    OM_uint32 minor = 0;
    const OM_uint32 major =
        gss_acquire_cred_from(&minor, GSS_C_NO_NAME, GSS_C_INDEFINITE, GSS_C_NO_OID_SET,
                              GSS_C_INITIATE, &store, &credential_, nullptr, nullptr);
    if (GSS_ERROR(major))
        throw Error(Status::InternalError, "GSSAPI refuses the tickets");
}

GssCredential::~GssCredential() {
    OM_uint32 minor = 0;
    gss_release_cred(&minor, &credential_);
}

} // namespace tessary::directory
