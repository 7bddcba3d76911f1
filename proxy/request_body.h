/// What a host asks for, as it is written in a request's body.
#ifndef TESSARY_PROXY_REQUEST_BODY_H
#define TESSARY_PROXY_REQUEST_BODY_H

#include <string>

namespace tessary::proxy {

/// A machine account that is asked for; any text may stand for the names.
struct AccountRequest {
    std::string hostName;
    std::string container; ///< empty: none was asked for

    /// \param body a JSON object with the members that this record has, each at most once and of
    ///             text; "container" may be missing or null
    /// \throws Refusal BadRequest when it is anything else
    static AccountRequest Parse(const std::string& body);
};

} // namespace tessary::proxy

#endif
