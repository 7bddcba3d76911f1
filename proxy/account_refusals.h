/// Refusals as a client gets them, of what fails below.
#ifndef TESSARY_PROXY_ACCOUNT_REFUSALS_H
#define TESSARY_PROXY_ACCOUNT_REFUSALS_H

#include "account_service.h"
#include "directory/error.h"

namespace tessary::proxy {

/// Whether no controller has answered, or the connection to one broke: what was asked for may have
/// been done all the same.
bool IsUnanswered(const directory::Error& error);

/// Throws what is being handled as a Refusal, unless it is one already. The cause goes into its
/// detail.
[[noreturn]] void RethrowAsRefusal();

/// Runs a function; whatever it throws becomes a Refusal.
template <typename Function>
auto Refusing(Function function) {
    try {
        return function();
    } catch (...) {
        RethrowAsRefusal();
    }
}

} // namespace tessary::proxy

#endif
