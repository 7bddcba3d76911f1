/// Failures of directory operations: a status number and a text.
#ifndef TESSARY_DIRECTORY_ERROR_H
#define TESSARY_DIRECTORY_ERROR_H

#include <cstdint>
#include <stdexcept>
#include <string>

namespace tessary::directory {

/// What went wrong, as the numbers that a provider plug-in reports.
enum class Status : std::uint32_t {
    Success = 0,
    FileNotFound = 2,           ///< a query that needs a joined host, on one that is not
    AccessDenied = 5,           ///< the account may not do this
    NotEnoughMemory = 8,        ///< out of memory
    WrongPassword = 86,         ///< the password is not the user's
    InvalidParameter = 87,      ///< an argument that no other status describes
    NoSuchContainer = 267,      ///< the organisational unit does not exist
    InvalidComputerName = 1210, ///< the host's name cannot be a computer's name
    InvalidDomainName = 1212,   ///< not a well-formed domain name
    ConnectionRefused = 1225,   ///< every controller refused the connection
    NoController = 1311,        ///< no controller can be reached, or no name server answers
    InvalidUserName = 1315,     ///< not a well-formed user name
    NoSuchUser = 1317,          ///< the domain has no such user
    PasswordRefused = 1325,     ///< the domain's password policy refuses the new password
    LogonFailure = 1326,        ///< a prepared account, or its password, is not known yet
    PasswordExpired = 1330,     ///< the password has expired or must be changed first
    AccountDisabled = 1331,     ///< the account is disabled, locked or expired
    NoSuchDomain = 1355,        ///< the name is not one of a domain
    InternalError = 1359,       ///< anything else
    ClockSkew = 1398,           ///< the clocks of host and controller are too far apart
    MachineKeyRejected = 1786,  ///< the host's own key is missing or not accepted
    NoMachineAccount = 1787,    ///< the domain has no account for the host
    CallInProgress = 1791,      ///< another join or leave is running
    DomainMismatch = 1810,      ///< the domain is not the one that was described
    AlreadyJoined = 2691,       ///< the host is joined to another domain
    TimedOut = 10060            ///< a controller was found and did not answer in time
};

/// A failed operation: the status to report and a text for a person. The text never holds a
/// password or a key.
class Error : public std::runtime_error {
public:
    Error(Status status, const std::string& text) : std::runtime_error(text), status_(status) {}

    Status Code() const { return status_; }

private:
    Status status_;
};

/// Throws the Error that fits a failed system call on a local file.
/// \param error the value of errno
/// \param what  what was tried, such as "cannot write /etc/krb5.keytab"
[[noreturn]] void ThrowFileError(int error, const std::string& what);

} // namespace tessary::directory

#endif
