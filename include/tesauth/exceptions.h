/// Every failure that libtesauth reports is an object of the hierarchy declared here.
///
/// Exceptions are immutable, may be copied and thrown on any thread, and can be carried from one
/// thread to another as an owned copy (Clone) and thrown there with their own type (Throw).
#ifndef TESAUTH_EXCEPTIONS_H
#define TESAUTH_EXCEPTIONS_H

#include <cstdint>
#include <exception>
#include <string>

#include "tesauth/export.h"

namespace tessary {
namespace authentication {

/// Root of the hierarchy.
class TESAUTH_API Exception : public std::exception {
public:
    /// A failure without a number: the code is 0 and what() is `text`, unchanged.
    explicit Exception(const std::string& text);

    /// A failure with a number: what() is "Exception 0x", the code in at least eight lower-case
    /// hexadecimal digits, ": " and `text`.
    Exception(unsigned long code, const std::string& text);

    Exception(const Exception& other);
    Exception& operator=(const Exception&) = delete;
    ~Exception() override;

    /// The complete text; valid as long as the object lives.
    const char* what() const noexcept override;

    /// A new object of the same class with the same code and text; the caller owns it.
    virtual Exception* Clone() const;

    /// Throws a copy of this object as its own most-derived class.
    [[noreturn]] virtual void Throw() const;

    /// The number of the failure, 0 for an exception that was built from a text.
    unsigned long GetCode() const { return code; }

protected:
    unsigned long code;
    std::string message;
};

/// The failures that carry the number a plug-in reported: code, class, text. This list is the
/// only place that knows them; the classes and the mapping are made from it.
#define TESAUTH_MAPPED_EXCEPTIONS(ENTRY)                                                           \
    ENTRY(2, FileNotFoundException, "The system cannot find the file specified.")                  \
    ENTRY(5, AccessDeniedException, "Access is denied.")                                           \
    ENTRY(8, NotEnoughMemoryException, "Not enough memory")                                        \
    ENTRY(86, InvalidPasswordException, "The specified network password is not correct.")          \
    ENTRY(87, InvalidParameterException, "The parameter is incorrect.")                            \
    ENTRY(120, CallNotImplementedException, "This function is not supported on this system.")      \
    ENTRY(267, DirectoryException, "The directory name is invalid.")                               \
    ENTRY(609, BadDLLEntryPointException, "Bad DLL entry point.")                                  \
    ENTRY(1002, InvalidMessageException, "The window cannot act on the sent message.")             \
    ENTRY(1060, ServiceDoesNotExistException,                                                      \
          "The specified service does not exist as an installed service.")                         \
    ENTRY(1061, ServiceCannotAcceptControlException,                                               \
          "The service cannot accept control messages at this time.")                              \
    ENTRY(1062, ServiceNotActiveException, "The service has not been started.")                    \
    ENTRY(1064, ExceptionInServiceException,                                                       \
          "An exception occurred in the service when handling the control request.")               \
    ENTRY(1067, ProcessAbortedException, "The process terminated unexpectedly.")                   \
    ENTRY(1201, ConnectionUnavailableException,                                                    \
          "The device is not currently connected but it is a remembered connection.")              \
    ENTRY(1209, InvalidGroupNameException, "The format of the specified group name is invalid.")   \
    ENTRY(1210, InvalidComputerNameException,                                                      \
          "The format of the specified computer name is invalid.")                                 \
    ENTRY(1212, InvalidDomainNameException, "The format of the specified domain name is invalid.") \
    ENTRY(1213, InvalidServiceNameException,                                                       \
          "The format of the specified service name is invalid.")                                  \
    ENTRY(1214, InvalidNetNameException, "The format of the specified network name is invalid.")   \
    ENTRY(1215, InvalidShareNameException, "The format of the specified share name is invalid.")   \
    ENTRY(1216, InvalidPasswordNameException, "The format of the specified password is invalid.")  \
    ENTRY(1222, NoNetworkException, "The network is not present or not started.")                  \
    ENTRY(1225, ConnectionRefusedException, "The remote computer refused the network connection.") \
    ENTRY(1229, ConnectionInvalidException,                                                        \
          "An operation was attempted on a nonexistent network connection.")                       \
    ENTRY(1311, NoLogonServersException,                                                           \
          "There are currently no logon servers available to service the logon request.")          \
    ENTRY(1315, InvalidAccountNameException,                                                       \
          "The name provided is not a properly formed account name.")                              \
    ENTRY(1317, NoSuchUserException, "The specified account does not exist.")                      \
    ENTRY(1324, IllFormedPasswordException,                                                        \
          "The value provided for the new password contains values that are not allowed in "       \
          "passwords.")                                                                            \
    ENTRY(1325, PasswordRestrictionException,                                                      \
          "The value provided for the new password does not meet the length, complexity, or "      \
          "history requirements of the domain.")                                                   \
    ENTRY(1326, LogonFailureException,                                                             \
          "The attempted logon is invalid. This is due to either a bad user name or "              \
          "authentication information.")                                                           \
    ENTRY(1330, PasswordExpiredException,                                                          \
          "Logon failure: the specified account password has expired.")                            \
    ENTRY(1331, AccountDisabledException, "Logon failure: account currently disabled.")            \
    ENTRY(1355, NoSuchDomainException,                                                             \
          "The specified domain either does not exist or could not be contacted.")                 \
    ENTRY(1359, InternalErrorException, "An internal error occurred.")                             \
    ENTRY(1398, TimeSkewException,                                                                 \
          "There is a time and/or date difference between the client and server.")                 \
    ENTRY(1575, NoSuchGroupException, "The specified group does not exist.")                       \
    ENTRY(1703, RPCSProtocolSequenceNotSupportedException,                                         \
          "The RPC protocol sequence is not supported.")                                           \
    ENTRY(1786, NoTrustLSASecretException, "The workstation does not have a trust secret.")        \
    ENTRY(1787, NoTrustSAMAccountException,                                                        \
          "The domain controller does not have an account for this workstation.")                  \
    ENTRY(1791, RPCSCallInProgressException,                                                       \
          "A remote procedure call is already in progress for this thread.")                       \
    ENTRY(1810, DomainTrustInconsistentException,                                                  \
          "The name or security ID (SID) of the domain specified is inconsistent with the trust "  \
          "information for that domain.")                                                          \
    ENTRY(2138, WkstaNotStartedException, "The Workstation service has not been started.")         \
    ENTRY(2691, SetupAlreadyJoinedException, "This machine is already joined to a domain.")        \
    ENTRY(2695, InvalidWorkgroupNameException, "The specified workgroup name is invalid.")         \
    ENTRY(10060, WSATimedOutException,                                                             \
          "A connection attempt failed because the connected party did not properly respond "      \
          "after a period of time, or established connection failed because connected host has "   \
          "failed to respond.")

// What every class below Exception has in common: it adds nothing but its type.
#define TESAUTH_EXCEPTION_TYPE(NAME)                                                               \
    NAME(const NAME& other);                                                                       \
    NAME& operator=(const NAME&) = delete;                                                         \
    ~NAME() override;                                                                              \
    Exception* Clone() const override;                                                             \
    [[noreturn]] void Throw() const override

#define TESAUTH_DECLARE_MAPPED(CODE, NAME, TEXT)                                                   \
    class TESAUTH_API NAME : public Exception {                                                    \
    public:                                                                                        \
        NAME();                                                                                    \
        TESAUTH_EXCEPTION_TYPE(NAME);                                                              \
    };
TESAUTH_MAPPED_EXCEPTIONS(TESAUTH_DECLARE_MAPPED)
#undef TESAUTH_DECLARE_MAPPED

/// A number that has no class of its own.
class TESAUTH_API UnknownException : public Exception {
public:
    explicit UnknownException(unsigned long code);
    TESAUTH_EXCEPTION_TYPE(UnknownException);
};

/// The failures that are told by text alone: class, text before the argument, text after it.
#define TESAUTH_TEXT_EXCEPTIONS(ENTRY)                                                             \
    ENTRY(ConfigurationError, "", "")                                                              \
    ENTRY(IOError, "", "")                                                                         \
    ENTRY(FilePermissionError, "", "")                                                             \
    ENTRY(InvalidKeyException, "The specified key '", "' was not found in this configuration")     \
    ENTRY(UnknownRemoteAuthenticationStoreException, "The specified store '", "' is unknown")      \
    ENTRY(InvalidRemoteAuthenticationStoreException, "The specified store '", "' is invalid")      \
    ENTRY(InvalidThumbprintStoreException, "The specified thumbprint store '", "' is invalid")     \
    ENTRY(InvalidCredentialsException, "The credentials that were provided were invalid: ", "")    \
    ENTRY(InvalidHostNameException, "The current hostname is invalid: ", "")                       \
    ENTRY(InvalidIPAddressException, "The IP Address is invalid: ", "")                            \
    ENTRY(InvalidVerifyAPXCertificateOptionException,                                              \
          "The VerifyAPXCertificate option is invalid: ", "")                                      \
    ENTRY(ThreadErrorException, "Thread Error: ", "")                                              \
    ENTRY(ProviderCallTimedOutException, "", "")

#define TESAUTH_DECLARE_TEXT(NAME, BEFORE, AFTER)                                                  \
    class TESAUTH_API NAME : public Exception {                                                    \
    public:                                                                                        \
        explicit NAME(const std::string& argument);                                                \
        TESAUTH_EXCEPTION_TYPE(NAME);                                                              \
    };
TESAUTH_TEXT_EXCEPTIONS(TESAUTH_DECLARE_TEXT)
#undef TESAUTH_DECLARE_TEXT

/// The directory provider plug-in of that name cannot be used.
class TESAUTH_API InvalidActiveDirectoryProviderException : public Exception {
public:
    explicit InvalidActiveDirectoryProviderException(const std::string& name);
    InvalidActiveDirectoryProviderException(const std::string& name, const std::string& reason);
    TESAUTH_EXCEPTION_TYPE(InvalidActiveDirectoryProviderException);
};

/// The authentication-proxy client plug-in of that name cannot be used.
class TESAUTH_API InvalidAPXProxyProviderException : public Exception {
public:
    explicit InvalidAPXProxyProviderException(const std::string& name);
    InvalidAPXProxyProviderException(const std::string& name, const std::string& reason);
    TESAUTH_EXCEPTION_TYPE(InvalidAPXProxyProviderException);
};

/// A text that should be a PEM certificate is none.
class TESAUTH_API InvalidCertificateException : public Exception {
public:
    InvalidCertificateException();
    TESAUTH_EXCEPTION_TYPE(InvalidCertificateException);
};

/// The authentication proxy's certificate is not the trusted one.
class TESAUTH_API InvalidAPXCertificateException : public Exception {
public:
    InvalidAPXCertificateException();
    TESAUTH_EXCEPTION_TYPE(InvalidAPXCertificateException);
};

#undef TESAUTH_EXCEPTION_TYPE

/// Throws the exception that stands for a directory provider's status. Always throws: 0 counts as
/// 2, and a code without a class of its own becomes UnknownException.
[[noreturn]] TESAUTH_API void ThrowMappedException(uint32_t code);

/// Throws the exception that stands for a proxy client's status. Always throws.
[[noreturn]] TESAUTH_API void ThrowMappedProxyException(uint32_t code);

} // namespace authentication
} // namespace tessary

#endif
