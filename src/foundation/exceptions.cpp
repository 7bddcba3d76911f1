#include "tesauth/exceptions.h"

#include <cstdio>

namespace tessary::authentication {

namespace {

std::string FormatCode(unsigned long code) {
    char digits[2 * sizeof code + 1];
    std::snprintf(digits, sizeof digits, "%08lx", code);
    return digits;
}

} // namespace

Exception::Exception(const std::string& text) : code(0), message(text) {}

Exception::Exception(unsigned long number, const std::string& text)
    : code(number), message("Exception 0x" + FormatCode(number) + ": " + text) {}

Exception::Exception(const Exception& other) = default;

const char* Exception::what() const noexcept {
    return message.c_str();
}

// Each class throws and copies itself, so that a handler for it matches after the object was
// carried to another thread behind a pointer to the base.
#define TESAUTH_DEFINE_TYPE(NAME)                                                                  \
    NAME::~NAME() = default;                                                                       \
    Exception* NAME::Clone() const {                                                               \
        return new NAME(*this);                                                                    \
    }                                                                                              \
    void NAME::Throw() const {                                                                     \
        throw NAME(*this);                                                                         \
    }

#define TESAUTH_DEFINE_DERIVED_TYPE(NAME)                                                          \
    NAME::NAME(const NAME& other) = default;                                                       \
    TESAUTH_DEFINE_TYPE(NAME)

TESAUTH_DEFINE_TYPE(Exception)

#define TESAUTH_DEFINE_MAPPED(CODE, NAME, TEXT)                                                    \
    NAME::NAME() : Exception(CODE, TEXT) {}                                                        \
    TESAUTH_DEFINE_DERIVED_TYPE(NAME)
TESAUTH_MAPPED_EXCEPTIONS(TESAUTH_DEFINE_MAPPED)

UnknownException::UnknownException(unsigned long number) : Exception(number, "Unknown exception") {}
TESAUTH_DEFINE_DERIVED_TYPE(UnknownException)

#define TESAUTH_DEFINE_TEXT(NAME, BEFORE, AFTER)                                                   \
    NAME::NAME(const std::string& argument) : Exception(BEFORE + argument + AFTER) {}              \
    TESAUTH_DEFINE_DERIVED_TYPE(NAME)
TESAUTH_TEXT_EXCEPTIONS(TESAUTH_DEFINE_TEXT)

InvalidActiveDirectoryProviderException::InvalidActiveDirectoryProviderException(
    const std::string& name)
    : Exception("The specified Active Directory provider '" + name + "' is invalid") {}
InvalidActiveDirectoryProviderException::InvalidActiveDirectoryProviderException(
    const std::string& name, const std::string& reason)
    : Exception("The specified Active Directory provider '" + name + "' is invalid: " + reason) {}
TESAUTH_DEFINE_DERIVED_TYPE(InvalidActiveDirectoryProviderException)

InvalidAPXProxyProviderException::InvalidAPXProxyProviderException(const std::string& name)
    : Exception("The specified APXProxy provider '" + name + "' is invalid") {}
InvalidAPXProxyProviderException::InvalidAPXProxyProviderException(const std::string& name,
                                                                   const std::string& reason)
    : Exception("The specified APXProxy provider '" + name + "' is invalid: " + reason) {}
TESAUTH_DEFINE_DERIVED_TYPE(InvalidAPXProxyProviderException)

InvalidCertificateException::InvalidCertificateException()
    : Exception("The certificate format is invalid; only PEM format is supported.") {}
TESAUTH_DEFINE_DERIVED_TYPE(InvalidCertificateException)

InvalidAPXCertificateException::InvalidAPXCertificateException()
    : Exception("The APX server's certificate cannot be verified.") {}
TESAUTH_DEFINE_DERIVED_TYPE(InvalidAPXCertificateException)

} // namespace tessary::authentication
