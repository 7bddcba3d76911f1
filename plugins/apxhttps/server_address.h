/// Where a proxy is reached.
#ifndef TESAUTH_APXHTTPS_SERVER_ADDRESS_H
#define TESAUTH_APXHTTPS_SERVER_ADDRESS_H

#include <string>
#include <string_view>

namespace tessary::apxhttps {

/// The beginning of every URL of a proxy, without a path: "https://host:port".
/// \param address "host", "host:port", "[v6]" or "[v6]:port"; the port is 8447 where none is given
/// \throws Failure with BadRequest if it is nothing of these
std::string ServerUrl(std::string_view address);

} // namespace tessary::apxhttps

#endif
