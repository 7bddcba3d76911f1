#include <cstdint>

#include "tesauth/exceptions.h"

namespace tessary::authentication {

void ThrowMappedException(uint32_t code) {
    // Kept on purpose, although the default below gives the same: 0xffff0000 is a status that
    // providers use themselves, and nothing from there on is ever looked up.
    if (code >= 0xFFFF0000u) {
        throw UnknownException(code);
    }
    switch (code) {
    case 0: // kept on purpose: a zero code counts as file not found
        throw FileNotFoundException();
#define TESAUTH_THROW_MAPPED(CODE, NAME, TEXT)                                                     \
    case CODE:                                                                                     \
        throw NAME();
        TESAUTH_MAPPED_EXCEPTIONS(TESAUTH_THROW_MAPPED)
#undef TESAUTH_THROW_MAPPED
    default:
        throw UnknownException(code);
    }
}

void ThrowMappedProxyException(uint32_t code) {
    // The security layer's code for a certificate chain that ends in an untrusted root.
    constexpr uint32_t untrustedRoot = 0x80090325u;
    switch (code) {
    case untrustedRoot:
        throw InvalidAPXCertificateException();
    case 10060:
        throw WSATimedOutException();
    case 8:
        throw NotEnoughMemoryException();
    case 1225:
        throw ConnectionRefusedException();
    case 1229:
        throw ConnectionInvalidException();
    default:
        throw UnknownException(code);
    }
}

} // namespace tessary::authentication
