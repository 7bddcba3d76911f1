/// Where in the directory the proxy may write.
#ifndef TESSARY_PROXY_ACCOUNT_PLACE_H
#define TESSARY_PROXY_ACCOUNT_PLACE_H

#include <string>

namespace tessary::proxy {

/// Whether a distinguished name is that of a container, or lies below it. Compares the names'
/// parts, not their text: a comma that belongs to a value ends none. Case of ASCII letters is
/// ignored; two spellings that differ otherwise count as different. \return false also when one of
/// them is malformed
bool LiesWithin(const std::string& dn, const std::string& container);

} // namespace tessary::proxy

#endif
