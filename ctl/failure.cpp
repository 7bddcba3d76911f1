#include "failure.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

#include "hostctl/host.h"
#include "maintenance.h"
#include "orvcfg/config_store.h"
#include "tesauth/exceptions.h"
#include "tesauth/plugin/apx_plugin.h"

namespace ctl {

namespace auth = tessary::authentication;

namespace {

template <typename T>
bool Is(const std::exception& failure) {
    return dynamic_cast<const T*>(&failure) != nullptr;
}

/// A number that an authentication proxy refused with; the library has no classes for these.
template <unsigned long Code>
bool IsRefusal(const std::exception& failure) {
    const auto* unknown = dynamic_cast<const auth::UnknownException*>(&failure);
    return unknown != nullptr && unknown->GetCode() == Code;
}

/// Whether the configuration store is there and is none that can be used, which no rights mend.
bool IsDamagedStore(const std::exception& failure) {
    static constexpr const char* signs[] = {"not a database", "malformed", "not a regular file",
                                            "another application", "schema"};
    const std::string text = failure.what();
    return Is<OrvConfigStore::ConfigStoreException>(failure) &&
           std::any_of(std::begin(signs), std::end(signs),
                       [&](const char* sign) { return text.find(sign) != std::string::npos; });
}

constexpr const char* settingsHint = "`tesauthctl diagnose` checks the settings files";
constexpr const char* stateHint =
    "check that /var/lib/tessary can be written and that its file system is not full";

struct Hint {
    bool (*fits)(const std::exception& failure);
    const char* text;
    const char* forHost = nullptr;  ///< when the host's own account acts; null: the same text
    const char* forProxy = nullptr; ///< when an authentication proxy reported it; null: as for the
                                    ///< host
};

const Hint hints[] = {
    {Is<auth::FileNotFoundException>, "is the host joined to a domain? `tesauthctl status` tells"},
    {Is<auth::AccessDeniedException>,
     "the account lacks the right to do this in the directory; name an account that has it, or an "
     "organisational unit in which it has it (DOMAIN/UNIT)",
     "the host's own account lacks the right to do this in the directory, or a file of this host, "
     "such as /etc/krb5.keytab, cannot be used: try again as root"},
    {Is<auth::NotEnoughMemoryException>,
     "the host is out of memory, or this process may use no more of it"},
    {Is<auth::InvalidPasswordException>, "the user name is known, the password is wrong: try again",
     "the domain does not accept this host's key: join the host again"},
    {Is<auth::InvalidParameterException>,
     "check what was given: a domain controller is a DNS name or an address, a service a plain "
     "name"},
    {Is<auth::CallNotImplementedException>,
     "the directory provider cannot do this; /etc/tessary/tesauth/provider.conf names it"},
    {Is<auth::LogonFailureException>, "check the user name and the password",
     "the domain does not accept this host's key: join the host again"},
    {Is<auth::NoSuchUserException>, "check the user name, and that it is a user of this domain",
     "check the name, and the domain that it is looked up in"},
    {Is<auth::InvalidAccountNameException>, "write the user name as NAME or NAME@DOMAIN",
     "write the user as DOMAIN\\NAME (quoted in a shell), NAME@DOMAIN, DOMAIN/CONTAINER/NAME or a "
     "distinguished name"},
    {Is<auth::PasswordExpiredException>, "change the user's password first, then try again",
     "the machine account's password has expired: join the host again"},
    {Is<auth::AccountDisabledException>,
     "the user is disabled, locked or expired; name another one or have it enabled",
     "the machine account is disabled, locked or expired: have it enabled in the directory, or "
     "join the host again"},
    {Is<auth::IllFormedPasswordException>,
     "the domain refuses a character of the new password: look for a password filter on its "
     "domain controllers"},
    {Is<auth::PasswordRestrictionException>,
     "the domain refuses the new machine password: give computers a password policy that allows "
     "it, or wait until its minimum age has passed"},
    {Is<auth::TimeSkewException>,
     "set this host's clock, for instance from the domain controllers' "
     "time service; they accept five minutes of difference"},
    {Is<auth::NoSuchDomainException>,
     "check the name, and that the name servers in /etc/resolv.conf know the domain",
     "check the name, and that the name servers in /etc/resolv.conf know the domain; `tesauthctl "
     "trusts` lists the domains that the host's domain trusts"},
    {Is<auth::InvalidDomainNameException>, "write the domain by its DNS name, as corp.example"},
    {Is<auth::NoNetworkException>, "bring up the host's network first"},
    {Is<auth::NoLogonServersException>,
     "no domain controller answered: check the network and the name servers in /etc/resolv.conf"},
    {Is<auth::ConnectionRefusedException>,
     "the domain controller's host answers, its directory service does not: is it running?",
     nullptr,
     "is tesauth-apxd running there, on port 8447? if so, look at the domain "
     "controllers"},
    {Is<auth::ConnectionInvalidException>, "check the network and any firewall on the way", nullptr,
     "is this the address of an authentication proxy, on its port? its log may say why it hung up"},
    {Is<auth::WSATimedOutException>,
     "the domain controllers don't answer: check the network and any firewall on the way", nullptr,
     "the proxy, or else a domain controller, does not answer: check the proxy's address, the "
     "network and any firewall on the way"},
    {IsRefusal<5>, "", nullptr,
     "ask the proxy's administrator: its log says why it refused, `tesauth-apxd release HOST` lets "
     "a host that has an account already join again"},
    {IsRefusal<87>, "", nullptr,
     "the proxy does not take this host's full name or the organisational unit: check both"},
    {IsRefusal<1355>, "", nullptr,
     "the proxy does not find its domain: its name servers have to know the domain"},
    {IsRefusal<1311>, "", nullptr,
     "no domain controller answers the proxy: try again when one does"},
    {IsRefusal<1359>, "", nullptr,
     "ask the proxy's administrator: its log says what went wrong there"},
    {Is<auth::DirectoryException>,
     "check the organisational unit; levels are written from the top: DOMAIN/SERVERS/HOSTS"},
    {Is<auth::InvalidComputerNameException>,
     "this host's name cannot be a machine account's: give it another one"},
    {Is<auth::SetupAlreadyJoinedException>, "leave that domain first: tesauthctl leave"},
    {Is<auth::NoTrustSAMAccountException>, "join the host again"},
    {Is<auth::NoTrustLSASecretException>, "join the host again"},
    {Is<auth::DomainTrustInconsistentException>,
     "the domain is not the one that it was: leave it and join it again"},
    {Is<auth::RPCSCallInProgressException>,
     "another join, leave or change of the key is running: try again when it is done"},
    {Is<auth::InternalErrorException>, "`tesauthctl diagnose` looks at the host and the domain"},
    {Is<auth::InvalidHostNameException>,
     "give the host a name of its own and a line in /etc/hosts: ADDRESS NAME.DOMAIN NAME"},
    {Is<auth::InvalidActiveDirectoryProviderException>,
     "check the key \"provider\" in /etc/tessary/tesauth/provider.conf"},
    {Is<auth::InvalidAPXProxyProviderException>,
     "check the key \"provider\" in /etc/tessary/tesauth/apxprovider.conf"},
    {Is<auth::InvalidAPXCertificateException>,
     "compare `tesauthctl proxy show` with the thumbprint that the proxy printed; when it has "
     "another certificate by now: tesauthctl proxy import-certificate FILE"},
    {Is<auth::InvalidThumbprintStoreException>,
     "import the proxy's certificate first: tesauthctl proxy import-certificate FILE"},
    {Is<auth::InvalidVerifyAPXCertificateOptionException>,
     "set it to 1, or to 0 to verify nothing: tesauthctl option set "
     "UserVars.ActiveDirectoryVerifyAPXCertificate 1; where that fails, `tesauthctl diagnose` "
     "tells why"},
    {Is<auth::InvalidCertificateException>,
     "convert it first, as: openssl x509 -inform DER -in FILE -out proxy.pem"},
    {Is<auth::InvalidIPAddressException>, "write the proxy's IPv4 address, as 192.0.2.7"},
    {Is<auth::ProviderCallTimedOutException>,
     "is a domain controller running? a longer --timeout waits longer"},
    {Is<auth::ConfigurationError>, settingsHint},
    {Is<auth::InvalidKeyException>, settingsHint},
    {Is<auth::IOError>, settingsHint, nullptr,
     "is the proxy client that /etc/tessary/tesauth/apxprovider.conf names in "
     "/usr/libexec/tesauth?"},
    {Is<std::logic_error>, "", nullptr,
     "the proxy client that /etc/tessary/tesauth/apxprovider.conf names lacks an operation"},
    {IsDamagedStore, "`tesauthctl diagnose` tells how to mend it"},
    {Is<OrvConfigStore::ConfigStoreException>, stateHint},
    {Is<HostCtl::Lib::HostCtlException>, stateHint},
};

std::string HintFor(const std::exception& failure, ActingAccount account) {
    for (const Hint& hint : hints) {
        if (hint.fits(failure)) {
            if (account == ActingAccount::Proxy && hint.forProxy != nullptr) {
                return hint.forProxy;
            }
            const bool forHost = account != ActingAccount::User && hint.forHost != nullptr;
            return forHost ? hint.forHost : hint.text;
        }
    }
    return "";
}

/// What the provider says about a failure that it reported. One is the library's own: that the
/// provider lacks an operation.
std::string CauseOf(const auth::Exception& failure) {
    if (failure.GetCode() == 0 || Is<auth::CallNotImplementedException>(failure)) {
        return "";
    }
    const auto maintenance = Maintenance::OfLoadedProvider();
    return maintenance ? maintenance->DescribeFailure(static_cast<uint32_t>(failure.GetCode()))
                       : "";
}

/// The status that a proxy client reported.
uint32_t ProxyStatusOf(const auth::Exception& failure) {
    return Is<auth::InvalidAPXCertificateException>(failure)
               ? TESAUTH_APX_STATUS_UNTRUSTED_CERTIFICATE // the exception itself has no number
               : static_cast<uint32_t>(failure.GetCode());
}

bool MayNot(const char* path, int mode) {
    return faccessat(AT_FDCWD, path, mode, AT_EACCESS) != 0 && (errno == EACCES || errno == EPERM);
}

/// Whether a failure to use the host's own files comes from the caller's rights. The exceptions
/// don't carry the cause, so it is looked up where it shows.
bool ComesFromFileRights(const std::exception& failure, ActingAccount account) {
    if (Is<auth::AccessDeniedException>(failure)) {
        return account != ActingAccount::User &&
               (MayNot("/var/lib/tessary", X_OK) || MayNot("/etc/krb5.keytab", R_OK));
    }
    if (Is<OrvConfigStore::ConfigStoreException>(failure) ||
        Is<HostCtl::Lib::HostCtlException>(failure)) {
        constexpr const char* store = "/var/lib/tessary/configstore.db";
        return MayNot(store, R_OK | W_OK) ||
               (access(store, F_OK) != 0 && errno == ENOENT && MayNot("/var/lib", W_OK));
    }
    if (Is<auth::IOError>(failure) || Is<auth::FilePermissionError>(failure) ||
        Is<auth::InvalidActiveDirectoryProviderException>(failure) ||
        Is<auth::InvalidAPXProxyProviderException>(failure)) {
        return MayNot("/etc/tessary/tesauth/authentication.conf", R_OK) ||
               MayNot("/etc/tessary/tesauth/provider.conf", R_OK) ||
               MayNot("/etc/tessary/tesauth/apxprovider.conf", R_OK);
    }
    return false;
}

ExitCode ExitCodeFor(const std::exception& failure, ActingAccount account) {
    if (Is<UsageError>(failure)) {
        return ExitCode::WrongUsage;
    }
    const bool lacksRights =
        Is<NotPermittedError>(failure) || ComesFromFileRights(failure, account);
    return lacksRights ? ExitCode::NotPermitted : ExitCode::Failed;
}

Failure Describe(const std::exception& failure, ActingAccount account) {
    Failure told = {ExitCode::Failed, failure.what(), 0, "", ""};
    if (const auto* numbered = dynamic_cast<const auth::Exception*>(&failure)) {
        told.code = numbered->GetCode();
        told.cause = CauseOf(*numbered);
        if (account == ActingAccount::Proxy && !told.cause.empty()) {
            account = ActingAccount::Host; // the proxy has done its part by then
        } else if (account == ActingAccount::Proxy) {
            told.cause = DescribeProxyFailure(ProxyStatusOf(*numbered));
        }
    }
    told.exitCode = ExitCodeFor(failure, account);
    told.hint = HintFor(failure, account);
    if (const auto* hinted = dynamic_cast<const HintedError*>(&failure)) {
        told.hint = hinted->Hint();
    }
    if (told.exitCode == ExitCode::NotPermitted) {
        told.hint = "try again as root";
    }
    return told;
}

} // namespace

Failure DescribeFailure(const std::exception_ptr& thrown, ActingAccount account) {
    try {
        std::rethrow_exception(thrown);
    } catch (const std::exception& failure) {
        return Describe(failure, account);
    } catch (...) {
        return {ExitCode::Failed, "a failure of unknown kind", 0, "", ""};
    }
}

} // namespace ctl
