/// Names of hosts that ask for an account.
#ifndef TESSARY_PROXY_HOST_NAME_H
#define TESSARY_PROXY_HOST_NAME_H

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace tessary::proxy {

/// A fully qualified host name in lower case, without a final dot.
/// \return nothing when it is not one: it has two labels or more, each of 1 to 63 ASCII letters,
///         digits and hyphens, none of these at a label's ends, and is no address
std::optional<std::string> NormalizeHostName(std::string_view text);

/// Text that may be a client's, fit for a line of a log: cut, and every byte that is not printable
/// ASCII replaced by a question mark.
std::string Printable(std::string_view text, std::size_t longest = 255);

} // namespace tessary::proxy

#endif
