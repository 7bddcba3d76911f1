#include "names.h"

#include "error.h"
#include "text.h"

#include <ldap.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <memory>
#include <string_view>

namespace tessary::directory {
namespace {

constexpr std::size_t longestAccount = 15;
constexpr std::size_t longestLabel = 63;
constexpr std::size_t longestName = 253;

bool IsLabel(std::string_view label, std::string_view signs) {
    return !label.empty() && label.size() <= longestLabel && label.front() != '-' &&
           label.back() != '-' && std::all_of(label.begin(), label.end(), [&](char c) {
               return IsLetterOrDigit(c) || signs.find(c) != std::string_view::npos;
           });
}

bool IsDottedName(std::string_view name, std::string_view signs) {
    if (name.size() > longestName)
        return false;
    for (;;) {
        const std::size_t dot = name.find('.');
        if (!IsLabel(name.substr(0, dot), signs))
            return false;
        if (dot == std::string_view::npos)
            return true;
        name.remove_prefix(dot + 1);
    }
}

/// Four characters that tell long names with the same beginning apart, and are always the same for
/// one name.
std::string Fingerprint(std::string_view name) {
    constexpr std::string_view digits = "ABCDEFGHIJKLMNOPQRSTUVWXYZ234567";
    std::uint64_t hash = 0xcbf29ce484222325; // FNV-1a
    for (char c : name)
        hash = (hash ^ static_cast<unsigned char>(c)) * 0x100000001b3;
    hash ^= hash >> 32;
    std::string text;
    for (int i = 0; i < 4; ++i, hash >>= 5)
        text += digits[hash & 31];
    return text;
}

std::string AccountFor(const std::string& shortName) {
    const std::string upper = UpperCase(shortName);
    if (upper.size() <= longestAccount)
        return upper;
    return upper.substr(0, longestAccount - 5) + "-" + Fingerprint(upper);
}

struct DnDeleter {
    void operator()(LDAPDN dn) const { ldap_dnfree(dn); }
};

/// One spelling for all spellings of a distinguished name.
std::string NormalizeDn(const std::string& dn) {
    LDAPDN parsed = nullptr;
    if (ldap_str2dn(dn.c_str(), &parsed, LDAP_DN_FORMAT_LDAPV3) != LDAP_SUCCESS)
        throw Error(Status::NoSuchContainer, "malformed distinguished name " + dn);
    const std::unique_ptr<std::remove_pointer_t<LDAPDN>, DnDeleter> owned(parsed);
    char* text = nullptr;
    if (ldap_dn2str(parsed, &text, LDAP_DN_FORMAT_LDAPV3) != LDAP_SUCCESS || !text)
        throw Error(Status::NoSuchContainer, "malformed distinguished name " + dn);
    const std::string result(text);
    ldap_memfree(text);
    return result;
}

bool EndsWithDn(const std::string& dn, const std::string& end) {
    if (dn.size() <= end.size())
        return EqualNames(dn, end);
    const std::size_t start = dn.size() - end.size();
    return dn[start - 1] == ',' && EqualNames(std::string_view(dn).substr(start), end);
}

} // namespace

std::string NormalizeDomainName(const std::string& name) {
    std::string result = LowerCase(name);
    if (!result.empty() && result.back() == '.')
        result.pop_back();
    if (!IsDottedName(result, "-_"))
        throw Error(Status::InvalidDomainName, "'" + name + "' is not a domain name");
    return result;
}

UserName UserName::Parse(const std::string& text) {
    const auto refuse = [&] {
        throw Error(Status::InvalidUserName, "'" + text + "' is not a user name");
    };
    UserName user;
    const std::size_t backslash = text.find('\\');
    const std::size_t at = text.rfind('@');
    if (backslash != std::string::npos && at != std::string::npos)
        refuse();
    if (backslash != std::string::npos)
        user = {text.substr(backslash + 1), text.substr(0, backslash)};
    else if (at != std::string::npos)
        user = {text.substr(0, at), text.substr(at + 1)};
    else
        user = {text, ""};

    const bool separated = backslash != std::string::npos || at != std::string::npos;
    if (user.name.empty() || user.name.find_first_of("\"/\\[]:;|=,+*?<>") != std::string::npos ||
        std::any_of(user.name.begin(), user.name.end(),
                    [](char c) { return static_cast<unsigned char>(c) < ' '; }))
        refuse();
    if (separated && !IsDottedName(user.domain, "-_"))
        refuse();
    return user;
}

std::vector<std::string> HostNames::ServicePrincipals() const {
    std::vector<std::string> principals;
    for (const char* service : {"HOST/", "RestrictedKrbHost/"})
        for (const std::string& name : {shortName, fullName})
            principals.push_back(service + name);
    return principals;
}

HostNames HostNames::Of(const std::string& hostName, const std::string& domain) {
    const std::string full = LowerCase(hostName);
    if (!IsDottedName(full, "-"))
        throw Error(Status::InvalidComputerName, "'" + hostName + "' cannot be a computer's name");
    HostNames names;
    names.shortName = full.substr(0, full.find('.'));
    if (names.shortName == "localhost")
        throw Error(Status::InvalidComputerName, "the host has no name of its own");
    names.fullName = full.find('.') == std::string::npos ? full + "." + domain : full;
    names.account = AccountFor(names.shortName);
    return names;
}

HostNames HostNames::OfThisHost(const std::string& domain) {
    char name[HOST_NAME_MAX + 1] = "";
    if (gethostname(name, sizeof name - 1) != 0)
        ThrowFileError(errno, "cannot read the host's name");
    return Of(name, domain);
}

std::string EscapeDnValue(const std::string& value) {
    std::string result;
    for (std::size_t i = 0; i < value.size(); ++i) {
        const char c = value[i];
        const bool edge = (i == 0 && (c == ' ' || c == '#')) || (i + 1 == value.size() && c == ' ');
        if (edge || std::string_view(",+\"\\<>;=").find(c) != std::string_view::npos)
            result += '\\';
        result += c;
    }
    return result;
}

std::string OrganizationalUnitDn(const std::string& unit, const std::string& baseDn) {
    if (unit.find('=') != std::string::npos) {
        const std::string dn = NormalizeDn(unit);
        return EndsWithDn(dn, NormalizeDn(baseDn)) ? dn : dn + "," + baseDn;
    }
    std::string dn = baseDn;
    std::string_view rest = unit;
    while (!rest.empty()) {
        const std::size_t slash = std::min(rest.find('/'), rest.size());
        if (slash == 0)
            throw Error(Status::NoSuchContainer, "'" + unit + "' has an empty level");
        dn.insert(0, "OU=" + EscapeDnValue(std::string(rest.substr(0, slash))) + ",");
        rest.remove_prefix(std::min(slash + 1, rest.size()));
    }
    return dn;
}

} // namespace tessary::directory
