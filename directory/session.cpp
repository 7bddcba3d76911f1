#include "session.h"

#include "error.h"
#include "keytab.h"
#include "text.h"

#include <utility>

namespace tessary::directory {
namespace {

constexpr std::uint16_t kerberosPort = 88;

} // namespace

KdcFinder FinderFor(const Controller& controller, const Deadline& deadline) {
    return [own = controller.realm, address = controller.address.WithPort(kerberosPort),
            deadline](const std::string& realm) {
        if (EqualNames(realm, own))
            return address;
        return LocateController(NormalizeDomainName(realm), {}, deadline)
            .address.WithPort(kerberosPort);
    };
}

Session::Session(Controller controller, const UserName& user, const char* password,
                 const Deadline& deadline)
    : controller_(std::move(controller)), deadline_(deadline),
      kerberos_(controller_.realm, FinderFor(controller_, deadline), deadline) {
    kerberos_.LogIn(user, controller_.domain, password);
    Bind();
}

Session::Session(const DomainState& state, const Deadline& deadline)
    : controller_(LocateController(state.domain, {}, deadline)), deadline_(deadline),
      kerberos_(controller_.realm, FinderFor(controller_, deadline), deadline) {
    LogInAsMachine(kerberos_, state.account, std::string("FILE:") + hostKeytab);
    Bind();
}

void Session::Reconnect(const Deadline& deadline) {
    controller_.connection.reset();
    controller_ = LocateController(controller_.domain, {}, deadline);
    deadline_ = deadline;
    kerberos_.Redirect(FinderFor(controller_, deadline), deadline);
    Bind();
}

void Session::Bind() {
    kerberos_.GetServiceTicket("ldap", controller_.host);
    Ldap().Bind(kerberos_, deadline_);
}

void LogInAsMachine(KerberosSession& kerberos, const std::string& account,
                    const std::string& keytab) {
    try {
        kerberos.LogInWithKeytab(account, keytab);
    } catch (const Error& error) {
        if (error.Code() == Status::WrongPassword)
            throw Error(Status::MachineKeyRejected, error.what());
        if (error.Code() == Status::NoSuchUser)
            throw Error(Status::NoMachineAccount, error.what());
        throw;
    }
}

} // namespace tessary::directory
