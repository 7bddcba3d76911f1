#include "session.h"

#include "error.h"
#include "machine_login.h"
#include "text.h"

#include <cstdint>
#include <utility>

namespace tessary::directory {
namespace {

constexpr std::uint16_t kerberosPort = 88;

/// A controller of a domain that is known to exist.
Controller LocateTrusted(const std::string& domain, const Deadline& deadline) {
    try {
        return LocateController(NormalizeDomainName(domain), {}, deadline);
    } catch (const Error& error) {
        if (error.Code() != Status::NoSuchDomain)
            throw;
        throw Error(Status::NoController, "the name servers do not know " + domain +
                                              ", which has a trust with the host's");
    }
}

} // namespace

KdcFinder FinderFor(const Controller& controller, const Deadline& deadline) {
    return FinderFor(controller, [deadline](const std::string& realm) {
        return LocateController(NormalizeDomainName(realm), {}, deadline)
            .address.WithPort(kerberosPort);
    });
}

KdcFinder FinderFor(const Controller& controller, KdcFinder others) {
    return [own = controller.realm, address = controller.address.WithPort(kerberosPort),
            others = std::move(others)](const std::string& realm) {
        return EqualNames(realm, own) ? address : others(realm);
    };
}

Session::Session(Controller controller, const UserName& user, const char* password,
                 const Deadline& deadline)
    : controller_(std::move(controller)), deadline_(deadline),
      kerberos_(controller_.realm, FinderFor(controller_, deadline), deadline) {
    kerberos_.LogIn(user, controller_.domain, password);
    Bind();
}

Session::Session(const DomainState& state, const Deadline& deadline, const StateLock* held)
    : controller_(LocateController(state.domain, {}, deadline)), deadline_(deadline),
      kerberos_(controller_.realm, FinderFor(controller_, deadline), deadline) {
    LogInAsHost(kerberos_, state, held);
    Bind();
}

Session::Session(const Session& home, const DomainState& state, const std::string& domain)
    : controller_(LocateTrusted(domain, home.End())), deadline_(home.End()),
      kerberos_(home.Where().realm, FinderFor(controller_, FinderFor(home.Where(), home.End())),
                home.End()) {
    LogInAsHost(kerberos_, state);
    Bind();
}

Session::Session(Controller controller, const KeytabLogin& login, const Deadline& deadline)
    : controller_(std::move(controller)), deadline_(deadline),
      kerberos_(controller_.realm, FinderFor(controller_, deadline), deadline) {
    LogInAsMachine(kerberos_, login.account, login.keytab);
    Bind();
}

std::chrono::system_clock::time_point Session::TicketEnd() {
    krb5_creds ticket{};
    kerberos_.CopyInitialTicket(&ticket);
    // Unsigned, so that it holds beyond the year 2038.
    const auto end = static_cast<std::uint32_t>(ticket.times.endtime);
    krb5_free_cred_contents(kerberos_.Context(), &ticket);
    return std::chrono::system_clock::from_time_t(end);
}

void Session::Reconnect(const Deadline& deadline) {
    controller_.connection.reset();
    controller_ = LocateController(controller_.domain, {}, deadline);
    deadline_ = deadline;
    kerberos_.Redirect(FinderFor(controller_, deadline), deadline);
    Bind();
}

void Session::Bind() {
    kerberos_.GetServiceTicket("ldap", controller_.host, controller_.realm);
    Ldap().Bind(kerberos_, deadline_);
}

} // namespace tessary::directory
