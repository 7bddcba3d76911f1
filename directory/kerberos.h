/// Kerberos, apart from the host's own: tickets are got with a configuration of our own, and the
/// host's ticket cache is neither read nor changed. Only GSSAPI, which uses the tickets to log in
/// over LDAP, makes itself a context of the host's krb5.conf: one that permits no AES is obeyed.
#ifndef TESSARY_DIRECTORY_KERBEROS_H
#define TESSARY_DIRECTORY_KERBEROS_H

#include "deadline.h"
#include "error.h"
#include "names.h"
#include "secret.h"
#include "socket.h"

#include <gssapi/gssapi.h>
#include <krb5.h>

#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace tessary::directory {

/// Finds the key distribution centre of a realm, port included; throws Error when there is none.
using KdcFinder = std::function<SocketAddress(const std::string& realm)>;

/// A key of an account, as it stands in a keytab.
class AccountKey {
public:
    AccountKey(krb5_context context, krb5_keyblock key) : context_(context), key_(key) {}
    AccountKey(AccountKey&& other) noexcept : context_(other.context_), key_(other.key_) {
        other.key_ = {};
    }
    AccountKey& operator=(AccountKey&&) = delete;
    ~AccountKey() { krb5_free_keyblock_contents(context_, &key_); }

    const krb5_keyblock& Get() const { return key_; }
    AccountKey Copy() const;

private:
    krb5_context context_; // must outlive the key
    krb5_keyblock key_;
};

/// A ticket cache in memory and what fills it. Every exchange with a key distribution centre is
/// over by the deadline that was given last. Use by one thread at a time.
///
/// Failures are Errors that tell a user's mistakes apart: NoSuchUser, WrongPassword,
/// AccountDisabled, PasswordExpired, ClockSkew, InvalidUserName; ConnectionRefused, NoController
/// and TimedOut for the network; else InternalError. A wrong clock is never a WrongPassword.
class KerberosSession {
public:
    /// \param realm          the domain's, in upper case
    /// \param passwordServer as MakeKerberosContext() takes it
    KerberosSession(const std::string& realm, KdcFinder findKdc, const Deadline& deadline,
                    const std::string& passwordServer = "");
    ~KerberosSession();
    KerberosSession(const KerberosSession&) = delete;
    KerberosSession& operator=(const KerberosSession&) = delete;

    /// Gives what follows another deadline.
    void Extend(const Deadline& deadline) { deadline_ = deadline; }
    /// Goes on with another key distribution centre, the tickets kept.
    void Redirect(KdcFinder findKdc, const Deadline& deadline);

    krb5_context Context() const { return context_; }
    const std::string& Realm() const { return realm_; }
    /// The ticket cache's name, valid in this process as long as the session lives.
    const std::string& CacheName() const { return cacheName_; }

    /// Gets the initial ticket of a user. The password's proof is sent once, whatever becomes of
    /// the connection: each that a controller has seen may count towards the account's lock-out.
    /// \param domain the DNS name of this session's domain; a user who names another one is
    ///               searched for by the domain
    void LogIn(const UserName& user, const std::string& domain, const char* password);

    /// Gets the initial ticket of an account whose key is in a keytab.
    /// \param account the account's name, such as "WEB1$"
    /// \param keytab  such as "FILE:/etc/krb5.keytab"
    /// \param service what the ticket is for, as "kadmin/changepw"; null for the usual one, which
    ///                gets others
    /// \throws Error as above; MachineKeyRejected when the keytab has no key of the account
    void LogInWithKeytab(const std::string& account, const std::string& keytab,
                         const char* service = nullptr);

    /// A copy of the initial ticket.
    /// \param ticket to be released with krb5_free_cred_contents()
    void CopyInitialTicket(krb5_creds* ticket);

    /// Gets the ticket for a service on a host, with the initial ticket.
    /// \param realm the host's: this session's, or one that it has a trust with
    /// \throws Error as above; AccessDenied when the other realm does not let this one's in
    void GetServiceTicket(const std::string& service, const std::string& host,
                          const std::string& realm);
    /// The same for a host of this session's realm.
    void GetServiceTicket(const std::string& service, const std::string& host) {
        GetServiceTicket(service, host, realm_);
    }

    /// The version of an account's key, as this domain writes it on the account's tickets.
    int KeyVersionOf(const std::string& account);

    /// The keys that an account has with this password, one for each kind of encryption used here.
    /// Asks the key distribution centre for the salt. The keys must not outlive the session.
    std::vector<AccountKey> MakeKeys(const std::string& account, const Secret& password);
    /// The same for a computer's account that is just being made, with the salt that a domain
    /// chooses by itself, as far as we know. Asks nobody; the domain may differ.
    std::vector<AccountKey> GuessKeys(const std::string& account, const Secret& password);

    /// Throws the Error that fits a code, unless that is 0.
    /// \param what        what was tried
    /// \param knownReason what the code stands for, where that is known better; else empty
    void Check(krb5_error_code code, const std::string& what, const std::string& knownReason = "");

private:
    class Principal;

    struct TicketOptions {
        bool canonical = false;        ///< the domain may answer with another name for the client
        bool proofAtOnce = false;      ///< without being asked for it
        bool proofCounts = false;      ///< a wrong one brings the account closer to its lock-out
        const char* service = nullptr; ///< null: the one that gets other tickets
    };

    static krb5_error_code Exchange(krb5_context context, void* self, const krb5_data* realm,
                                    const krb5_data* message, krb5_data** newMessage,
                                    krb5_data** reply);
    void ExpectKey(krb5_keytab keytab, const Principal& client, const std::string& what);
    std::vector<AccountKey> DeriveKeys(const Secret& password, const krb5_data& salt,
                                       krb5_data* parameters, const std::string& what);
    void GetInitialTicket(const Principal& client, const TicketOptions& wanted,
                          const std::string& what,
                          const std::function<krb5_error_code(krb5_init_creds_context)>& setKey);

    std::string realm_;
    KdcFinder findKdc_;
    Deadline deadline_;
    krb5_context context_ = nullptr;
    krb5_ccache cache_ = nullptr;
    std::string cacheName_;
    bool proofCounts_ = false; // as TicketOptions has it, of the latest initial ticket
    std::optional<Error> exchangeError_;
};

/// The session's tickets as GSSAPI takes them.
class GssCredential {
public:
    /// \param session must outlive the credential
    explicit GssCredential(const KerberosSession& session);
    ~GssCredential();
    GssCredential(const GssCredential&) = delete;
    GssCredential& operator=(const GssCredential&) = delete;

    gss_cred_id_t Get() const { return credential_; }

private:
    gss_cred_id_t credential_ = GSS_C_NO_CREDENTIAL;
};

} // namespace tessary::directory

#endif
