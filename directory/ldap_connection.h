/// One LDAP connection to a domain controller.
#ifndef TESSARY_DIRECTORY_LDAP_CONNECTION_H
#define TESSARY_DIRECTORY_LDAP_CONNECTION_H

#include "deadline.h"
#include "unique_fd.h"

#include <ldap.h>

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tessary::directory {

class KerberosSession;

/// An entry that a search found: its name and the attributes asked for.
class LdapEntry {
public:
    std::string dn;

    /// All values of an attribute; empty when the entry has none. Case of the name is ignored.
    const std::vector<std::string>& Values(std::string_view attribute) const;
    /// The first value, or an empty text.
    const std::string& Value(std::string_view attribute) const;
    /// The first value as a number, or nothing when there is none or it is not one.
    std::optional<long> Number(std::string_view attribute) const;

private:
    friend class LdapConnection;
    std::map<std::string, std::vector<std::string>> attributes_; // by name in lower case
};

/// A change of one attribute. The values are only looked at during the call that they are passed
/// to, so that a secret is not copied on its way.
struct LdapChange {
    int operation; ///< LDAP_MOD_ADD, LDAP_MOD_DELETE or LDAP_MOD_REPLACE; ignored by Add()
    std::string attribute;
    std::vector<std::string_view> values;
};

/// A search that has been sent and whose answer has not been looked at.
struct PendingSearch {
    int message;
    std::string base;
};

/// A connection over a socket that is already connected. Every operation ends by its deadline, and
/// within 8 seconds, also when the controller is frozen. Use by one thread at a time.
///
/// Operations throw Error with a status that tells the directory's answer: AccessDenied,
/// NoSuchContainer (an object that an operation relies on is missing), PasswordRefused,
/// InvalidComputerName (another account holds the host's names), NoController (the connection
/// broke), ConnectionRefused (it broke before any answer: a service that is just going down still
/// takes connections), TimedOut, NotEnoughMemory, else InternalError.
class LdapConnection {
public:
    /// \param socket connected and non-blocking
    /// \param host   the controller's name; Bind() takes it for the name of its service
    LdapConnection(UniqueFd socket, const std::string& host);

    int Socket() const { return socket_; }
    const std::string& Host() const { return host_; }

    /// Logs in with the session's ticket, which must be there for this host (see
    /// KerberosSession::GetServiceTicket). From then on everything sent is encrypted.
    void Bind(const KerberosSession& session, const Deadline& deadline);

    /// Sends a search of the server's own entry without waiting for the answer.
    /// \return the number for TryFinishSearch()
    int StartRootSearch(const char* const* attributes);
    /// The answer of that search, if it has arrived.
    std::optional<LdapEntry> TryFinishSearch(int message);

    /// Sends a search without waiting for the answer, so that several are under way at once.
    /// \param scope LDAP_SCOPE_BASE, LDAP_SCOPE_ONELEVEL or LDAP_SCOPE_SUBTREE
    PendingSearch StartSearch(const std::string& base, int scope, const std::string& filter,
                              const std::vector<const char*>& attributes);
    /// The same for the one entry of that name.
    PendingSearch StartRead(const std::string& dn, const std::vector<const char*>& attributes);
    std::vector<LdapEntry> FinishSearch(const PendingSearch& search, const Deadline& deadline);
    LdapEntry FinishRead(const PendingSearch& search, const Deadline& deadline);

    /// StartSearch() and FinishSearch() in one.
    std::vector<LdapEntry> Search(const std::string& base, int scope, const std::string& filter,
                                  const std::vector<const char*>& attributes,
                                  const Deadline& deadline);
    /// StartRead() and FinishRead() in one.
    LdapEntry Read(const std::string& dn, const std::vector<const char*>& attributes,
                   const Deadline& deadline);

    /// \param meanwhile called while the controller works; it must not throw
    void Add(
        const std::string& dn, const std::vector<LdapChange>& attributes, const Deadline& deadline,
        const std::function<void()>& meanwhile = [] {});
    void Modify(const std::string& dn, const std::vector<LdapChange>& changes,
                const Deadline& deadline);
    /// Deletes the entry; fails where others are below it. One that is not there counts as deleted.
    void Delete(const std::string& dn, const Deadline& deadline);
    /// Deletes the entry with all that is below it. One that is not there counts as deleted.
    void DeleteTree(const std::string& dn, const Deadline& deadline);

private:
    struct HandleDeleter {
        void operator()(LDAP* handle) const { ldap_unbind_ext(handle, nullptr, nullptr); }
    };
    struct MessageDeleter {
        void operator()(LDAPMessage* message) const { ldap_msgfree(message); }
    };
    using Message = std::unique_ptr<LDAPMessage, MessageDeleter>;
    using ChangeCall = decltype(ldap_modify_ext)*; // or ldap_add_ext

    void SetOption(int option, const void* value);
    [[noreturn]] void ThrowFailed(int result, const std::string& what) const;
    void ExpectLdap();
    Message TryReceive(int message, int extent = LDAP_MSG_ALL);
    Message Receive(int message, const Deadline& deadline);
    int CheckResult(LDAPMessage* message, std::string& diagnostics);
    void ExpectSuccess(LDAPMessage* message, const std::string& what);
    std::vector<LdapEntry> Entries(LDAPMessage* message);
    int StartChange(ChangeCall call, const std::string& what, const std::string& dn,
                    const std::vector<LdapChange>& changes);
    int DeleteOnce(const std::string& dn, LDAPControl** controls, std::string& diagnostics,
                   const Deadline& deadline);

    std::unique_ptr<LDAP, HandleDeleter> handle_;
    int socket_; // the handle's
    std::string host_;
    bool answered_ = false; // something has come from the other end
};

/// A value made fit for a search filter.
std::string EscapeFilterValue(std::string_view value);

} // namespace tessary::directory

#endif
