#include "account_place.h"

#include "directory/text.h"

#include <ldap.h>

#include <memory>
#include <string_view>
#include <vector>

namespace tessary::proxy {
namespace {

struct DnDeleter {
    void operator()(LDAPDN dn) const { ldap_dnfree(dn); }
};
using ParsedDn = std::unique_ptr<std::remove_pointer_t<LDAPDN>, DnDeleter>;

ParsedDn Parse(const std::string& dn) {
    LDAPDN parsed = nullptr;
    if (ldap_str2dn(dn.c_str(), &parsed, LDAP_DN_FORMAT_LDAPV3) != LDAP_SUCCESS)
        return nullptr;
    return ParsedDn(parsed);
}

/// The parts of a name, the last one first; points into it.
std::vector<LDAPRDN> PartsFromTheEnd(LDAPDN dn) {
    std::vector<LDAPRDN> parts;
    for (LDAPRDN* part = dn; *part; ++part)
        parts.insert(parts.begin(), *part);
    return parts;
}

bool EqualText(const berval& a, const berval& b) {
    return directory::EqualNames(std::string_view(a.bv_val, a.bv_len),
                                 std::string_view(b.bv_val, b.bv_len));
}

bool EqualParts(LDAPRDN a, LDAPRDN b) {
    for (; *a && *b; ++a, ++b) {
        // A value in hexadecimal digits may stand for one written out.
        if (((*a)->la_flags | (*b)->la_flags) & LDAP_AVA_BINARY)
            return false;
        if (!EqualText((*a)->la_attr, (*b)->la_attr) || !EqualText((*a)->la_value, (*b)->la_value))
            return false;
    }
    return !*a && !*b;
}

} // namespace

bool LiesWithin(const std::string& dn, const std::string& container) {
    const ParsedDn inner = Parse(dn);
    const ParsedDn outer = Parse(container);
    if (!inner || !outer)
        return false;
    const std::vector<LDAPRDN> innerParts = PartsFromTheEnd(inner.get());
    const std::vector<LDAPRDN> outerParts = PartsFromTheEnd(outer.get());
    if (outerParts.empty() || innerParts.size() < outerParts.size())
        return false;
    for (std::size_t i = 0; i < outerParts.size(); ++i)
        if (!EqualParts(innerParts[i], outerParts[i]))
            return false;
    return true;
}

} // namespace tessary::proxy
