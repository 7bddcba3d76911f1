/// Being logged in at a domain controller.
#ifndef TESSARY_DIRECTORY_SESSION_H
#define TESSARY_DIRECTORY_SESSION_H

#include "deadline.h"
#include "domain_state.h"
#include "kerberos.h"
#include "ldap_connection.h"
#include "locator.h"
#include "names.h"

#include <chrono>
#include <memory>
#include <string>

namespace tessary::directory {

/// The time that one query may take.
inline constexpr std::chrono::seconds queryTime{15};
/// The time that a join, a leave or a change of the key may take, without undoing a join that
/// failed. A fleet that joins at once keeps a controller busy for so long; giving up early would
/// only begin it all again.
inline constexpr std::chrono::seconds membershipTime{60};

/// Where to find the key distribution centre of any realm: that of the controller's own realm is
/// the controller itself; others are located when they are asked for.
KdcFinder FinderFor(const Controller& controller, const Deadline& deadline);
/// The same with another way to find those of other realms.
KdcFinder FinderFor(const Controller& controller, KdcFinder others);

/// An account and where its key is.
struct KeytabLogin {
    std::string account; ///< such as "svc-web"
    std::string keytab;  ///< such as "FILE:/etc/web.keytab"
};

/// A controller, tickets, and an encrypted connection to it. Use by one thread at a time.
class Session {
public:
    /// Logs in at a controller as a user.
    Session(Controller controller, const UserName& user, const char* password,
            const Deadline& deadline);

    /// Logs in at a controller of the joined domain with the machine account's own key.
    /// \throws Error MachineKeyRejected or NoMachineAccount where a user would get WrongPassword or
    ///         NoSuchUser
    /// \param held as LogInAsHost() takes it
    Session(const DomainState& state, const Deadline& deadline, const StateLock* held = nullptr);

    /// Logs in at a controller of another domain, across a trust, with the machine account's own
    /// key. Everything is over by the deadline of `home`.
    /// \param home   at a controller of the joined domain
    /// \param domain the other one's DNS name
    /// \throws Error as above; AccessDenied when the other domain does not let the host in;
    ///         NoController also when the domain cannot be found by its name
    Session(const Session& home, const DomainState& state, const std::string& domain);

    /// Logs in at a controller with an account's key.
    /// \throws Error as the one before
    Session(Controller controller, const KeytabLogin& login, const Deadline& deadline);

    /// Gives what follows on the same connection another deadline.
    void Extend(const Deadline& deadline) {
        deadline_ = deadline;
        kerberos_.Extend(deadline);
    }

    /// When the ticket that this session logged in with ends, by this host's clock.
    std::chrono::system_clock::time_point TicketEnd();

    /// Goes on, with the same rights, on a new connection to whichever controller answers.
    void Reconnect(const Deadline& deadline);

    const Controller& Where() const { return controller_; }
    LdapConnection& Ldap() { return *controller_.connection; }
    KerberosSession& Kerberos() { return kerberos_; }
    const Deadline& End() const { return deadline_; }

private:
    void Bind();

    Controller controller_;
    Deadline deadline_;
    KerberosSession kerberos_;
};

} // namespace tessary::directory

#endif
