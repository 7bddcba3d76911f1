#include "user_reference.h"

#include "error.h"
#include "names.h"
#include "text.h"

#include <ldap.h>

#include <algorithm>
#include <cwchar>
#include <locale>
#include <memory>
#include <string_view>
#include <type_traits>

namespace tessary::directory {
namespace {

constexpr std::size_t longestText = 4096;

struct DnDeleter {
    void operator()(LDAPDN dn) const { ldap_dnfree(dn); }
};
using Dn = std::unique_ptr<std::remove_pointer_t<LDAPDN>, DnDeleter>;

struct MemoryDeleter {
    void operator()(char* text) const { ldap_memfree(text); }
};

[[noreturn]] void Refuse(const char* why) {
    throw Error(Status::InvalidUserName, std::string("not a user name: ") + why);
}

bool IsUtf8(std::string_view text) {
    using Conversion = std::codecvt<char32_t, char8_t, std::mbstate_t>;
    const auto begin = reinterpret_cast<const char8_t*>(text.data());
    std::mbstate_t state{};
    const int valid = std::use_facet<Conversion>(std::locale::classic())
                          .length(state, begin, begin + text.size(), text.size());
    return static_cast<std::size_t>(valid) == text.size();
}

void CheckText(const std::string& text) {
    if (text.size() > longestText)
        Refuse("it is too long");
    if (std::any_of(text.begin(), text.end(),
                    [](char c) { return static_cast<unsigned char>(c) < ' ' || c == '\x7f'; }))
        Refuse("it has control characters");
    if (!IsUtf8(text))
        Refuse("it is not UTF-8");
}

std::string DomainIn(const std::string& text) {
    try {
        return NormalizeDomainName(text);
    } catch (const Error& error) {
        if (error.Code() != Status::InvalidDomainName)
            throw;
        Refuse("its domain is malformed");
    }
}

/// Whether a text begins with "CN=" or the like.
bool BeginsWithAttribute(std::string_view text) {
    std::size_t end = 0;
    while (end < text.size() && (IsLetterOrDigit(text[end]) || text[end] == '-'))
        ++end;
    const std::size_t sign = text.find_first_not_of(' ', end);
    return end > 0 && sign != std::string_view::npos && text[sign] == '=';
}

std::string_view TextOf(const berval& value) {
    return {value.bv_val, value.bv_len};
}

/// "corp.example" for a name that ends in "DC=corp,DC=example".
std::string DomainOf(LDAPDN dn) {
    std::size_t count = 0;
    while (dn[count])
        ++count;
    std::string domain;
    for (; count > 0; --count) {
        const LDAPRDN level = dn[count - 1];
        if (!level[0] || level[1] || !EqualNames(TextOf(level[0]->la_attr), "DC"))
            break;
        domain.insert(0, std::string(TextOf(level[0]->la_value)) + (domain.empty() ? "" : "."));
    }
    return domain;
}

UserReference ParseDistinguishedName(const std::string& text) {
    LDAPDN parsed = nullptr;
    if (ldap_str2dn(text.c_str(), &parsed, LDAP_DN_FORMAT_LDAPV3) != LDAP_SUCCESS)
        Refuse("the distinguished name is malformed");
    const Dn owned(parsed);
    char* written = nullptr;
    if (ldap_dn2str(parsed, &written, LDAP_DN_FORMAT_LDAPV3) != LDAP_SUCCESS || !written)
        Refuse("the distinguished name is malformed");
    const std::unique_ptr<char, MemoryDeleter> ownedText(written);
    return {UserReference::Form::DistinguishedName, DomainIn(DomainOf(parsed)), written, {}};
}

UserReference ParsePath(const std::string& text) {
    const std::size_t slash = text.find('/');
    UserReference user{UserReference::Form::Path, DomainIn(text.substr(0, slash)), "", {""}};
    for (std::size_t i = slash + 1; i < text.size(); ++i) {
        if (text[i] == '/')
            user.levels.emplace_back();
        else if (text[i] != '\\')
            user.levels.back() += text[i];
        else if (++i < text.size())
            user.levels.back() += text[i];
        else
            Refuse("it ends in a backslash");
    }
    if (std::any_of(user.levels.begin(), user.levels.end(),
                    [](const std::string& level) { return level.empty(); }))
        Refuse("a level of the path is empty");
    return user;
}

UserReference ParsePrincipalName(const std::string& text) {
    const std::size_t at = text.find('@');
    if (at == 0)
        Refuse("there is nothing before the '@'");
    return {UserReference::Form::PrincipalName,
            DomainIn(text.substr(at + 1)), // refuses another '@'
            text.substr(0, at),
            {}};
}

} // namespace

UserReference UserReference::Parse(const std::string& text) {
    CheckText(text);
    if (BeginsWithAttribute(text))
        return ParseDistinguishedName(text);
    const std::size_t separator = text.find_first_of("/\\");
    if (separator != std::string::npos && text[separator] == '/')
        return ParsePath(text);
    if (separator == std::string::npos && text.find('@') != std::string::npos)
        return ParsePrincipalName(text);
    const UserName user = UserName::Parse(text);
    return {Form::AccountName, user.domain, user.name, {}};
}

} // namespace tessary::directory
