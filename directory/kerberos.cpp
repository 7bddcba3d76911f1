#include "kerberos.h"

#include "kdc_exchange.h"
#include "kerberos_owner.h"
#include "kerberos_profile.h"
#include "text.h"

#include <gssapi/gssapi_ext.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <iterator>
#include <memory>
#include <new>
#include <utility>

namespace tessary::directory {
namespace {

// Long enough for one that has a fleet to answer at once: it takes connections many seconds later.
constexpr std::chrono::seconds exchangeTime{25};
constexpr std::int64_t clockSkew = 300; // seconds that a login allows

struct Meaning {
    krb5_error_code code;
    Status status;
    const char* text = nullptr; // null: the library's
};

const Meaning meanings[] = {
    {KRB5KDC_ERR_C_PRINCIPAL_UNKNOWN, Status::NoSuchUser, "the domain has no such account"},
    {KRB5KDC_ERR_PREAUTH_FAILED, Status::WrongPassword, "the password or the key is wrong"},
    {KRB5KRB_AP_ERR_BAD_INTEGRITY, Status::WrongPassword},
    {KRB5KDC_ERR_CLIENT_REVOKED, Status::AccountDisabled,
     "the account may not be used now, probably because it is locked out"},
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

struct AccountState {
    std::uint32_t ntStatus;
    const char* text;
};

constexpr AccountState accountStates[] = {
    {0xC000006F, "the account may not log in at this time"},
    {0xC0000070, "the account may not log in from this computer"},
    {0xC0000071, "the password has expired"},
    {0xC0000072, "the account is disabled"},
    {0xC0000193, "the account has expired"},
    {0xC0000224, "the password must be changed first"},
    {0xC0000234, "the account is locked out"},
};

/// What an Active Directory controller adds to its refusal of a login: one Kerberos error stands
/// for several states of an account, and a number tells them apart. It comes as pre-authentication
/// data of type 3 with twelve bytes, of which the encoding leaves no choice.
std::string StateOfAccount(const krb5_data& errorData) {
    constexpr std::string_view prefix("\xA1\x03\x02\x01\x03\xA2\x0E\x04\x0C", 9);
    constexpr std::size_t numberSize = 4;
    const std::string_view data(errorData.data, errorData.length);
    const std::size_t found = data.find(prefix);
    if (found == std::string_view::npos || data.size() < found + prefix.size() + numberSize)
        return "";
    std::uint32_t ntStatus = 0;
    for (std::size_t i = numberSize; i-- > 0;)
        ntStatus = ntStatus << 8 | static_cast<unsigned char>(data[found + prefix.size() + i]);
    for (const AccountState& state : accountStates)
        if (state.ntStatus == ntStatus)
            return state.text;
    return "";
}

/// Whether a question carries a proof that its sender has the account's key: pre-authentication
/// data of type 2, of whose beginning the encoding leaves no choice.
bool CarriesProof(const krb5_data& message) {
    constexpr std::string_view beginning("\xA1\x03\x02\x01\x02\xA2", 6);
    return std::string_view(message.data, message.length).find(beginning) != std::string_view::npos;
}

/// How far the host's clock is from that of the controller that says so.
std::string ClockOffset(const krb5_error& refusal) {
    const std::time_t offset = std::time(nullptr) - static_cast<std::time_t>(refusal.stime);
    const std::time_t minutes = (std::abs(offset) + 30) / 60;
    const std::string amount = minutes < 120       ? std::to_string(minutes) + " minutes"
                               : minutes < 72 * 60 ? std::to_string(minutes / 60) + " hours"
                                                   : std::to_string(minutes / (24 * 60)) + " days";
    return "this host's clock is " + amount + (offset > 0 ? " ahead of" : " behind") +
           " the domain controller's";
}

/// Whether a controller's clock differs from this host's by more than a login allows. With a wrong
/// clock a controller looks at the password first, and it must not be blamed: the right one would
/// have been refused as well.
bool IsFarFromNow(krb5_timestamp time) {
    const auto now = static_cast<std::int64_t>(std::time(nullptr));
    return std::abs(now - static_cast<std::uint32_t>(time)) > clockSkew;
}

std::string Message(krb5_context context, krb5_error_code code) {
    const char* text = krb5_get_error_message(context, code);
    const std::string result(text);
    krb5_free_error_message(context, text);
    return result;
}

using InitialOptions = KerberosOwner<krb5_get_init_creds_opt*, krb5_get_init_creds_opt_free>;
using InitialRequest = KerberosOwner<krb5_init_creds_context, krb5_init_creds_free>;
using Credentials = KerberosOwner<krb5_creds*, krb5_free_creds>;
using Ticket = KerberosOwner<krb5_ticket*, krb5_free_ticket>;
using ErrorMessage = KerberosOwner<krb5_error*, krb5_free_error>;

using Data = KerberosContents<krb5_data, krb5_free_data_contents>;
using Entry = KerberosContents<krb5_keytab_entry, krb5_free_keytab_entry_contents>;

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

AccountKey AccountKey::Copy() const {
    krb5_keyblock copy{};
    if (krb5_copy_keyblock_contents(context_, &key_, &copy) != 0)
        throw std::bad_alloc();
    return {context_, copy};
}

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
                                 const Deadline& deadline, const std::string& passwordServer)
    : realm_(realm), findKdc_(std::move(findKdc)), deadline_(deadline) {
    context_ = MakeKerberosContext(realm, passwordServer);
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
    Extend(deadline);
}

krb5_error_code KerberosSession::Exchange(krb5_context, void* self, const krb5_data* realm,
                                          const krb5_data* message, krb5_data**,
                                          krb5_data** reply) {
    KerberosSession& session = *static_cast<KerberosSession*>(self);
    try {
        const SocketAddress kdc = session.findKdc_(std::string(realm->data, realm->length));
        const Repeat repeat =
            session.proofCounts_ && CarriesProof(*message) ? Repeat::Never : Repeat::WhenDropped;
        *reply = CopyForLibrary(ExchangeWithKdc(kdc, {message->data, message->length},
                                                session.deadline_.AtMost(exchangeTime), repeat));
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

void KerberosSession::Check(krb5_error_code code, const std::string& what,
                            const std::string& knownReason) {
    // An exchange may have failed without harm, the library having gone another way.
    const auto exchangeError = std::exchange(exchangeError_, std::nullopt);
    if (code == 0)
        return;
    if (exchangeError && code == KRB5_KDC_UNREACH)
        throw Error(exchangeError->Code(), what + ": " + exchangeError->what());
    const Meaning unknown{code, Status::InternalError};
    const Meaning* meaning = std::find_if(std::begin(meanings), std::end(meanings),
                                          [&](const Meaning& each) { return each.code == code; });
    if (meaning == std::end(meanings))
        meaning = &unknown;
    const std::string usual = meaning->text ? meaning->text : Message(context_, code);
    throw Error(meaning->status, what + ": " + (knownReason.empty() ? usual : knownReason));
}

void KerberosSession::GetInitialTicket(
    const Principal& client, const TicketOptions& wanted, const std::string& what,
    const std::function<krb5_error_code(krb5_init_creds_context)>& setKey) {
    InitialOptions options(context_);
    Check(krb5_get_init_creds_opt_alloc(context_, options.Out()), what);
    krb5_get_init_creds_opt_set_canonicalize(options.Get(), wanted.canonical);
    krb5_preauthtype proof[] = {KRB5_PADATA_ENC_TIMESTAMP};
    if (wanted.proofAtOnce)
        krb5_get_init_creds_opt_set_preauth_list(options.Get(), proof, 1);
    krb5_get_init_creds_opt_set_forwardable(options.Get(), 0);
    Check(krb5_get_init_creds_opt_set_out_ccache(context_, options.Get(), cache_), what);

    InitialRequest request(context_);
    Check(krb5_init_creds_init(context_, client.Get(), nullptr, nullptr, 0, options.Get(),
                               request.Out()),
          what);
    if (wanted.service)
        Check(krb5_init_creds_set_service(context_, request.Get(), wanted.service), what);
    Check(setKey(request.Get()), what);
    proofCounts_ = wanted.proofCounts;
    // One attempt: the library's one-call form asks a second time after a wrong password, which
    // brings the account closer to its lock-out.
    krb5_error_code code = krb5_init_creds_get(context_, request.Get());
    ErrorMessage refusal(context_);
    std::string reason;
    if (code != 0 && krb5_init_creds_get_error(context_, request.Get(), refusal.Out()) == 0 &&
        refusal.Get()) {
        if (code == KRB5KDC_ERR_PREAUTH_FAILED && IsFarFromNow(refusal.Get()->stime))
            code = KRB5KRB_AP_ERR_SKEW;
        reason = code == KRB5KRB_AP_ERR_SKEW ? ClockOffset(*refusal.Get())
                                             : StateOfAccount(refusal.Get()->e_data);
    }
    if (code == KRB5KDC_ERR_ETYPE_NOSUPP)
        reason = "the account has no AES key; changing its password once gives it one";
    Check(code, what, reason);
}

void KerberosSession::LogIn(const UserName& user, const std::string& domain, const char* password) {
    const bool own =
        user.domain.empty() || EqualNames(user.domain, domain) || EqualNames(user.domain, realm_);
    const Principal client = own ? Principal(*this, KRB5_NT_PRINCIPAL, realm_, {user.name})
                                 : Principal(*this, KRB5_NT_ENTERPRISE_PRINCIPAL, realm_,
                                             {user.name + "@" + user.domain});
    const std::string what = "cannot log in to " + realm_ + " as " + user.name;
    GetInitialTicket(client, {.canonical = !own, .proofCounts = true}, what,
                     [&](krb5_init_creds_context request) {
                         return krb5_init_creds_set_password(context_, request, password);
                     });
}

void KerberosSession::LogInWithKeytab(const std::string& account, const std::string& keytab,
                                      const char* service) {
    KeytabHandle opened(context_);
    Check(krb5_kt_resolve(context_, keytab.c_str(), opened.Out()), "cannot open " + keytab);
    const Principal client(*this, KRB5_NT_PRINCIPAL, realm_, {account});
    const std::string what = "cannot log in to " + realm_ + " as " + account;
    ExpectKey(opened.Get(), client, what);
    // The key needs no salt, so the proof that we have it goes with the first question.
    GetInitialTicket(client, {.proofAtOnce = true, .service = service}, what,
                     [&](krb5_init_creds_context request) {
                         return krb5_init_creds_set_keytab(context_, request, opened.Get());
                     });
}

void KerberosSession::GetServiceTicket(const std::string& service, const std::string& host,
                                       const std::string& realm) {
    const std::string what = "no ticket for " + service + " on " + host;
    PrincipalHandle client(context_);
    Check(krb5_cc_get_principal(context_, cache_, client.Out()), what);
    const Principal server(*this, KRB5_NT_SRV_HST, realm, {service, host});
    krb5_creds wanted{};
    wanted.client = client.Get();
    wanted.server = server.Get();
    Credentials ticket(context_);
    const krb5_error_code code = krb5_get_credentials(context_, 0, cache_, &wanted, ticket.Out());
    // A realm that does not trust this one cannot be found from here.
    const bool untrusted = code == KRB5KDC_ERR_S_PRINCIPAL_UNKNOWN && !EqualNames(realm, realm_);
    Check(untrusted ? KRB5KDC_ERR_POLICY : code, what,
          untrusted ? realm + " does not trust " + realm_ : "");

    // GSSAPI asks without a realm. It would find the ticket by the client's realm; a user of
    // another realm needs it under the name that is asked for.
    const Principal serverOfAnyRealm(*this, KRB5_NT_SRV_HST, KRB5_REFERRAL_REALM, {service, host});
    krb5_creds copy = *ticket.Get();
    copy.server = serverOfAnyRealm.Get();
    Check(krb5_cc_store_cred(context_, cache_, &copy), what);
}

int KerberosSession::KeyVersionOf(const std::string& account) {
    const std::string what = "no ticket for " + account;
    PrincipalHandle client(context_);
    Check(krb5_cc_get_principal(context_, cache_, client.Out()), what);
    const Principal server(*this, KRB5_NT_PRINCIPAL, realm_, {account});
    krb5_creds wanted{};
    wanted.client = client.Get();
    wanted.server = server.Get();
    Credentials credentials(context_);
    Check(krb5_get_credentials(context_, 0, cache_, &wanted, credentials.Out()), what);
    Ticket ticket(context_);
    Check(krb5_decode_ticket(&credentials.Get()->ticket, ticket.Out()), what);
    return static_cast<int>(ticket.Get()->enc_part.kvno);
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
    // The parameters count iterations, in the same form for all kinds of encryption used here.
    return DeriveKeys(password, salt.Get(), parameters.Get().length ? parameters.Out() : nullptr,
                      what);
}

std::vector<AccountKey> KerberosSession::GuessKeys(const std::string& account,
                                                   const Secret& password) {
    std::string text =
        realm_ + "host" + LowerCase(account.substr(0, account.find('$'))) + "." + LowerCase(realm_);
    const krb5_data salt{KV5M_DATA, static_cast<unsigned>(text.size()), text.data()};
    return DeriveKeys(password, salt, nullptr, "cannot make the keys of " + account);
}

std::vector<AccountKey> KerberosSession::DeriveKeys(const Secret& password, const krb5_data& salt,
                                                    krb5_data* parameters,
                                                    const std::string& what) {
    const krb5_data text{KV5M_DATA, static_cast<unsigned>(password.Size()),
                         const_cast<char*>(password.Data())};
    std::vector<AccountKey> keys;
    for (const krb5_enctype each : encryptionTypes) {
        krb5_keyblock key{};
        Check(krb5_c_string_to_key_with_params(context_, each, &text, &salt, parameters, &key),
              what);
        keys.emplace_back(context_, key);
    }
    return keys;
}

void KerberosSession::ExpectKey(krb5_keytab keytab, const Principal& client,
                                const std::string& what) {
    Entry entry(context_);
    const krb5_error_code code =
        krb5_kt_get_entry(context_, keytab, client.Get(), 0, ENCTYPE_NULL, entry.Out());
    if (code == ENOENT)
        throw Error(Status::MachineKeyRejected, what + ": there is no keytab");
    if (code == KRB5_KT_NOTFOUND)
        throw Error(Status::MachineKeyRejected, what + ": the keytab has no key of it");
    Check(code, what);
}

void KerberosSession::CopyInitialTicket(krb5_creds* ticket) {
    const std::string what = "no initial ticket for " + realm_;
    krb5_cc_cursor cursor = nullptr;
    Check(krb5_cc_start_seq_get(context_, cache_, &cursor), what);
    krb5_error_code code = krb5_cc_next_cred(context_, cache_, &cursor, ticket);
    // The library keeps notes of its own among the tickets.
    while (code == 0 && krb5_is_config_principal(context_, ticket->server)) {
        krb5_free_cred_contents(context_, ticket);
        code = krb5_cc_next_cred(context_, cache_, &cursor, ticket);
    }
    krb5_cc_end_seq_get(context_, cache_, &cursor);
    Check(code, what);
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
