#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <type_traits>
#include <typeinfo>

#include "tesauth/exceptions.h"

namespace {

using namespace tessary::authentication;

/// What is known of one exception class: how it is made, what it holds, and how it is told apart.
struct Row {
    const char* name;
    unsigned long code;
    std::string text; ///< what() as a whole
    std::function<std::unique_ptr<Exception>()> make;
    std::function<bool(const std::function<void()>&)> catches; ///< a handler for this very class
};

template <typename Class>
bool Catches(const std::function<void()>& action) {
    try {
        action();
    } catch (const Class& caught) {
        return typeid(caught) == typeid(Class);
    } catch (...) {
        return false;
    }
    return false;
}

template <typename Class, typename... Arguments>
Row TextRow(const char* name, const std::string& text, Arguments... arguments) {
    static_assert(std::is_base_of_v<Exception, Class> && sizeof(Class) == sizeof(Exception));
    return {name, 0, text, [=] { return std::make_unique<Class>(arguments...); }, Catches<Class>};
}

template <typename Class>
Row MappedRow(unsigned long code, const char* name, const std::string& text) {
    static_assert(std::is_base_of_v<Exception, Class> && sizeof(Class) == sizeof(Exception));
    char prefix[32];
    std::snprintf(prefix, sizeof prefix, "Exception 0x%08lx: ", code);
    return {name, code, prefix + text, [] { return std::make_unique<Class>(); }, Catches<Class>};
}

const std::vector<Row>& MappedRows() {
    static const std::vector<Row> rows = {
        // clang-format off
    MappedRow<FileNotFoundException>(2, "FileNotFoundException",
        "The system cannot find the file specified."),
    MappedRow<AccessDeniedException>(5, "AccessDeniedException",
        "Access is denied."),
    MappedRow<NotEnoughMemoryException>(8, "NotEnoughMemoryException",
        "Not enough memory"),
    MappedRow<InvalidPasswordException>(86, "InvalidPasswordException",
        "The specified network password is not correct."),
    MappedRow<InvalidParameterException>(87, "InvalidParameterException",
        "The parameter is incorrect."),
    MappedRow<CallNotImplementedException>(120, "CallNotImplementedException",
        "This function is not supported on this system."),
    MappedRow<DirectoryException>(267, "DirectoryException",
        "The directory name is invalid."),
    MappedRow<BadDLLEntryPointException>(609, "BadDLLEntryPointException",
        "Bad DLL entry point."),
    MappedRow<InvalidMessageException>(1002, "InvalidMessageException",
        "The window cannot act on the sent message."),
    MappedRow<ServiceDoesNotExistException>(1060, "ServiceDoesNotExistException",
        "The specified service does not exist as an installed service."),
    MappedRow<ServiceCannotAcceptControlException>(1061, "ServiceCannotAcceptControlException",
        "The service cannot accept control messages at this time."),
    MappedRow<ServiceNotActiveException>(1062, "ServiceNotActiveException",
        "The service has not been started."),
    MappedRow<ExceptionInServiceException>(1064, "ExceptionInServiceException",
        "An exception occurred in the service when handling the control request."),
    MappedRow<ProcessAbortedException>(1067, "ProcessAbortedException",
        "The process terminated unexpectedly."),
    MappedRow<ConnectionUnavailableException>(1201, "ConnectionUnavailableException",
        "The device is not currently connected but it is a remembered connection."),
    MappedRow<InvalidGroupNameException>(1209, "InvalidGroupNameException",
        "The format of the specified group name is invalid."),
    MappedRow<InvalidComputerNameException>(1210, "InvalidComputerNameException",
        "The format of the specified computer name is invalid."),
    MappedRow<InvalidDomainNameException>(1212, "InvalidDomainNameException",
        "The format of the specified domain name is invalid."),
    MappedRow<InvalidServiceNameException>(1213, "InvalidServiceNameException",
        "The format of the specified service name is invalid."),
    MappedRow<InvalidNetNameException>(1214, "InvalidNetNameException",
        "The format of the specified network name is invalid."),
    MappedRow<InvalidShareNameException>(1215, "InvalidShareNameException",
        "The format of the specified share name is invalid."),
    MappedRow<InvalidPasswordNameException>(1216, "InvalidPasswordNameException",
        "The format of the specified password is invalid."),
    MappedRow<NoNetworkException>(1222, "NoNetworkException",
        "The network is not present or not started."),
    MappedRow<ConnectionRefusedException>(1225, "ConnectionRefusedException",
        "The remote computer refused the network connection."),
    MappedRow<ConnectionInvalidException>(1229, "ConnectionInvalidException",
        "An operation was attempted on a nonexistent network connection."),
    MappedRow<NoLogonServersException>(1311, "NoLogonServersException",
        "There are currently no logon servers available to service the logon request."),
    MappedRow<InvalidAccountNameException>(1315, "InvalidAccountNameException",
        "The name provided is not a properly formed account name."),
    MappedRow<NoSuchUserException>(1317, "NoSuchUserException",
        "The specified account does not exist."),
    MappedRow<IllFormedPasswordException>(1324, "IllFormedPasswordException",
        "The value provided for the new password contains values that are not allowed in "
        "passwords."),
    MappedRow<PasswordRestrictionException>(1325, "PasswordRestrictionException",
        "The value provided for the new password does not meet the length, complexity, or "
        "history requirements of the domain."),
    MappedRow<LogonFailureException>(1326, "LogonFailureException",
        "The attempted logon is invalid. This is due to either a bad user name or "
        "authentication information."),
    MappedRow<PasswordExpiredException>(1330, "PasswordExpiredException",
        "Logon failure: the specified account password has expired."),
    MappedRow<AccountDisabledException>(1331, "AccountDisabledException",
        "Logon failure: account currently disabled."),
    MappedRow<NoSuchDomainException>(1355, "NoSuchDomainException",
        "The specified domain either does not exist or could not be contacted."),
    MappedRow<InternalErrorException>(1359, "InternalErrorException",
        "An internal error occurred."),
    MappedRow<TimeSkewException>(1398, "TimeSkewException",
        "There is a time and/or date difference between the client and server."),
    MappedRow<NoSuchGroupException>(1575, "NoSuchGroupException",
        "The specified group does not exist."),
    MappedRow<RPCSProtocolSequenceNotSupportedException>(1703, "RPCSProtocolSequenceNotSupportedException",
        "The RPC protocol sequence is not supported."),
    MappedRow<NoTrustLSASecretException>(1786, "NoTrustLSASecretException",
        "The workstation does not have a trust secret."),
    MappedRow<NoTrustSAMAccountException>(1787, "NoTrustSAMAccountException",
        "The domain controller does not have an account for this workstation."),
    MappedRow<RPCSCallInProgressException>(1791, "RPCSCallInProgressException",
        "A remote procedure call is already in progress for this thread."),
    MappedRow<DomainTrustInconsistentException>(1810, "DomainTrustInconsistentException",
        "The name or security ID (SID) of the domain specified is inconsistent with the trust "
        "information for that domain."),
    MappedRow<WkstaNotStartedException>(2138, "WkstaNotStartedException",
        "The Workstation service has not been started."),
    MappedRow<SetupAlreadyJoinedException>(2691, "SetupAlreadyJoinedException",
        "This machine is already joined to a domain."),
    MappedRow<InvalidWorkgroupNameException>(2695, "InvalidWorkgroupNameException",
        "The specified workgroup name is invalid."),
    MappedRow<WSATimedOutException>(10060, "WSATimedOutException",
        "A connection attempt failed because the connected party did not properly respond "
        "after a period of time, or established connection failed because connected host has "
        "failed to respond."),
        // clang-format on
    };
    return rows;
}

const std::vector<Row>& TextRows() {
    static const std::vector<Row> rows = {
        TextRow<Exception>("Exception", "a text", "a text"),
        TextRow<ConfigurationError>("ConfigurationError", "a text", "a text"),
        TextRow<IOError>("IOError", "a text", "a text"),
        TextRow<FilePermissionError>("FilePermissionError", "a text", "a text"),
        TextRow<InvalidKeyException>("InvalidKeyException",
                                     "The specified key 'k' was not found in this configuration",
                                     "k"),
        TextRow<UnknownRemoteAuthenticationStoreException>(
            "UnknownRemoteAuthenticationStoreException", "The specified store 'Foo' is unknown",
            "Foo"),
        TextRow<InvalidRemoteAuthenticationStoreException>(
            "InvalidRemoteAuthenticationStoreException", "The specified store 'Foo' is invalid",
            "Foo"),
        TextRow<InvalidActiveDirectoryProviderException>(
            "InvalidActiveDirectoryProviderException",
            "The specified Active Directory provider 'foo' is invalid", "foo"),
        TextRow<InvalidActiveDirectoryProviderException>(
            "InvalidActiveDirectoryProviderException",
            "The specified Active Directory provider 'foo' is invalid: reason", "foo", "reason"),
        TextRow<InvalidAPXProxyProviderException>(
            "InvalidAPXProxyProviderException", "The specified APXProxy provider 'foo' is invalid",
            "foo"),
        TextRow<InvalidAPXProxyProviderException>(
            "InvalidAPXProxyProviderException",
            "The specified APXProxy provider 'foo' is invalid: reason", "foo", "reason"),
        TextRow<InvalidThumbprintStoreException>("InvalidThumbprintStoreException",
                                                 "The specified thumbprint store 'f' is invalid",
                                                 "f"),
        TextRow<InvalidCredentialsException>("InvalidCredentialsException",
                                             "The credentials that were provided were invalid: x",
                                             "x"),
        TextRow<InvalidHostNameException>("InvalidHostNameException",
                                          "The current hostname is invalid: x", "x"),
        TextRow<InvalidIPAddressException>("InvalidIPAddressException",
                                           "The IP Address is invalid: x", "x"),
        TextRow<InvalidVerifyAPXCertificateOptionException>(
            "InvalidVerifyAPXCertificateOptionException",
            "The VerifyAPXCertificate option is invalid: x", "x"),
        TextRow<InvalidCertificateException>(
            "InvalidCertificateException",
            "The certificate format is invalid; only PEM format is supported."),
        TextRow<InvalidAPXCertificateException>("InvalidAPXCertificateException",
                                                "The APX server's certificate cannot be verified."),
        TextRow<ThreadErrorException>("ThreadErrorException", "Thread Error: x", "x"),
        TextRow<ProviderCallTimedOutException>("ProviderCallTimedOutException",
                                               "Provider call timed out.",
                                               "Provider call timed out."),
    };
    return rows;
}

/// Holds for an object itself, its clone, and whatever these two throw.
void ExpectCarriesItsTypeAround(const Row& row) {
    SCOPED_TRACE(row.name);
    const std::unique_ptr<Exception> original = row.make();
    const std::unique_ptr<Exception> clone(original->Clone());
    ASSERT_NE(clone.get(), original.get());
    const Exception& first = *original;
    for (const Exception* object : {original.get(), clone.get()}) {
        EXPECT_EQ(object->GetCode(), row.code);
        EXPECT_EQ(object->what(), row.text);
        EXPECT_EQ(typeid(*object), typeid(first));
        EXPECT_TRUE(row.catches([&] { object->Throw(); }));
        try {
            object->Throw();
        } catch (const Exception& thrown) {
            EXPECT_NE(&thrown, object) << "a copy is thrown, the object stays its owner's";
            EXPECT_EQ(thrown.GetCode(), row.code);
            EXPECT_EQ(thrown.what(), row.text);
        }
    }
    EXPECT_NE(original->what(), clone->what()) << "texts are not shared";
}

TEST(ExceptionsTest, MappedClassesHoldCodeAndText) {
    ASSERT_EQ(MappedRows().size(), 46u);
    for (const Row& row : MappedRows()) {
        ExpectCarriesItsTypeAround(row);
    }
}

TEST(ExceptionsTest, ClassesMadeOfATextHaveCodeZero) {
    for (const Row& row : TextRows()) {
        ExpectCarriesItsTypeAround(row);
    }
}

TEST(ExceptionsTest, UnknownExceptionHoldsTheCodeItIsGiven) {
    for (const auto& [code, text] : std::vector<std::pair<unsigned long, std::string>>{
             {0, "Exception 0x00000000: Unknown exception"},
             {0xABC, "Exception 0x00000abc: Unknown exception"},
             {0xFFFFFFFF, "Exception 0xffffffff: Unknown exception"},
             {0x123456789AB, "Exception 0x123456789ab: Unknown exception"}}) {
        ExpectCarriesItsTypeAround({"UnknownException", code, text,
                                    [c = code] { return std::make_unique<UnknownException>(c); },
                                    Catches<UnknownException>});
    }
}

TEST(ExceptionsTest, CodeIsPrintedInEightLowerCaseDigitsOrMore) {
    EXPECT_STREQ(Exception(0, "t").what(), "Exception 0x00000000: t");
    EXPECT_STREQ(Exception(0xBEEF, "t").what(), "Exception 0x0000beef: t");
    EXPECT_STREQ(Exception(0xDEADBEEF, "").what(), "Exception 0xdeadbeef: ");
    EXPECT_STREQ(Exception(0x100000000, "t").what(), "Exception 0x100000000: t");
    EXPECT_STREQ(Exception(~0ul, "t").what(), "Exception 0xffffffffffffffff: t");
    EXPECT_EQ(Exception(~0ul, "t").GetCode(), ~0ul);
}

TEST(ExceptionsTest, TextIsKeptUnchanged) {
    for (const std::string& text :
         {std::string(), std::string("%s 100%\n"), std::string(5000, 'x')}) {
        EXPECT_EQ(Exception(text).what(), text);
        EXPECT_EQ(Exception(text).GetCode(), 0u);
    }
}

TEST(ExceptionsTest, CopyHoldsBothFields) {
    const Exception original(7, "seven");
    const Exception copy(original);
    EXPECT_EQ(copy.GetCode(), 7u);
    EXPECT_STREQ(copy.what(), "Exception 0x00000007: seven");
}

TEST(ExceptionsTest, AllAreStandardExceptions) {
    try {
        IOError("gone").Throw();
    } catch (const std::exception& failure) {
        EXPECT_STREQ(failure.what(), "gone");
    }
}

/// The class that a mapping throws for a code, with the code it holds.
struct Thrown {
    const std::type_info* type;
    unsigned long code;
    std::string text;
};

Thrown ThrownFor(void (*map)(uint32_t), uint32_t code) {
    try {
        map(code);
    } catch (const Exception& failure) {
        return {&typeid(failure), failure.GetCode(), failure.what()};
    }
    return {&typeid(void), 0, ""};
}

TEST(MappingTest, EachCodeOfTheTableThrowsItsClass) {
    for (const Row& row : MappedRows()) {
        SCOPED_TRACE(row.name);
        const auto code = static_cast<uint32_t>(row.code);
        EXPECT_TRUE(row.catches([&] { ThrowMappedException(code); }));
        const Thrown thrown = ThrownFor(ThrowMappedException, code);
        EXPECT_EQ(thrown.code, row.code);
        EXPECT_EQ(thrown.text, row.text);
    }
}

TEST(MappingTest, EveryOtherCodeIsUnknown) {
    std::vector<bool> listed(70000);
    for (const Row& row : MappedRows()) {
        listed[row.code] = true;
    }
    for (uint32_t code = 1; code < listed.size(); ++code) {
        if (!listed[code]) {
            const Thrown thrown = ThrownFor(ThrowMappedException, code);
            ASSERT_EQ(*thrown.type, typeid(UnknownException)) << code;
            ASSERT_EQ(thrown.code, code);
        }
    }
    EXPECT_EQ(ThrownFor(ThrowMappedException, 3).text, "Exception 0x00000003: Unknown exception");
}

TEST(MappingTest, ZeroCountsAsFileNotFound) {
    const Thrown thrown = ThrownFor(ThrowMappedException, 0);
    EXPECT_EQ(*thrown.type, typeid(FileNotFoundException));
    EXPECT_EQ(thrown.code, 2u);
    EXPECT_EQ(thrown.text, "Exception 0x00000002: The system cannot find the file specified.");
}

TEST(MappingTest, HighCodesAreUnknownAndKept) {
    for (const uint32_t code : {0x7FFFFFFFu, 0x80000000u, 0xFFFEFFFFu, 0xFFFF0000u, 0xFFFF0001u,
                                0xFFFF0002u, 0xFFFFFFFFu}) {
        const Thrown thrown = ThrownFor(ThrowMappedException, code);
        EXPECT_EQ(*thrown.type, typeid(UnknownException)) << code;
        EXPECT_EQ(thrown.code, code);
    }
    EXPECT_EQ(ThrownFor(ThrowMappedException, 0xFFFF0001u).text,
              "Exception 0xffff0001: Unknown exception");
}

TEST(ProxyMappingTest, KnowsFiveCodes) {
    struct Expected {
        uint32_t code;
        const std::type_info& type;
        unsigned long storedCode;
        const char* text;
    };
    const Expected table[] = {
        {2148074277u, typeid(InvalidAPXCertificateException), 0,
         "The APX server's certificate cannot be verified."},
        {10060, typeid(WSATimedOutException), 10060,
         "Exception 0x0000274c: A connection attempt failed because the connected party did not "
         "properly respond after a period of time, or established connection failed because "
         "connected host has failed to respond."},
        {8, typeid(NotEnoughMemoryException), 8, "Exception 0x00000008: Not enough memory"},
        {1225, typeid(ConnectionRefusedException), 1225,
         "Exception 0x000004c9: The remote computer refused the network connection."},
        {1229, typeid(ConnectionInvalidException), 1229,
         "Exception 0x000004cd: An operation was attempted on a nonexistent network connection."},
    };
    for (const Expected& expected : table) {
        const Thrown thrown = ThrownFor(ThrowMappedProxyException, expected.code);
        EXPECT_EQ(*thrown.type, expected.type) << expected.code;
        EXPECT_EQ(thrown.code, expected.storedCode);
        EXPECT_EQ(thrown.text, expected.text);
    }
}

TEST(ProxyMappingTest, EveryOtherCodeIsUnknown) {
    for (const uint32_t code :
         {0u, 1u, 2u, 5u, 86u, 1326u, 1787u, 0x80090324u, 0x80090326u, 0xFFFF0000u, 0xFFFFFFFFu}) {
        const Thrown thrown = ThrownFor(ThrowMappedProxyException, code);
        EXPECT_EQ(*thrown.type, typeid(UnknownException)) << code;
        EXPECT_EQ(thrown.code, code);
    }
}

} // namespace
