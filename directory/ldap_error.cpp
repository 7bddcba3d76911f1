#include "ldap_error.h"

#include "error.h"

#include <ldap.h>

#include <charconv>
#include <optional>

namespace tessary::directory {
namespace {

struct ResultMeaning {
    int result;
    Status status;
};

constexpr ResultMeaning resultMeanings[] = {
    {LDAP_INSUFFICIENT_ACCESS, Status::AccessDenied},
    {LDAP_NO_SUCH_OBJECT, Status::NoSuchContainer},
    {LDAP_INVALID_DN_SYNTAX, Status::NoSuchContainer},
    {LDAP_NAMING_VIOLATION, Status::NoSuchContainer},
    {LDAP_INVALID_CREDENTIALS, Status::AccessDenied},
    {LDAP_REFERRAL, Status::NoController}, // one that may not write says who may
    {LDAP_BUSY, Status::NoController},
    {LDAP_UNAVAILABLE, Status::NoController},
    {LDAP_SERVER_DOWN, Status::NoController},
    {LDAP_CONNECT_ERROR, Status::NoController},
    {LDAP_TIMELIMIT_EXCEEDED, Status::TimedOut},
    {LDAP_TIMEOUT, Status::TimedOut},
    {LDAP_NO_MEMORY, Status::NotEnoughMemory},
};

struct ServerErrorMeaning {
    unsigned error;
    Status status;
};

constexpr ServerErrorMeaning serverErrorMeanings[] = {
    {0x5, Status::AccessDenied},           {0x52D, Status::PasswordRefused},
    {0x216D, Status::AccessDenied},        // the user has created as many accounts as allowed
    {0x21C7, Status::InvalidComputerName}, // a service name is another account's already
    {0x21C8, Status::InvalidComputerName},
};

std::optional<unsigned> ServerError(const std::string& diagnostics) {
    constexpr std::size_t digits = 8;
    unsigned error = 0;
    if (diagnostics.size() <= digits || diagnostics[digits] != ':')
        return std::nullopt;
    const char* end = diagnostics.data() + digits;
    const auto parsed = std::from_chars(diagnostics.data(), end, error, 16);
    return parsed.ptr == end ? std::optional(error) : std::nullopt;
}

Status MeaningOf(int result, const std::string& diagnostics) {
    if (const auto error = ServerError(diagnostics))
        for (const ServerErrorMeaning& meaning : serverErrorMeanings)
            if (meaning.error == *error)
                return meaning.status;
    for (const ResultMeaning& meaning : resultMeanings)
        if (meaning.result == result)
            return meaning.status;
    return Status::InternalError;
}

} // namespace

void ThrowLdapError(int result, const std::string& diagnostics, const std::string& what) {
    std::string text = what + ": " + ldap_err2string(result);
    // Of an object that is not there some controllers tell where in their code they noticed.
    const std::string remark = diagnostics.substr(0, diagnostics.find_last_not_of(" \r\n") + 1);
    if (!remark.empty() && result != LDAP_NO_SUCH_OBJECT)
        text += " (" + remark + ")";
    throw Error(MeaningOf(result, diagnostics), text);
}

} // namespace tessary::directory
